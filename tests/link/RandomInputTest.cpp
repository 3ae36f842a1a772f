// Seeded random inputs for the decoders: the same cases on every run, bounded in time.
#include "LinkTestUtil.h"
#include "link/KeyedArchive.h"
#include "link/MessageFraming.h"

#include <QBuffer>
#include <QRandomGenerator>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

QByteArray randomBytes(QRandomGenerator &rng, int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (char &c : bytes)
        c = char(rng.bounded(256));
    return bytes;
}

QString randomString(QRandomGenerator &rng)
{
    // Whole characters, including one outside the basic plane (a surrogate pair).
    static const QStringList alphabet = QStringLiteral("a z / . _ - Ä é Ø 文 件 \U0001F600").split(u' ')
                                        << u" "_qs;
    QString text;
    const int n = rng.bounded(12);
    for (int i = 0; i < n; ++i)
        text += alphabet.at(rng.bounded(int(alphabet.size())));
    return text;
}

QVariant randomValue(QRandomGenerator &rng, int depth)
{
    const int kind = rng.bounded(depth > 4 ? 5 : 7);
    switch (kind) {
    case 0:
        return randomString(rng);
    case 1:
        return qlonglong(rng.generate64());
    case 2:
        return rng.generateDouble() * 1e6 - 5e5;
    case 3:
        return rng.bounded(2) == 1;
    case 4:
        return QVariant();
    case 5: {
        QVariantList list;
        for (int i = rng.bounded(5); i > 0; --i)
            list.append(randomValue(rng, depth + 1));
        return list;
    }
    default: {
        QVariantMap map;
        for (int i = rng.bounded(5); i > 0; --i)
            map.insert(randomString(rng), randomValue(rng, depth + 1));
        return map;
    }
    }
}

QList<QByteArray> literalRead(const QByteArray &bytes)
{
    QBuffer buffer;
    buffer.setData(bytes);
    buffer.open(QIODevice::ReadOnly);
    return MessageFraming::readMessages(buffer);
}

} // namespace

TEST(RandomInput, FrameBufferAgreesWithTheReaderHoweverTheStreamIsCut)
{
    QRandomGenerator rng(20240517);
    for (int round = 0; round < 300; ++round) {
        QByteArray stream;
        for (int piece = rng.bounded(8); piece >= 0; --piece) {
            switch (rng.bounded(4)) {
            case 0:
            case 1:
                stream += *MessageFraming::frame(randomBytes(rng, rng.bounded(3000)));
                break;
            case 2:
                stream += QByteArray::number(rng.bounded(-99, 3000)).rightJustified(5, ' ');
                break;
            default:
                stream += randomBytes(rng, rng.bounded(20));
            }
        }
        if (rng.bounded(3) == 0)
            stream.chop(rng.bounded(qMax<int>(1, int(stream.size()))));

        const QList<QByteArray> expected = literalRead(stream);
        MessageFraming::FrameBuffer buffer;
        QList<QByteArray> got;
        for (qsizetype pos = 0; pos < stream.size();) {
            const qsizetype n = 1 + rng.bounded(1 + int(stream.size() - pos));
            got += buffer.append(stream.mid(pos, n));
            pos += n;
        }
        got += buffer.finish();
        ASSERT_EQ(got, expected) << "round " << round;
    }
}

TEST(RandomInput, ArchivesOfRandomValuesRoundTrip)
{
    QRandomGenerator rng(7);
    for (int round = 0; round < 300; ++round) {
        const QVariant value = randomValue(rng, 0);
        QString error;
        const auto bytes = KeyedArchive::archivedDataWithRootObject(value, &error);
        ASSERT_TRUE(bytes) << qPrintable(error);
        const auto back = KeyedArchive::unarchiveObjectWithData(*bytes, &error);
        ASSERT_TRUE(back) << qPrintable(error);
        ASSERT_EQ(LinkTestUtil::describe(*back), LinkTestUtil::describe(value)) << "round " << round;
    }
}

TEST(RandomInput, DamagedAndRandomArchivesNeverCrashTheDecoder)
{
    QRandomGenerator rng(99);
    QList<QByteArray> valid;
    for (int i = 0; i < 20; ++i) {
        const QVariantMap info{{QStringLiteral("object"), randomValue(rng, 3)}};
        valid.append(*KeyedArchive::archivedDataWithRootObject(
            QVariantList{randomString(rng), randomString(rng), info}));
    }
    int decoded = 0;
    for (int round = 0; round < 3000; ++round) {
        const QByteArray &base = valid[round % valid.size()];
        QByteArray input;
        switch (round % 4) {
        case 0: // bytes flipped
            input = base;
            for (int flips = 1 + rng.bounded(4); flips > 0; --flips)
                input[rng.bounded(int(input.size()))] = char(rng.bounded(256));
            break;
        case 1: // truncated or extended
            input = base.left(rng.bounded(int(base.size()))) + randomBytes(rng, rng.bounded(3) * 8);
            break;
        case 2: // random body behind a valid magic
            input = "bplist00" + randomBytes(rng, rng.bounded(200));
            break;
        default: // a valid trailer behind random objects
            input = "bplist00" + randomBytes(rng, rng.bounded(64)) + base.right(32);
        }
        QString error;
        const auto value = KeyedArchive::unarchiveObjectWithData(input, &error);
        if (value) {
            ++decoded;
            EXPECT_TRUE(KeyedArchive::archivedDataWithRootObject(*value, &error)) << qPrintable(error);
        } else {
            EXPECT_FALSE(error.isEmpty());
        }
        KeyedArchive::unarchiveMessage(input, &error);
    }
    // Some single-byte changes (inside string contents) still decode.
    EXPECT_GT(decoded, 0);

    QString error;
    QByteArray huge = valid[0];
    huge.append(QByteArray(KeyedArchive::kMaxArchiveBytes, '\0'));
    EXPECT_FALSE(KeyedArchive::unarchiveObjectWithData(huge, &error));
    EXPECT_TRUE(error.contains(u"too large")) << qPrintable(error);
}
