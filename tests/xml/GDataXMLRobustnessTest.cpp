// Hostile and damaged input: nothing may crash, hang or leak, and whatever parses must serialise
// back into text that parses again.

#include "xml/GDataXMLNode.h"

#include <QRandomGenerator>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

const QByteArray kSample =
    R"(<?xml version="1.0" encoding="UTF-8"?>)"
    R"(<XML xmlns:v="urn:v"><WORKLIST ID="20240101120000"><ADD KEY="k1" PKEY="p" NAME="a &amp; b" SIZE="10" v:x="1"/>)"
    R"(<DEL KEY="k2"><![CDATA[x<y]]></DEL><!-- note --><RENAME KEY="k3" NAME="caf&#233;">t</RENAME></WORKLIST></XML>)";

// Touches every node and the operations callers use; returns the number of nodes seen.
int exercise(const std::shared_ptr<GDataXMLNode> &node)
{
    (void)node->name();
    (void)node->URI();
    (void)node->stringValue();
    (void)node->XMLString();
    int count = 1;
    if (auto element = std::dynamic_pointer_cast<GDataXMLElement>(node)) {
        for (const auto &attribute : element->attributes())
            count += exercise(attribute);
        (void)element->elementsForName(u"v:ADD"_s);
    }
    for (const auto &child : node->children())
        count += exercise(child);
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
        (void)doc->nodesForXPath(u"//namespace::*"_s, &error);
        ASSERT_TRUE(root->copy());
        const QByteArray text = doc->XMLData();
        auto again = GDataXMLDocument::initWithData(text, 0, &error);
        ASSERT_TRUE(again) << "round " << round << ": " << text.toStdString();
        EXPECT_EQ(again->rootElement()->stringValue(), root->stringValue()) << round;
    }
    // The mutations must leave enough documents intact for the round trip to mean something.
    EXPECT_GT(parsed, 100);
}

TEST(GDataXMLRobustness, DeepNestingIsRefusedNotRecursedInto)
{
    FvError error;
    EXPECT_EQ(GDataXMLDocument::initWithData(QByteArray("<d>").repeated(100000), 0, &error), nullptr);
    EXPECT_EQ(error.code, -1);
}
