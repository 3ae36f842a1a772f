#!/usr/bin/env bash
# Signs in with curl, announces a file with PUT, uploads it, downloads it back (GET, POST, offset)
# and checks that the same bytes come back. Usage: curl_roundtrip.sh <path to ferrovane-server>
set -euo pipefail

server_bin=${1:?usage: curl_roundtrip.sh <ferrovane-server>}
work=$(mktemp -d)
server_pid=""
cleanup() {
  if [ -n "$server_pid" ]; then kill "$server_pid" 2>/dev/null || true; wait "$server_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

"$server_bin" --port 0 --admin-port 0 --data "$work/data" --add-user "u:p:u@example.com" >"$work/out" 2>"$work/err" &
server_pid=$!
for _ in $(seq 1 100); do
  grep -q "listening" "$work/out" 2>/dev/null && break
  kill -0 "$server_pid" 2>/dev/null || { cat "$work/err" >&2; fail "server did not start"; }
  sleep 0.1
done
line=$(grep "listening" "$work/out") || fail "no start line"
url=$(sed -n 's/.*url=\([^ ]*\).*/\1/p' <<<"$line")
cert=$(sed -n 's/.*cert=\(.*\)$/\1/p' <<<"$line")
endpoint="${url}cgi-bin/cloudXml.cgi"
c() { curl -sS --max-time 20 --cacert "$cert" "$@"; }

login=$(c "$endpoint" --data-binary '<XML><LOGIN ID="u" PASSWORD="p" ENCODE="raw" PCNAME = "pc" MAC="00:11:22:33:44:55" VER="20130128"></LOGIN></XML>')
session=$(sed -n 's/.*RESULT="\([^"]*\)".*/\1/p' <<<"$login")
[ -n "$session" ] && [ "$session" != "-1" ] || fail "sign-in refused: $login"
grep -q 'TIMEZONE="+0900"' <<<"$login" || fail "no time zone: $login"

bad=$(c "$endpoint" --data-binary '<XML><LOGIN ID="u" PASSWORD="wrong" ENCODE="raw" PCNAME = "pc" MAC="m" VER="20130128"></LOGIN></XML>')
grep -q 'RESULT="-1"' <<<"$bad" || fail "wrong password accepted: $bad"

head -c 3000000 /dev/urandom >"$work/payload"
size=$(stat -c %s "$work/payload")
put=$(c "$endpoint" --data-binary "<XML><PUT SESSION =\"$session\"  PCNAME=\"pc\" ><FILE NAME=\"payload.bin\" SIZE=\"$size\" MD5=\"\" TIME=\"20240102030405\" KIND=\"SYNC\">/payload.bin</FILE></PUT></XML>")
key=$(sed -n 's/.* KEY="\([0-9]*\)".*/\1/p' <<<"$put")
grep -q '>1</FILE>' <<<"$put" || fail "PUT refused: $put"
[ -n "$key" ] || fail "no key in $put"

verdict=$(c -D - -o /dev/null -H "Content-Type: application/stream" -H "velmora_filetime: 20240102030405" \
  --data-binary @"$work/payload" "${url}?do=upload&session=$session&key=$key" | tr -d '\r' | sed -n 's/^Velmora-result: //Ip')
[ "$verdict" = "0" ] || fail "upload verdict '$verdict'"

# Chunked upload of the same bytes (no length announced) must be stored as well.
verdict=$(c -D - -o /dev/null -H "Transfer-Encoding: chunked" -H "velmora_filetime: 20240102030405" \
  --data-binary @"$work/payload" "${url}?do=upload&session=$session&key=$key" | tr -d '\r' | sed -n 's/^Velmora-result: //Ip')
[ "$verdict" = "0" ] || fail "chunked upload verdict '$verdict'"

c -o "$work/get" "${endpoint}?do=download&session=$session&key=$key&offset=0"
cmp "$work/payload" "$work/get" || fail "GET download differs"
c -X POST -o "$work/post" "${url}/cgi-bin/cloudXml.cgi?do=download&session=$session&key=$key"
cmp "$work/payload" "$work/post" || fail "POST download differs"
c -o "$work/tail" "${url}?do=download&session=$session&key=$key&offset=1000"
tail -c +1001 "$work/payload" | cmp - "$work/tail" || fail "download from offset differs"

expected=$(md5sum "$work/payload" | cut -d' ' -f1)
list=$(c "$endpoint" --data-binary "<XML><SYNCLIST SESSION =\"$session\"></SYNCLIST></XML>")
grep -q "MD5=\"$expected\"" <<<"$list" || fail "SYNCLIST does not show the MD5: $list"

expired=$(c "$endpoint" --data-binary '<XML><QUOTA SESSION="nosuchsession" ></QUOTA></XML>')
[ "$expired" = "-3" ] || fail "unknown session answered '$expired'"
echo "curl round trip OK"
