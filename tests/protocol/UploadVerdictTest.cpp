// Answers the local server never writes: the verdict header alone decides, and it is taken as soon
// as the head arrives, whatever the status or the rest of the answer. Also the request's headers
// as sent, and a server whose certificate is not trusted.
#include "TestHttpsServer.h"
#include "common/TestUtil.h"
#include "protocol/UploadFile.h"

#include <QTemporaryDir>
#include <gtest/gtest.h>

TEST(UploadVerdict, TheHeaderDecidesAsSoonAsTheHeadArrives)
{
    // The case is chosen by the request's path.
    TestHttpsServer server([](const TestRequest &request) {
        TestResponse r;
        r.headers = {{"Velmora-result", "0"}};
        r.body = "answer";
        if (request.target.startsWith("/error"))
            r.status = 500;
        else if (request.target.startsWith("/hang"))
            r.action = TestResponse::HeadersThenHang; // the rest of the body never comes
        else if (request.target.startsWith("/cut"))
            r.action = TestResponse::CutBody; // the connection breaks after a good verdict
        return r;
    });
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("a.txt"));
    ASSERT_TRUE(TestUtil::writeFile(path, "hello"));
    for (const char *kind : {"error", "hang", "cut"}) {
        const QString url =
            QStringLiteral("https://%1/%2?do=upload").arg(server.domain(), QLatin1String(kind));
        QString result;
        ASSERT_TRUE(runOffMainThread([&] {
            result = UploadFile::uploadFileWithKey({}, path, url, 0, QStringLiteral("20240131235959"));
        }));
        EXPECT_EQ(result, QStringLiteral("done")) << kind;
    }

    const TestRequest sent = server.requests().value(0);
    EXPECT_EQ(sent.headers.value("content-type"), QByteArray("application/stream"));
    EXPECT_EQ(sent.headers.value("velmora_filetime"), QByteArray("20240131235959"));

    TestHttpsServer untrusted([](const TestRequest &) { return TestResponse{}; }, false);
    QString result;
    ASSERT_TRUE(runOffMainThread([&] {
        result = UploadFile::uploadFileWithKey(
            {}, path, QStringLiteral("https://%1/?do=upload").arg(untrusted.domain()), 0, {});
    }));
    EXPECT_EQ(result, QStringLiteral("fail"));
    EXPECT_TRUE(untrusted.requests().isEmpty());
}
