#include "common/TestUtil.h"
#include "protocol/BackgroundDigest.h"
#include "protocol/GetPrimaryMACAddress.h"
#include "protocol/MyImage.h"
#include "protocol/UploadFile.h"

#include <QCryptographicHash>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <gtest/gtest.h>

TEST(FileDigest, MatchesAcrossChunkBoundariesAndHandlesEmptyAndMissingFiles)
{
    QTemporaryDir dir;
    // Sizes around the 1 MiB reading chunk.
    for (qint64 size :
         {qint64(0), qint64(1), qint64(1024 * 1024), qint64(1024 * 1024 + 1), qint64(3 * 1024 * 1024 - 7)}) {
        QByteArray data(size, Qt::Uninitialized);
        for (qint64 i = 0; i < size; ++i)
            data[i] = char((i * 131 + 7) & 0xff);
        const QString path = dir.filePath(QStringLiteral("f%1").arg(size));
        ASSERT_TRUE(TestUtil::writeFile(path, data));
        EXPECT_EQ(UploadFile::getMD5OfFileAtPath(path),
                  QString::fromLatin1(QCryptographicHash::hash(data, QCryptographicHash::Md5).toHex()))
            << size;
    }
    EXPECT_EQ(UploadFile::getMD5OfFileAtPath(dir.filePath(QStringLiteral("f0"))),
              QStringLiteral("d41d8cd98f00b204e9800998ecf8427e"));
    EXPECT_TRUE(UploadFile::getMD5OfFileAtPath(dir.filePath(QStringLiteral("missing"))).isEmpty());
    EXPECT_TRUE(UploadFile::getMD5OfFileAtPath(dir.path()).isEmpty());
}

// Many more pieces than buffers, of every size up to a whole buffer: the digest is the stream's, in
// order, whatever the hashing thread was doing, across the hand-over from hashing in place (the
// first 20 KiB) to the thread; a reset starts over once the earlier pieces are in. A piece announced
// as small gets a buffer of its size (4 KiB at least), which grows when a larger piece reuses it.
TEST(BackgroundDigest, HashesPiecesInOrderThroughItsFewBuffersAndStartsOverOnReset)
{
    constexpr qsizetype kBuffer = 16 * 1024;
    BackgroundDigest digest(kBuffer, 20 * 1024);
    EXPECT_EQ(digest.hexResult(), QStringLiteral("d41d8cd98f00b204e9800998ecf8427e"));

    auto *random = QRandomGenerator::global();
    auto feed = [&](int pieces, QCryptographicHash *expected) {
        for (int i = 0; i < pieces; ++i) {
            const qsizetype wanted =
                random->bounded(3) == 0 ? -1 : qsizetype(random->bounded(int(kBuffer) * 2));
            const qsizetype least = wanted < 0 ? kBuffer : qBound<qsizetype>(4096, wanted, kBuffer);
            QByteArray &buffer = digest.nextBuffer(wanted);
            ASSERT_GE(buffer.size(), least);
            ASSERT_LE(buffer.size(), kBuffer);
            ASSERT_EQ(&digest.nextBuffer(), &buffer); // the same one until submitted
            const qsizetype size = qsizetype(random->bounded(int(least) + 1));
            for (qsizetype b = 0; b < size; ++b)
                buffer[b] = char(random->bounded(256));
            expected->addData(QByteArrayView(buffer.constData(), size));
            digest.submit(size);
        }
    };
    QCryptographicHash first(QCryptographicHash::Md5);
    feed(200, &first);
    EXPECT_EQ(digest.hexResult(), QString::fromLatin1(first.result().toHex()));

    QCryptographicHash dropped(QCryptographicHash::Md5), after(QCryptographicHash::Md5);
    feed(50, &dropped);
    digest.reset();
    feed(50, &after);
    EXPECT_EQ(digest.hexResult(), QString::fromLatin1(after.result().toHex()));
}

TEST(MacAddress, DefaultRouteInterfaceIsPreferredInLowerCase)
{
    QTemporaryDir dir;
    const QString route = dir.filePath(QStringLiteral("route"));
    const QString net = dir.filePath(QStringLiteral("net"));
    // A local route on eth1 first, then defaults on wlan0 (metric 600) and eth0 (metric 100), a
    // default route that is down, and a malformed line.
    ASSERT_TRUE(TestUtil::writeFile(
        route, "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n"
               "eth1\t0000A8C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n"
               "wlan0\t00000000\t0100A8C0\t0003\t0\t0\t600\t00000000\t0\t0\t0\n"
               "down0\t00000000\t0100A8C0\t0002\t0\t0\t1\t00000000\t0\t0\t0\n"
               "eth0\t00000000\t0101A8C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n"
               "garbage\n"));
    ASSERT_TRUE(TestUtil::writeFile(net + QStringLiteral("/eth0/address"), "AA:bb:0C:dd:EE:01\n"));
    ASSERT_TRUE(TestUtil::writeFile(net + QStringLiteral("/wlan0/address"), "11:22:33:44:55:66\n"));
    EXPECT_EQ(GetPrimaryMACAddress::primaryAddressFrom(route, net), QStringLiteral("aa:bb:0c:dd:ee:01"));

    // Unusable addresses give nothing, so the caller falls back.
    ASSERT_TRUE(TestUtil::writeFile(net + QStringLiteral("/eth0/address"), "00:00:00:00:00:00\n"));
    EXPECT_TRUE(GetPrimaryMACAddress::primaryAddressFrom(route, net).isEmpty());
    ASSERT_TRUE(TestUtil::writeFile(net + QStringLiteral("/eth0/address"), "not-an-address\n"));
    EXPECT_TRUE(GetPrimaryMACAddress::primaryAddressFrom(route, net).isEmpty());
    EXPECT_TRUE(
        GetPrimaryMACAddress::primaryAddressFrom(dir.filePath(QStringLiteral("none")), net).isEmpty());

    // Whatever this machine has, the answer is empty or one of the two documented forms.
    static const QRegularExpression lower(QStringLiteral("^[0-9a-f]{2}(:[0-9a-f]{2}){5}$"));
    static const QRegularExpression upper(QStringLiteral("^[0-9A-F]{2}(:[0-9A-F]{2}){5}$"));
    const QString mine = GetPrimaryMACAddress::MacAddress();
    EXPECT_TRUE(mine.isEmpty() || lower.match(mine).hasMatch() || upper.match(mine).hasMatch())
        << qPrintable(mine);
    const QString fallback = GetPrimaryMACAddress::fallbackAddress();
    EXPECT_TRUE(fallback.isEmpty() || upper.match(fallback).hasMatch()) << qPrintable(fallback);
}

TEST(MyImage, BuildsTheThumbnailCommandAndTheImageQuery)
{
    MyImage image(QStringLiteral("S"), QStringLiteral("K7"));
    image.setOffset(18446744073709551615ull);
    EXPECT_EQ(image.thumbXml(),
              QStringLiteral("<XML><THUMBNAIL SESSION =\"S\" ><KEY>K7</KEY></THUMBNAIL></XML>"));
    EXPECT_EQ(image.imageXml(), QStringLiteral("?do=download&session=S&key=K7&offset=18446744073709551615"));
}
