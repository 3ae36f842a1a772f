// Hostile and damaged input: nothing may crash, hang or leak, and whatever parses must serialise
// back into text that parses again.

#include "xml/GDataXMLNode.h"

#include <QElapsedTimer>
#include <QRandomGenerator>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

const QByteArray kSample =
    R"(<?xml version="1.0" encoding="UTF-8"?>)"
    R"(<XML xmlns:v="urn:v"><WORKLIST ID="20240101120000"><ADD KEY="k1" PKEY="p" NAME="a &amp; b" SIZE="10" v:x="1"/>)"
    R"(<DEL KEY="k2"><![CDATA[x<y]]></DEL><!-- note --><RENAME KEY="k3" NAME="caf&#233;">t</RENAME></WORKLIST></XML>)";

// Touches every node and operation a caller might use; returns the number of nodes seen.
int exercise(const std::shared_ptr<GDataXMLNode> &node, int depth = 0)
{
    if (!node || depth > 300)
        return 0;
    (void)node->name();
    (void)node->localName();
    (void)node->prefix();
    (void)node->URI();
    (void)node->stringValue();
    (void)node->XMLString();
    int count = 1;
    if (auto element = std::dynamic_pointer_cast<GDataXMLElement>(node)) {
        for (const auto &attribute : element->attributes())
            count += exercise(attribute, depth + 1);
        (void)element->elementsForName(u"ADD"_s);
        (void)element->attributeForName(u"KEY"_s);
        (void)element->namespaces();
    }
    for (const auto &child : node->children())
        count += exercise(child, depth + 1);
    return count;
}

QByteArray mutate(QByteArray data, QRandomGenerator &random)
{
    static const char kPieces[][12] = {"<",  ">",      "&",    "&#0;", "&#x110000;", "]]>",  "<!--",
                                       "\"", "'",      "<a>",  "</",   "xmlns:",     "\xc3", "\xff",
                                       "\0", "<?xml ", "&amp", "{",    ":"};
    const int edits = 1 + int(random.bounded(2));
    for (int i = 0; i < edits && !data.isEmpty(); ++i) {
        const qsizetype at = qsizetype(random.bounded(quint32(data.size())));
        switch (random.bounded(5)) {
        case 0:
            data[at] = char(random.bounded(256));
            break;
        case 1:
            data.truncate(at);
            break;
        case 2:
            data.remove(at, 1 + qsizetype(random.bounded(8)));
            break;
        case 3: {
            const char *piece = kPieces[random.bounded(quint32(std::size(kPieces)))];
            data.insert(at, QByteArray(piece, qMax<qsizetype>(1, qstrlen(piece))));
            break;
        }
        default:
            data.insert(at, data.mid(at, qsizetype(random.bounded(40))));
            break;
        }
    }
    return data;
}

} // namespace

TEST(GDataXMLRobustness, EveryTruncationOfAReplyFailsCleanly)
{
    FvError error;
    ASSERT_TRUE(GDataXMLDocument::initWithData(kSample, 0, &error));
    for (qsizetype cut = 0; cut < kSample.size(); ++cut) {
        error = {};
        EXPECT_EQ(GDataXMLDocument::initWithData(kSample.left(cut), 0, &error), nullptr) << cut;
        EXPECT_EQ(error.code, -1);
    }
}

TEST(GDataXMLRobustness, RandomisedInputNeverCrashesAndParsedTextRoundTrips)
{
    QRandomGenerator random(20240611);
    int parsed = 0;
    for (int round = 0; round < 3000; ++round) {
        QByteArray input;
        if (round % 10 == 9) {
            input.resize(qsizetype(random.bounded(200)));
            for (char &c : input)
                c = char(random.bounded(256));
        } else {
            input = mutate(kSample, random);
        }
        FvError error;
        auto doc = GDataXMLDocument::initWithData(input, 0, &error);
        if (!doc) {
            EXPECT_EQ(error.code, -1);
            continue;
        }
        ++parsed;
        auto root = doc->rootElement();
        ASSERT_TRUE(root);
        EXPECT_GT(exercise(root), 0);
        (void)doc->nodesForXPath(u"//*[@KEY]"_s, &error);
        (void)doc->nodesForXPath(u"//namespace::*"_s, &error);
        auto copy = root->copy();
        ASSERT_TRUE(copy);
        const QByteArray text = doc->XMLData();
        auto again = GDataXMLDocument::initWithData(text, 0, &error);
        ASSERT_TRUE(again) << "round " << round << ": " << text.toStdString();
        EXPECT_EQ(again->rootElement()->stringValue(), root->stringValue()) << round;
    }
    // The mutations must leave enough documents intact for the round trip to mean something.
    EXPECT_GT(parsed, 100);
}

TEST(GDataXMLRobustness, EntityExpansionAndDeepNestingAreBounded)
{
    QByteArray bomb = "<?xml version=\"1.0\"?><!DOCTYPE l [<!ENTITY l0 \"lollollollollol\">";
    for (int i = 1; i < 10; ++i) {
        QByteArray references;
        for (int j = 0; j < 10; ++j)
            references += "&l" + QByteArray::number(i - 1) + ';';
        bomb += "<!ENTITY l" + QByteArray::number(i) + " \"" + references + "\">";
    }
    bomb += "]><l>&l9;</l>";

    QElapsedTimer timer;
    timer.start();
    FvError error;
    if (auto doc = GDataXMLDocument::initWithData(bomb, 0, &error)) {
        // Entities stay references; reading the text must not expand billions of characters.
        EXPECT_LT(doc->rootElement()->stringValue().size(), 100 * 1000 * 1000);
    }
    EXPECT_LT(timer.elapsed(), 20000);

    QByteArray deep;
    for (int i = 0; i < 100000; ++i)
        deep += "<d>";
    EXPECT_EQ(GDataXMLDocument::initWithData(deep, 0, &error), nullptr);
    EXPECT_EQ(error.code, -1);
}
