#include "link/MessageFraming.h"

#include "LinkTestUtil.h"
#include "link/KeyedArchive.h"
#include "link/LinkNames.h"

#include <QBuffer>
#include <gtest/gtest.h>

using namespace MessageFraming;
using LinkTestUtil::RecordingDevice;

namespace {

QByteArray framed(const QByteArray &body)
{
    return frame(body).value_or(QByteArray());
}

QList<QByteArray> readAll(const QByteArray &bytes)
{
    QBuffer buffer;
    buffer.setData(bytes);
    buffer.open(QIODevice::ReadOnly);
    return readMessages(buffer);
}

} // namespace

TEST(MessageFraming, WriterPadsTheLengthAndRefusesOversizedBodies)
{
    EXPECT_EQ(framed(QByteArray(42, 'a')), QByteArray("00042") + QByteArray(42, 'a'));
    EXPECT_EQ(framed(QByteArray()), QByteArray("00000"));
    EXPECT_EQ(framed(QByteArray(kMaxBodyLength, 'z')).left(5), QByteArray("99999"));
    QString error;
    EXPECT_FALSE(frame(QByteArray(kMaxBodyLength + 1, 'z'), &error));
    EXPECT_TRUE(error.contains(u"100000")) << qPrintable(error);

    EXPECT_EQ(headerValue("00042"), 42);
    EXPECT_EQ(headerValue("  7xy"), 7);
    EXPECT_EQ(headerValue("+0012"), 12);
    EXPECT_EQ(headerValue("-0042"), -42);
    EXPECT_EQ(headerValue("live0"), 0);
    EXPECT_EQ(headerValue(""), 0);
}

TEST(MessageFraming, ReaderTakesEveryWholeMessageOfOneWakeUp)
{
    // An archived event framed as the daemon writes it is one message.
    const auto archive = KeyedArchive::archiveMessage(LinkNames::kKeyMyFSListenerCreateFile,
                                                      QStringLiteral("/home/u/CloudFolder/a"));
    ASSERT_TRUE(archive);
    const QList<QByteArray> one = readAll(framed(*archive));
    ASSERT_EQ(one.size(), 1);
    EXPECT_EQ(KeyedArchive::unarchiveMessage(one[0]).value_or(QVariantList()).value(1).toString(),
              u"/home/u/CloudFolder/a");

    // Back to back in one segment, with empty and non-numeric headers between them.
    const QByteArray stream =
        framed("first") + "00000" + "abcde" + framed(QByteArray(42, 'x')) + "-0003" + "last!";
    const QList<QByteArray> bodies = readAll(stream);
    // A negative length reads no body, so "last!" is taken as the next header (no number).
    EXPECT_EQ(bodies, (QList<QByteArray>{"first", QByteArray(42, 'x')}));
}

TEST(MessageFraming, ReaderAsksForHeaderThenChunksOfAtMost1024)
{
    const QByteArray body(2500, 'b');
    RecordingDevice device(framed(body) + framed("tail"));
    const QList<QByteArray> bodies = readMessages(device);
    ASSERT_EQ(bodies.size(), 2);
    EXPECT_EQ(bodies[0], body);
    EXPECT_EQ(bodies[1], "tail");
    EXPECT_EQ(device.reads, (QList<qint64>{5, 1024, 1024, 452, 5, 4}));

    // The daemon closed mid-message: the short body is kept as it stands.
    RecordingDevice cut(QByteArray("01500") + QByteArray(1100, 'c'));
    const QList<QByteArray> shortBodies = readMessages(cut);
    ASSERT_EQ(shortBodies.size(), 1);
    EXPECT_EQ(shortBodies[0], QByteArray(1100, 'c'));
    EXPECT_EQ(cut.reads, (QList<qint64>{5, 1024, 476, 400}));
}

TEST(MessageFraming, LiteralReaderLosesFramesSplitAcrossReadsButFrameBufferDoesNot)
{
    const QByteArray stream = framed("alpha") + framed(QByteArray(1500, 'm')) + framed("omega");

    // Split inside the second header: the stream handler misreads from there on.
    const qsizetype cut = 5 + 5 + 3;
    QList<QByteArray> literal = readAll(stream.left(cut));
    literal += readAll(stream.mid(cut));
    EXPECT_NE(literal, (QList<QByteArray>{"alpha", QByteArray(1500, 'm'), "omega"}));

    // Split at every position, the buffer gives what one whole read gives.
    const QList<QByteArray> whole = readAll(stream);
    ASSERT_EQ(whole, (QList<QByteArray>{"alpha", QByteArray(1500, 'm'), "omega"}));
    for (qsizetype at = 0; at <= stream.size(); ++at) {
        FrameBuffer buffer;
        QList<QByteArray> bodies = buffer.append(stream.left(at));
        bodies += buffer.append(stream.mid(at));
        bodies += buffer.finish();
        ASSERT_EQ(bodies, whole) << "split at " << at;
        EXPECT_EQ(buffer.pending(), 0);
    }

    // A partial frame waits for the rest; at end of stream it is released as the reader would.
    FrameBuffer buffer;
    EXPECT_TRUE(buffer.append("000").isEmpty());
    EXPECT_TRUE(buffer.append("10abc").isEmpty());
    EXPECT_EQ(buffer.pending(), 8);
    EXPECT_EQ(buffer.finish(), (QList<QByteArray>{"abc"}));
    EXPECT_TRUE(buffer.append("0001").isEmpty());
    EXPECT_TRUE(buffer.finish().isEmpty());

    QBuffer device;
    device.setData(framed("from a device"));
    device.open(QIODevice::ReadOnly);
    FrameBuffer fromDevice;
    EXPECT_EQ(fromDevice.readFrom(device), (QList<QByteArray>{"from a device"}));
}
