#include "util/Codecs.h"

#include "util/Log.h"

#include <QCryptographicHash>
#include <QHash>
#include <algorithm>
#include <new>

namespace {

// The five characters that may not appear raw in XML text or attributes, sorted by character.
constexpr HTMLEscapeMap kXmlEscapes[] = {
    {"&quot;", u'"'}, {"&amp;", u'&'}, {"&apos;", u'\''}, {"&lt;", u'<'}, {"&gt;", u'>'},
};

const HTMLEscapeMap *findEscape(const HTMLEscapeMap *table, qsizetype size, char16_t c)
{
    if (!table || size <= 0)
        return nullptr;
    const HTMLEscapeMap *end = table + size;
    const HTMLEscapeMap *it = std::lower_bound(
        table, end, c, [](const HTMLEscapeMap &row, char16_t value) { return row.uchar < value; });
    return (it != end && it->uchar == c) ? it : nullptr;
}

bool isLegalXmlUnit(char16_t c)
{
    return c == 9 || c == 10 || c == 13 || (c >= 0x20 && c <= 0xD7FF) || (c >= 0xE000 && c <= 0xFFFD);
}

QString sanitizeForXml(const QString &string, bool escape)
{
    if (string.isEmpty())
        return string;
    QString out;
    try {
        // The longest entity is six units, so this is the most the result can need.
        out.reserve(escape ? string.size() * 6 : string.size());
    } catch (const std::bad_alloc &) {
        FV_LOG(QStringLiteral("couldn't alloc buffer"));
        return QString();
    }
    for (const QChar qc : string) {
        const char16_t c = qc.unicode();
        if (!isLegalXmlUnit(c))
            continue;
        if (escape) {
            if (const HTMLEscapeMap *row = findEscape(kXmlEscapes, std::size(kXmlEscapes), c)) {
                out += QLatin1String(row->escapeSequence);
                continue;
            }
        }
        out += qc;
    }
    return out;
}

void appendCodePoint(QString &out, char32_t cp)
{
    if (cp > 0xFFFF) {
        out += QChar(QChar::highSurrogate(cp));
        out += QChar(QChar::lowSurrogate(cp));
    } else {
        out += QChar(char16_t(cp));
    }
}

int hexValue(char16_t c)
{
    if (c >= u'0' && c <= u'9')
        return c - u'0';
    if (c >= u'a' && c <= u'f')
        return c - u'a' + 10;
    if (c >= u'A' && c <= u'F')
        return c - u'A' + 10;
    return -1;
}

// Entity names of the large table (without "&" and ";") to their characters, built once.
const QHash<QString, char16_t> &entityNames()
{
    static const QHash<QString, char16_t> names = [] {
        QHash<QString, char16_t> map;
        for (const HTMLEscapeMap &row : htmlLargeEntityTable()) {
            const QLatin1String text(row.escapeSequence);
            map.insert(QString(text.mid(1, text.size() - 2)), row.uchar);
        }
        return map;
    }();
    return names;
}

constexpr int kLongestEntityName = 8; // "thetasym"

// Decodes the entity body between "&" and ";" (s[from, to)). Returns false when it is not one.
bool decodeEntity(const QString &s, qsizetype from, qsizetype to, char32_t *cp)
{
    const qsizetype len = to - from;
    if (len <= 0)
        return false;
    if (s[from] != u'#') {
        if (len > kLongestEntityName)
            return false;
        const auto it = entityNames().constFind(s.mid(from, len));
        if (it == entityNames().constEnd())
            return false;
        *cp = it.value();
        return true;
    }
    qsizetype i = from + 1;
    const bool hex = i < to && (s[i] == u'x' || s[i] == u'X');
    if (hex)
        ++i;
    if (i >= to)
        return false;
    char32_t value = 0;
    for (; i < to; ++i) {
        const int digit = hex ? hexValue(s[i].unicode())
                              : (s[i].isDigit() && s[i].unicode() < 128 ? s[i].unicode() - u'0' : -1);
        if (digit < 0)
            return false;
        value = value * (hex ? 16 : 10) + char32_t(digit);
        if (value > 0x10FFFF)
            return false;
    }
    if (value == 0 || (value >= 0xD800 && value <= 0xDFFF))
        return false;
    *cp = value;
    return true;
}

bool isHtmlSpace(QChar c)
{
    return c == u' ' || c == u'\t' || c == u'\n' || c == u'\r' || c == u'\f';
}

// A tag found in markup.
struct Tag
{
    qsizetype end = -1; // index after its ">", or -1 when the "<" does not open a tag
    QString name;       // lower case; "!--" for a comment, "!" or "?" for declarations
    bool closing = false;
};

// Reads the tag that may start at s[i] == '<'. A "<" that is not followed by a letter, "/letter",
// "!" or "?", or that is never closed, is plain text.
Tag readTag(const QString &s, qsizetype i)
{
    Tag tag;
    const qsizetype n = s.size();
    if (i + 1 >= n)
        return tag;
    if (QStringView(s).mid(i).startsWith(u"<!--")) {
        const qsizetype close = s.indexOf(u"-->", i + 4);
        tag.name = QStringLiteral("!--");
        tag.end = close < 0 ? n : close + 3; // an unclosed comment runs to the end, as in browsers
        return tag;
    }
    const QChar first = s[i + 1];
    if (first == u'!' || first == u'?') {
        const qsizetype close = s.indexOf(u'>', i + 2);
        if (close >= 0) {
            tag.name = QString(first);
            tag.end = close + 1;
        }
        return tag;
    }
    qsizetype k = i + 1;
    if (first == u'/') {
        tag.closing = true;
        ++k;
    }
    if (k >= n || !(s[k].unicode() < 128 && s[k].isLetter()))
        return tag;
    const qsizetype nameStart = k;
    while (k < n && s[k].unicode() < 128 && s[k].isLetterOrNumber())
        ++k;
    QString name = s.mid(nameStart, k - nameStart).toLower();
    while (k < n) {
        const QChar c = s[k];
        if (c == u'>') {
            tag.name = std::move(name);
            tag.end = k + 1;
            return tag;
        }
        ++k;
        if (c == u'=') {
            while (k < n && isHtmlSpace(s[k]))
                ++k;
            if (k < n && (s[k] == u'"' || s[k] == u'\'')) {
                const qsizetype close = s.indexOf(s[k], k + 1);
                if (close < 0)
                    return tag;
                k = close + 1;
            }
        }
    }
    return tag;
}

bool isBlockTag(const QString &name)
{
    static const QStringList blocks = {
        QStringLiteral("address"),    QStringLiteral("article"), QStringLiteral("aside"),
        QStringLiteral("blockquote"), QStringLiteral("br"),      QStringLiteral("dd"),
        QStringLiteral("div"),        QStringLiteral("dl"),      QStringLiteral("dt"),
        QStringLiteral("footer"),     QStringLiteral("form"),    QStringLiteral("h1"),
        QStringLiteral("h2"),         QStringLiteral("h3"),      QStringLiteral("h4"),
        QStringLiteral("h5"),         QStringLiteral("h6"),      QStringLiteral("header"),
        QStringLiteral("hr"),         QStringLiteral("li"),      QStringLiteral("nav"),
        QStringLiteral("ol"),         QStringLiteral("p"),       QStringLiteral("pre"),
        QStringLiteral("section"),    QStringLiteral("table"),   QStringLiteral("tr"),
        QStringLiteral("ul"),
    };
    return blocks.contains(name);
}

bool isCellTag(const QString &name)
{
    return name == u"td" || name == u"th";
}

// Index of the closing tag of a raw-text element (script, style) at or after `from`, or -1.
qsizetype findClosingTag(const QString &s, qsizetype from, const QString &name)
{
    const QString needle = QStringLiteral("</") + name;
    qsizetype at = from;
    while ((at = s.indexOf(needle, at, Qt::CaseInsensitive)) >= 0) {
        const Tag tag = readTag(s, at);
        if (tag.end >= 0 && tag.closing && tag.name == name)
            return at;
        at += needle.size();
    }
    return -1;
}

bool startsWithScheme(const QString &s, qsizetype i, qsizetype *schemeLength)
{
    const QStringView rest = QStringView(s).mid(i);
    for (const char16_t *scheme : {u"http://", u"https://"}) {
        const QStringView sv(scheme);
        if (rest.startsWith(sv, Qt::CaseInsensitive)) {
            *schemeLength = sv.size();
            return true;
        }
    }
    return false;
}

constexpr char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int base64Value(char16_t c)
{
    if (c >= u'A' && c <= u'Z')
        return c - u'A';
    if (c >= u'a' && c <= u'z')
        return c - u'a' + 26;
    if (c >= u'0' && c <= u'9')
        return c - u'0' + 52;
    if (c == u'+')
        return 62;
    if (c == u'/')
        return 63;
    return -1;
}

} // namespace

// ---------------------------------------------------------------- XML

QString gtm_stringBySanitizingAndEscapingForXML(const QString &string)
{
    return sanitizeForXml(string, true);
}

QString gtm_stringBySanitizingToXMLSpec(const QString &string)
{
    return sanitizeForXml(string, false);
}

// ---------------------------------------------------------------- URL

QString encodeToURL(const QString &string)
{
    static constexpr char hex[] = "0123456789ABCDEF";
    const QByteArray bytes = string.toUtf8();
    QString out;
    out.reserve(bytes.size() * 3);
    for (const char ch : bytes) {
        const auto b = static_cast<unsigned char>(ch);
        const bool unreserved = (b >= 'A' && b <= 'Z') || (b >= 'a' && b <= 'z') || (b >= '0' && b <= '9') ||
                                b == '-' || b == '.' || b == '_' || b == '~';
        if (unreserved) {
            out += QChar(char16_t(b));
        } else {
            out += u'%';
            out += QChar(char16_t(hex[b >> 4]));
            out += QChar(char16_t(hex[b & 0xF]));
        }
    }
    return out;
}

QString decodeFromURL(const QString &string)
{
    QString plus = string;
    plus.replace(u'+', u' ');
    const QByteArray bytes = plus.toUtf8();
    QByteArray out;
    out.reserve(bytes.size());
    for (qsizetype i = 0; i < bytes.size(); ++i) {
        if (bytes[i] == '%' && i + 2 < bytes.size()) {
            const int hi = hexValue(char16_t(static_cast<unsigned char>(bytes[i + 1])));
            const int lo = hexValue(char16_t(static_cast<unsigned char>(bytes[i + 2])));
            if (hi >= 0 && lo >= 0) {
                out += char(hi * 16 + lo);
                i += 2;
                continue;
            }
        }
        out += bytes[i];
    }
    return QString::fromUtf8(out);
}

// ---------------------------------------------------------------- MD5

QString md5Sum(const QByteArray &data)
{
    return QString::fromLatin1(QCryptographicHash::hash(data, QCryptographicHash::Md5).toHex());
}

QString md5Sum(const QString &string)
{
    return md5Sum(string.toUtf8());
}

QString toMD5(const QString &string)
{
    return md5Sum(string.toUtf8());
}

// ---------------------------------------------------------------- HTML

QString gtm_stringByEscapingHTMLUsingTable(const QString &string, const HTMLEscapeMap *table, qsizetype size,
                                           bool escapingUnicode)
{
    if (string.isEmpty())
        return string;
    QString out;
    out.reserve(string.size() + string.size() / 4);
    const qsizetype n = string.size();
    for (qsizetype i = 0; i < n; ++i) {
        const QChar qc = string[i];
        const char16_t c = qc.unicode();
        if (const HTMLEscapeMap *row = findEscape(table, size, c)) {
            out += QLatin1String(row->escapeSequence);
            continue;
        }
        if (!escapingUnicode || c <= 127) {
            out += qc;
            continue;
        }
        char32_t cp = c;
        if (qc.isHighSurrogate() && i + 1 < n && string[i + 1].isLowSurrogate()) {
            cp = QChar::surrogateToUcs4(qc, string[i + 1]);
            ++i;
        }
        out += u"&#" + QString::number(cp) + u';';
    }
    return out;
}

QString gtm_stringByEscapingForHTML(const QString &string)
{
    const auto table = htmlSmallEntityTable();
    return gtm_stringByEscapingHTMLUsingTable(string, table.data(), qsizetype(table.size()), false);
}

QString gtm_stringByEscapingForAsciiHTML(const QString &string)
{
    const auto table = htmlLargeEntityTable();
    return gtm_stringByEscapingHTMLUsingTable(string, table.data(), qsizetype(table.size()), true);
}

QString gtm_stringByUnescapingFromHTML(const QString &string)
{
    const qsizetype n = string.size();
    qsizetype amp = string.indexOf(u'&');
    if (amp < 0)
        return string;
    QString out;
    out.reserve(n);
    qsizetype copied = 0;
    qsizetype semicolon = -1; // the next ";" at or after the current "&", found once and reused
    while (amp >= 0) {
        if (semicolon < amp)
            semicolon = string.indexOf(u';', amp + 1);
        if (semicolon < 0)
            break;
        char32_t cp = 0;
        if (decodeEntity(string, amp + 1, semicolon, &cp)) {
            out += QStringView(string).mid(copied, amp - copied);
            appendCodePoint(out, cp);
            copied = semicolon + 1;
            amp = string.indexOf(u'&', copied);
        } else {
            amp = string.indexOf(u'&', amp + 1);
        }
    }
    out += QStringView(string).mid(copied, n - copied);
    return out;
}

QString stringByEncodingHTMLEntities(const QString &string)
{
    return gtm_stringByEscapingForAsciiHTML(string);
}

QString stringByEncodingHTMLEntities(const QString &string, bool isUnicode)
{
    return isUnicode ? gtm_stringByEscapingForHTML(string) : gtm_stringByEscapingForAsciiHTML(string);
}

QString stringByDecodingHTMLEntities(const QString &string)
{
    return gtm_stringByUnescapingFromHTML(string);
}

QString stringByConvertingHTMLToPlainText(const QString &string)
{
    QString out;
    out.reserve(string.size());
    bool pendingSpace = false;
    int pendingBreaks = 0;
    const qsizetype n = string.size();
    qsizetype i = 0;
    while (i < n) {
        const QChar c = string[i];
        if (c == u'<') {
            const Tag tag = readTag(string, i);
            if (tag.end >= 0) {
                i = tag.end;
                if (tag.name == u"br")
                    pendingBreaks = std::min(pendingBreaks + 1, 2);
                else if (isBlockTag(tag.name))
                    pendingBreaks = std::max(pendingBreaks, 1);
                else if (isCellTag(tag.name))
                    pendingSpace = true;
                if (!tag.closing && (tag.name == u"script" || tag.name == u"style")) {
                    const qsizetype close = findClosingTag(string, i, tag.name);
                    i = close < 0 ? n : readTag(string, close).end;
                }
                continue;
            }
        }
        ++i;
        if (isHtmlSpace(c)) {
            pendingSpace = true;
            continue;
        }
        if (!out.isEmpty()) {
            if (pendingBreaks > 0)
                out += QString(pendingBreaks, u'\n');
            else if (pendingSpace)
                out += u' ';
        }
        pendingBreaks = 0;
        pendingSpace = false;
        out += c;
    }
    return gtm_stringByUnescapingFromHTML(out).trimmed();
}

QString stringWithNewLinesAsBRs(const QString &string)
{
    QString out;
    out.reserve(string.size());
    const qsizetype n = string.size();
    for (qsizetype i = 0; i < n; ++i) {
        const QChar c = string[i];
        if (c == u'\r' || c == u'\n' || c == QChar(0x2028)) {
            if (c == u'\r' && i + 1 < n && string[i + 1] == u'\n')
                ++i;
            out += u"<br />";
        } else {
            out += c;
        }
    }
    return out;
}

QString stringByRemovingNewLinesAndWhitespace(const QString &string)
{
    return string.simplified();
}

QString stringByLinkifyingURLs(const QString &string)
{
    QString out;
    out.reserve(string.size());
    const qsizetype n = string.size();
    bool inAnchor = false;
    qsizetype i = 0;
    while (i < n) {
        const QChar c = string[i];
        if (c == u'<') {
            const Tag tag = readTag(string, i);
            if (tag.end >= 0) {
                if (tag.name == u"a")
                    inAnchor = !tag.closing;
                out += QStringView(string).mid(i, tag.end - i);
                i = tag.end;
                continue;
            }
        }
        qsizetype schemeLength = 0;
        if (!inAnchor && (i == 0 || !string[i - 1].isLetterOrNumber()) &&
            startsWithScheme(string, i, &schemeLength)) {
            qsizetype end = i + schemeLength;
            while (end < n && !string[end].isSpace() && string[end] != u'<' && string[end] != u'>' &&
                   string[end] != u'"')
                ++end;
            // Sentence punctuation after an address is not part of it; nor is a ")" it did not open.
            while (end > i + schemeLength) {
                const QChar last = string[end - 1];
                const QStringView url = QStringView(string).mid(i, end - i);
                if (QStringView(u".,;:!?'").contains(last) ||
                    (last == u')' && url.count(u'(') < url.count(u')'))) {
                    --end;
                    continue;
                }
                break;
            }
            if (end > i + schemeLength) {
                const QStringView url = QStringView(string).mid(i, end - i);
                out += u"<a href=\"" + url + u"\">" + url + u"</a>";
                i = end;
                continue;
            }
        }
        out += c;
        ++i;
    }
    return out;
}

QString stringByStrippingTags(const QString &string)
{
    QString out;
    out.reserve(string.size());
    const qsizetype n = string.size();
    qsizetype i = 0;
    while (i < n) {
        if (string[i] == u'<') {
            const Tag tag = readTag(string, i);
            if (tag.end >= 0) {
                // Block tags separate words: "a<br>b" reads as two words, "a<b>b</b>" as one.
                if (isBlockTag(tag.name) || isCellTag(tag.name))
                    out += u' ';
                i = tag.end;
                continue;
            }
        }
        out += string[i];
        ++i;
    }
    return out.simplified();
}

// ---------------------------------------------------------------- Base64

QByteArray dataFromBase64String(const QString &string)
{
    QByteArray out;
    out.reserve(string.size() / 4 * 3 + 3);
    quint32 buffer = 0;
    int bits = 0;
    qsizetype symbols = 0; // alphabet characters and "=" seen
    int padding = 0;
    for (const QChar qc : string) {
        const char16_t c = qc.unicode();
        if (c == u' ' || c == u'\t' || c == u'\r' || c == u'\n' || c == u'\f')
            continue;
        ++symbols;
        if (c == u'=') {
            ++padding;
            continue;
        }
        const int value = base64Value(c);
        if (value < 0 || padding > 0)
            return QByteArray(); // a foreign character, or data after the padding
        buffer = (buffer << 6) | quint32(value);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out += char((buffer >> bits) & 0xFF);
        }
    }
    if (symbols % 4 != 0 || padding > 2)
        return QByteArray();
    return out;
}

QString encode(const char *data, qsizetype length)
{
    if (!data || length <= 0)
        return QString();
    const auto *in = reinterpret_cast<const unsigned char *>(data);
    QString out;
    out.reserve((length + 2) / 3 * 4);
    qsizetype i = 0;
    for (; i + 2 < length; i += 3) {
        const quint32 v = (quint32(in[i]) << 16) | (quint32(in[i + 1]) << 8) | in[i + 2];
        out += QChar(char16_t(kBase64Alphabet[(v >> 18) & 63]));
        out += QChar(char16_t(kBase64Alphabet[(v >> 12) & 63]));
        out += QChar(char16_t(kBase64Alphabet[(v >> 6) & 63]));
        out += QChar(char16_t(kBase64Alphabet[v & 63]));
    }
    const qsizetype rest = length - i;
    if (rest > 0) {
        const quint32 v = (quint32(in[i]) << 16) | (rest > 1 ? quint32(in[i + 1]) << 8 : 0);
        out += QChar(char16_t(kBase64Alphabet[(v >> 18) & 63]));
        out += QChar(char16_t(kBase64Alphabet[(v >> 12) & 63]));
        out += rest > 1 ? QChar(char16_t(kBase64Alphabet[(v >> 6) & 63])) : QChar(u'=');
        out += u'=';
    }
    return out;
}

QString base64EncodedString(const QByteArray &data)
{
    return encode(data.constData(), data.size());
}

QString base64StringFromData(const QByteArray &data)
{
    return encode(data.constData(), data.size());
}

QString base64String(const QString &string)
{
    return base64EncodedString(string.toUtf8());
}
