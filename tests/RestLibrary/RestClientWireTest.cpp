// What the local server cannot show: the requests' headers as they leave the client, and a server
// whose certificate is not trusted.
#include "RestLibrary/FileInternetBase.h"
#include "RestLibrary/RestClient.h"
#include "TestHttpsServer.h"
#include "common/TestUtil.h"

#include <gtest/gtest.h>

namespace {

const QString kEndpoint = QStringLiteral("cgi-bin/cloudXml.cgi");

TestResponse xmlReply()
{
    TestResponse r;
    r.headers = {{"Content-Type", "text/xml"}};
    r.body = "<XML><OK/></XML>";
    return r;
}

struct Counter : RestClientDelegate
{
    int finished = 0;
    int failed = 0;
    void restClientDidFinishRequestwithData(RestClient *, const std::shared_ptr<GDataXMLDocument> &) override
    {
        ++finished;
    }
    void restClientHasFail(RestClient *, const std::optional<QVariantMap> &) override { ++failed; }
};

struct FailCode : FileInternetBaseDelegate
{
    int code = 0;
    void fileInternetBaseDidFailWithCode(FileInternetBase *, int c) override { code = c; }
};

} // namespace

TEST(RestClientWire, EachRequestKindCarriesItsOwnHeadersAndBody)
{
    TestHttpsServer server([](const TestRequest &) { return xmlReply(); });
    Counter counter;
    RestClient client(&counter, {}, {});
    client.setHost(server.domain());

    const QString command = QStringLiteral("<XML><LOGIN ID=\"j\u00fcrgen\"></LOGIN></XML>");
    ASSERT_TRUE(runOffMainThread([&] { client.postNonAsyncRawWithURL(kEndpoint, command); }));
    client.addParam(QStringLiteral("a"), QStringLiteral("1"));
    client.addParam(QStringLiteral("b"), QStringLiteral("x&y"));
    client.putWithURL(QStringLiteral("put.cgi"));
    ASSERT_TRUE(TestUtil::waitFor([&] { return counter.finished == 1; }));
    client.postWithURL(QStringLiteral("form.cgi"));
    ASSERT_TRUE(TestUtil::waitFor([&] { return counter.finished == 2; }));

    const QList<TestRequest> requests = server.requests();
    ASSERT_EQ(requests.size(), 3);
    // A command is the whole raw body, UTF-8, with no form field and no content type of ours.
    EXPECT_EQ(requests[0].body, command.toUtf8());
    EXPECT_FALSE(requests[0].headers.contains("content-type"));
    EXPECT_EQ(requests[1].headers.value("content-type"), QByteArray("application/x-www-form-urlencoded"));
    EXPECT_EQ(requests[1].body, QByteArray("a=1&b=x&y"));
    // The multipart form also carries every parameter as a header.
    EXPECT_EQ(requests[2].headers.value("content-type"),
              QByteArray("multipart/form-data; boundary=1234567890"));
    EXPECT_EQ(requests[2].headers.value("b"), QByteArray("x&y"));
    EXPECT_EQ(requests[2].body, client.getHeadersData());
    EXPECT_EQ(counter.failed, 0);
}

TEST(RestClientWire, UntrustedCertificateEndsEveryPathBeforeTheRequest)
{
    TestHttpsServer untrusted([](const TestRequest &) { return xmlReply(); }, false);
    Counter counter;
    RestClient client(&counter, {}, {});
    client.setHost(untrusted.domain());

    QByteArray raw = "unset";
    ASSERT_TRUE(
        runOffMainThread([&] { raw = client.postNonAsyncRawWithURL(kEndpoint, QStringLiteral("<XML/>")); }));
    EXPECT_TRUE(raw.isEmpty());
    client.postWithURL(kEndpoint, QStringLiteral("<XML/>"));
    ASSERT_TRUE(TestUtil::waitFor([&] { return counter.failed == 1; }));
    FailCode transfer;
    client.downloadFileWithURL(QStringLiteral("f"), &transfer);
    ASSERT_TRUE(TestUtil::waitFor([&] { return transfer.code != 0; }));
    EXPECT_EQ(transfer.code, 2); // nothing had arrived
    EXPECT_TRUE(untrusted.requests().isEmpty());
    EXPECT_EQ(counter.finished, 0);
}
