#pragma once
// Small text and data conversions: XML sanitising, HTML entities, URL escaping, MD5 and Base64.
// Each function takes its receiver (the string or bytes it works on) as first argument.
// All of them are pure and may be called from any thread.

#include <QByteArray>
#include <QString>
#include <span>

// One row of an HTML entity table: the entity text (with its "&" and ";") and its UTF-16 character.
struct HTMLEscapeMap
{
    const char *escapeSequence;
    char16_t uchar;
};

// The two entity tables, sorted by character. The small one holds the special and common characters
// (33 rows); the large one every named character entity (253 rows).
std::span<const HTMLEscapeMap> htmlSmallEntityTable();
std::span<const HTMLEscapeMap> htmlLargeEntityTable();

// --- XML ---
// Drops every UTF-16 unit that is not 9, 10, 13, 0x20..0xD7FF or 0xE000..0xFFFD (so characters
// beyond the Basic Multilingual Plane vanish), then escapes " & ' < > as entities. An empty string
// comes back as it is; a null string is returned when no buffer can be had.
QString gtm_stringBySanitizingAndEscapingForXML(const QString &string);
// The same without the escaping.
QString gtm_stringBySanitizingToXMLSpec(const QString &string);

// --- URL ---
// Percent-escapes the UTF-8 bytes, leaving only A-Z a-z 0-9 - . _ ~ as they are.
QString encodeToURL(const QString &string);
// "+" becomes a blank, then %XX escapes are decoded as UTF-8. A malformed escape stays as written.
QString decodeFromURL(const QString &string);

// --- MD5 (32 lower-case hex digits) ---
QString toMD5(const QString &string);  // of the UTF-8 bytes
QString md5Sum(const QString &string); // of the UTF-8 bytes
QString md5Sum(const QByteArray &data);

// --- HTML ---
// Replaces the characters of the small table by their entities.
QString gtm_stringByEscapingForHTML(const QString &string);
// Replaces the characters of the large table, and every other non-ASCII character by "&#N;".
QString gtm_stringByEscapingForAsciiHTML(const QString &string);
// Turns "&#N;", "&#xH;" and the large table's names back into characters; anything else stays.
QString gtm_stringByUnescapingFromHTML(const QString &string);
// Replaces each character found in `table` (sorted by character, `size` rows) by its entity; with
// `escapingUnicode`, any other character above 127 becomes "&#N;" (N the code point).
QString gtm_stringByEscapingHTMLUsingTable(const QString &string, const HTMLEscapeMap *table, qsizetype size,
                                           bool escapingUnicode);

// HTML conveniences.
QString stringByEncodingHTMLEntities(const QString &string); // ASCII-only output
// isUnicode: only the small table is used and other characters stay as they are.
QString stringByEncodingHTMLEntities(const QString &string, bool isUnicode);
QString stringByDecodingHTMLEntities(const QString &string);
// Tags removed (script and style bodies too), block tags and <br> as line breaks, runs of blanks as
// one blank, entities decoded, ends trimmed.
QString stringByConvertingHTMLToPlainText(const QString &string);
// Each line break ("\r\n", "\r", "\n", U+2028) becomes "<br />".
QString stringWithNewLinesAsBRs(const QString &string);
// Every run of white space and line breaks becomes one blank; the ends are trimmed.
QString stringByRemovingNewLinesAndWhitespace(const QString &string);
// Wraps each http:// or https:// address outside tags and links in <a href="...">...</a>.
QString stringByLinkifyingURLs(const QString &string);
// Removes tags and comments (block tags leave a blank), collapses white space; entities stay.
QString stringByStrippingTags(const QString &string);

// --- Base64 (standard alphabet, padded) ---
// Decodes; blanks and line breaks are skipped. Anything malformed gives a null QByteArray.
QByteArray dataFromBase64String(const QString &string);
QString base64EncodedString(const QByteArray &data);
QString base64StringFromData(const QByteArray &data);
QString encode(const char *data, qsizetype length);
QString base64String(const QString &string); // of the UTF-8 bytes
