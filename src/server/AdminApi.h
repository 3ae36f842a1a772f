#pragma once
// The admin interface: JSON over plain HTTP on a loopback port, for tests, scripts and demos.
// Every request is answered with a JSON object that has "ok" (and "error" when false).
//
//   GET  /tree?user=U[&pending=1]
//   {"ok":true,"entries":[{"path","key","pkey","folder","size","md5","time","uploaded"}]} GET
//   /file?user=U&path=P        the stored bytes of one file (raw body; 404 when missing) GET  /log
//   {"ok":true,"entries":[{"seq","command","method","target","body","size"}]} POST /log/clear GET  /time
//   {"ok":true,"time":"yyyyMMddHHmmss","timezone":"+hhmm"} POST /users            {"id","password","mail"}
//   POST /sessions/expire  {"user"}
//   POST /quota            {"user","total"}
//   POST /mkdir            {"user","path","pcname"}                 -> {"key"}
//   POST /put              {"user","path","content"|"content_base64","time","pcname"} -> {"key"}
//   POST /rename           {"user","path","name","pcname"}
//   POST /move             {"user","path","dest","pcname"}         ("dest" "" is the sync folder)
//   POST /delete           {"user","path","pcname"}
//   POST /fault            {"kind","command","count","status","body","ms","result","bytes"}
//        kinds: drop, cut-reply, drop-after, status, body, delay, refuse-upload, cut-download
//   GET  /faults           {"ok":true,"pending":n}  (fault counts not yet used up)
//   POST /faults/clear
//   POST /update           {"version","build","package"|"package_base64"}
// Paths are relative to the account's sync folder; "pcname" defaults to "ferrovane-admin".
// Runs on the server's worker thread.

#include "server/HttpConnection.h"

class ServerBackend;

class AdminApi final : public HttpHandler
{
public:
    static constexpr const char *kDefaultPcName = "ferrovane-admin";

    explicit AdminApi(ServerBackend &backend);
    BodySink headersReceived(HttpConnection *connection, HttpRequest &request) override;
    void requestReceived(HttpConnection *connection, HttpRequest &request) override;

private:
    ServerBackend &m_backend;
};
