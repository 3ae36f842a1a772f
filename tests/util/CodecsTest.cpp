#include "util/Codecs.h"

#include <QSet>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {
QString entityFor(std::span<const HTMLEscapeMap> table, char16_t c)
{
    for (const HTMLEscapeMap &row : table)
        if (row.uchar == c)
            return QString::fromLatin1(row.escapeSequence);
    return QString();
}
} // namespace

TEST(HtmlEntityTables, HaveTheFullSetsSortedAndConsistent)
{
    const auto small = htmlSmallEntityTable();
    const auto large = htmlLargeEntityTable();
    ASSERT_EQ(small.size(), 33u);
    ASSERT_EQ(large.size(), 253u);

    for (const auto table : {small, large}) {
        QSet<QString> names;
        for (size_t i = 0; i < table.size(); ++i) {
            if (i > 0) {
                EXPECT_LT(table[i - 1].uchar, table[i].uchar) << "unsorted or duplicate at row " << i;
            }
            const QString name = QString::fromLatin1(table[i].escapeSequence);
            EXPECT_TRUE(name.startsWith(u'&') && name.endsWith(u';') && name.size() > 2)
                << name.toStdString();
            names.insert(name);
        }
        EXPECT_EQ(size_t(names.size()), table.size());
    }
    // The small table is a subset of the large one with the same names.
    for (const HTMLEscapeMap &row : small)
        EXPECT_EQ(entityFor(large, row.uchar), QString::fromLatin1(row.escapeSequence));

    // Spot checks across the three sets (Latin-1, symbols and Greek, special).
    EXPECT_EQ(entityFor(large, 160), u"&nbsp;"_s);
    EXPECT_EQ(entityFor(large, 255), u"&yuml;"_s);
    EXPECT_EQ(entityFor(large, 376), u"&Yuml;"_s);
    EXPECT_EQ(entityFor(large, 402), u"&fnof;"_s);
    EXPECT_EQ(entityFor(large, 962), u"&sigmaf;"_s);
    EXPECT_EQ(entityFor(large, 977), u"&thetasym;"_s);
    EXPECT_EQ(entityFor(large, 8501), u"&alefsym;"_s);
    EXPECT_EQ(entityFor(large, 9002), u"&rang;"_s);
    EXPECT_EQ(entityFor(large, 9830), u"&diams;"_s);
    EXPECT_EQ(entityFor(small, 39), u"&apos;"_s);
    EXPECT_EQ(entityFor(small, 8364), u"&euro;"_s);
    EXPECT_TRUE(entityFor(small, 160).isNull());
    EXPECT_TRUE(entityFor(large, 930).isNull()); // no capital final sigma
}

TEST(XmlSanitising, DropsIllegalUnitsIncludingWholeNonBmpCharacters)
{
    EXPECT_EQ(gtm_stringBySanitizingToXMLSpec(u"a\u0001b"_s), u"ab"_s);
    EXPECT_EQ(gtm_stringBySanitizingToXMLSpec(u"a\fb\u0000c"_s), u"abc"_s);
    EXPECT_EQ(gtm_stringBySanitizingToXMLSpec(u"\t\n\r x"_s), u"\t\n\r x"_s);
    EXPECT_EQ(gtm_stringBySanitizingToXMLSpec(u"photo \U0001F600.jpg"_s), u"photo .jpg"_s);
    // Boundaries of the kept ranges.
    const QString edges = QString(QChar(0xD7FF)) + QChar(0xE000) + QChar(0xFFFD);
    EXPECT_EQ(gtm_stringBySanitizingToXMLSpec(edges + QChar(0xFFFE) + QChar(0xFFFF) + QChar(0xDC00)), edges);
    // Without escaping, markup characters stay.
    EXPECT_EQ(gtm_stringBySanitizingToXMLSpec(u"<a & 'b'>"_s), u"<a & 'b'>"_s);
    EXPECT_TRUE(gtm_stringBySanitizingToXMLSpec(QString()).isEmpty());
}

TEST(XmlSanitising, EscapesTheFiveMarkupCharacters)
{
    EXPECT_EQ(gtm_stringBySanitizingAndEscapingForXML(u"Tom & \"Jerry\".txt"_s),
              u"Tom &amp; &quot;Jerry&quot;.txt"_s);
    EXPECT_EQ(gtm_stringBySanitizingAndEscapingForXML(u"<'>\u0002"_s), u"&lt;&apos;&gt;"_s);
    EXPECT_EQ(gtm_stringBySanitizingAndEscapingForXML(u"日本語 ok"_s), u"日本語 ok"_s);
    EXPECT_EQ(gtm_stringBySanitizingAndEscapingForXML(u""_s), u""_s);
}

TEST(UrlEscaping, EscapesReservedAndNonAsciiAndRoundTrips)
{
    EXPECT_EQ(encodeToURL(u"AZaz09-._~"_s), u"AZaz09-._~"_s);
    EXPECT_EQ(encodeToURL(u"!*'();:@&=+$,/?%#[]"_s),
              u"%21%2A%27%28%29%3B%3A%40%26%3D%2B%24%2C%2F%3F%25%23%5B%5D"_s);
    EXPECT_EQ(encodeToURL(u"a b\"<>é"_s), u"a%20b%22%3C%3E%C3%A9"_s);

    EXPECT_EQ(decodeFromURL(u"a+b%20c%C3%A9"_s), u"a b cé"_s);
    EXPECT_EQ(decodeFromURL(u"%2B"_s), u"+"_s); // escaped plus stays a plus
    EXPECT_EQ(decodeFromURL(u"100%"_s), u"100%"_s);
    EXPECT_EQ(decodeFromURL(u"%zz%4"_s), u"%zz%4"_s);

    const QString odd = u"x/y?z=1&w=#[ä] \U0001F600"_s;
    EXPECT_EQ(decodeFromURL(encodeToURL(odd)), odd);
}

TEST(Md5, GivesLowerCaseHexOfUtf8Bytes)
{
    EXPECT_EQ(toMD5(u""_s), u"d41d8cd98f00b204e9800998ecf8427e"_s);
    EXPECT_EQ(toMD5(u"abc"_s), u"900150983cd24fb0d6963f7d28e17f72"_s);
    EXPECT_EQ(md5Sum(u"The quick brown fox jumps over the lazy dog"_s),
              u"9e107d9d372bb6826bd81d3542a419d6"_s);
    EXPECT_EQ(md5Sum(QByteArray("abc")), toMD5(u"abc"_s));
    EXPECT_EQ(md5Sum(u"é"_s), md5Sum(QByteArray("\xc3\xa9")));
}

TEST(HtmlEscaping, SmallTableAsciiTableAndNumericReferences)
{
    EXPECT_EQ(gtm_stringByEscapingForHTML(u"<a href='x'>\"5 € – ok\"</a> é"_s),
              u"&lt;a href=&apos;x&apos;&gt;&quot;5 &euro; &ndash; ok&quot;&lt;/a&gt; é"_s);
    EXPECT_EQ(gtm_stringByEscapingForAsciiHTML(u"é α ∞ 中"_s), u"&eacute; &alpha; &infin; &#20013;"_s);
    // A character beyond the BMP is one numeric reference, not two halves.
    EXPECT_EQ(gtm_stringByEscapingForAsciiHTML(u"\U0001F600"_s), u"&#128512;"_s);
    EXPECT_EQ(gtm_stringByEscapingForAsciiHTML(u"plain"_s), u"plain"_s);
    EXPECT_EQ(gtm_stringByEscapingHTMLUsingTable(u"é&"_s, nullptr, 0, true), u"&#233;&"_s);
    EXPECT_EQ(stringByEncodingHTMLEntities(u"é"_s), u"&eacute;"_s);
    EXPECT_EQ(stringByEncodingHTMLEntities(u"é<"_s, true), u"é&lt;"_s);
}

TEST(HtmlUnescaping, NamedAndNumericEntitiesAndWhatStaysUntouched)
{
    EXPECT_EQ(gtm_stringByUnescapingFromHTML(u"&lt;b&gt; &amp;amp; &eacute;&#65;&#x42;&#X63;&thetasym;"_s),
              u"<b> &amp; éABcϑ"_s);
    EXPECT_EQ(gtm_stringByUnescapingFromHTML(u"&#128512;"_s), u"\U0001F600"_s);
    // Not entities: unknown names, bad digits, out of range, surrogates, zero, no semicolon.
    for (const QString &kept : {u"&bogus;"_s, u"&#12a;"_s, u"&#x;"_s, u"&#;"_s, u"&#1114112;"_s,
                                u"&#xD800;"_s, u"&#0;"_s, u"&;"_s, u"&amp"_s, u"AT&T"_s, u"&AMP;"_s})
        EXPECT_EQ(gtm_stringByUnescapingFromHTML(kept), kept) << kept.toStdString();
    // The nearest semicolon decides: "&amp &lt;" keeps the first ampersand and decodes the second.
    EXPECT_EQ(gtm_stringByUnescapingFromHTML(u"&amp &lt;"_s), u"&amp <"_s);
    EXPECT_EQ(gtm_stringByUnescapingFromHTML(u"&&&lt;;"_s), u"&&<;"_s);

    // Escaping for ASCII and unescaping round-trip any text.
    const QString text = u"«Ünïcødé» <&> \"'\" € ✓ \U0001F600 \u00A0"_s;
    EXPECT_EQ(stringByDecodingHTMLEntities(gtm_stringByEscapingForAsciiHTML(text)), text);
    EXPECT_EQ(gtm_stringByUnescapingFromHTML(gtm_stringByEscapingForHTML(text)), text);
}

TEST(HtmlConveniences, PlainTextStrippingLineBreaksAndLinks)
{
    EXPECT_EQ(
        stringByConvertingHTMLToPlainText(
            u"<html><head><style>p{x:1}</style><script>if (a<b) x();</script></head>"
            "<body><p>Hello   <b>big</b>\n world</p><p>A &amp; B<br>C</p><!-- hidden --></body></html>"_s),
        u"Hello big world\nA & B\nC"_s);
    EXPECT_EQ(stringByConvertingHTMLToPlainText(u"1 < 2 and <a title=\"x>y\">link</a>"_s),
              u"1 < 2 and link"_s);
    EXPECT_EQ(stringByConvertingHTMLToPlainText(u"&lt;b&gt;"_s), u"<b>"_s);

    EXPECT_EQ(stringByStrippingTags(u"<p>one</p><p>two</p> <b>th</b>ree &amp;"_s), u"one two three &amp;"_s);
    EXPECT_EQ(stringByStrippingTags(u"a <unclosed"_s), u"a <unclosed"_s);

    EXPECT_EQ(stringWithNewLinesAsBRs(u"a\r\nb\nc\rd"_s), u"a<br />b<br />c<br />d"_s);
    EXPECT_EQ(stringByRemovingNewLinesAndWhitespace(u"  a \n\t b\r\n"_s), u"a b"_s);

    EXPECT_EQ(stringByLinkifyingURLs(u"See http://x.org/a?b=1. Or (https://y.org/p_(q))!"_s),
              u"See <a href=\"http://x.org/a?b=1\">http://x.org/a?b=1</a>. "
              "Or (<a href=\"https://y.org/p_(q)\">https://y.org/p_(q)</a>)!"_s);
    // Addresses already inside a tag or a link are left alone, as is a bare scheme.
    const QString linked =
        u"<a href=\"http://x.org\">http://x.org</a> <img src=\"http://i.org/p.png\"> http://"_s;
    EXPECT_EQ(stringByLinkifyingURLs(linked), linked);
}

TEST(Base64, EncodesRfcVectorsAndRoundTripsBytes)
{
    const QList<std::pair<QByteArray, QString>> vectors = {
        {"", u""_s},
        {"f", u"Zg=="_s},
        {"fo", u"Zm8="_s},
        {"foo", u"Zm9v"_s},
        {"foob", u"Zm9vYg=="_s},
        {"fooba", u"Zm9vYmE="_s},
        {"foobar", u"Zm9vYmFy"_s},
    };
    for (const auto &[bytes, text] : vectors) {
        EXPECT_EQ(base64EncodedString(bytes), text);
        EXPECT_EQ(base64StringFromData(bytes), text);
        EXPECT_EQ(encode(bytes.constData(), bytes.size()), text);
        EXPECT_EQ(dataFromBase64String(text), bytes);
    }
    EXPECT_EQ(base64String(u"é"_s), u"w6k="_s);

    QByteArray all;
    for (int i = 0; i < 256; ++i)
        all += char(i);
    EXPECT_EQ(dataFromBase64String(base64EncodedString(all)), all);
    EXPECT_EQ(base64EncodedString(QByteArray(3, char(0xFF))), u"////"_s);
    // Line breaks and blanks inside the text are skipped.
    EXPECT_EQ(dataFromBase64String(u"Zm9v\r\nYmFy \n"_s), QByteArray("foobar"));
}

TEST(Base64, MalformedInputDecodesToNothing)
{
    for (const QString &bad :
         {u"Zg="_s, u"Zg"_s, u"Z==="_s, u"===="_s, u"Zm9v!"_s, u"Zg==Zg=="_s, u"Zm=v"_s, u"Zm9vé"_s, u"A"_s})
        EXPECT_TRUE(dataFromBase64String(bad).isEmpty()) << bad.toStdString();
}
