#include "RestLibrary/RestClient.h"

#include <gtest/gtest.h>

TEST(RestClientHost, BareDomainGetsSchemeAndSlashButAnyHttpsTextIsKept)
{
    RestClient client;
    client.setHost(QStringLiteral("cloud.example.com"));
    EXPECT_EQ(client.host(), QStringLiteral("https://cloud.example.com/"));
    EXPECT_EQ(client.buildURL(QStringLiteral("cgi-bin/cloudXml.cgi")),
              QStringLiteral("https://cloud.example.com/cgi-bin/cloudXml.cgi"));

    // Only the substring is tested: no slash is added, nothing else is looked at.
    client.setHost(QStringLiteral("https://cloud.example.com/base"));
    EXPECT_EQ(client.host(), QStringLiteral("https://cloud.example.com/base"));
    client.setHost(QStringLiteral("see https://x"));
    EXPECT_EQ(client.host(), QStringLiteral("see https://x"));
    // A plain-HTTP text is not recognised and gets wrapped.
    client.setHost(QStringLiteral("http://x"));
    EXPECT_EQ(client.host(), QStringLiteral("https://http://x/"));
}

TEST(RestClientQuery, RendersPairsInOrderWithoutEncoding)
{
    RestClient client;
    EXPECT_EQ(client.getParamasURLForGet(true), QString());
    EXPECT_EQ(client.getParamasURLForGet(false), QString());

    client.addParam(QStringLiteral("do"), QStringLiteral("download"));
    client.addParam(QStringLiteral("name"), QStringLiteral("a&b c=d"));
    client.addParam(QStringLiteral("k"), QString());
    EXPECT_EQ(client.getParamasURLForGet(true), QStringLiteral("?do=download&name=a&b c=d&k="));
    EXPECT_EQ(client.getParamasURLForGet(false), QStringLiteral("do=download&name=a&b c=d&k="));

    client.clearParam();
    EXPECT_TRUE(client.params().isEmpty());
    EXPECT_EQ(client.getParamasURLForGet(true), QString());
}

TEST(RestClientMultipart, BodyIsFramedByteForByte)
{
    RestClient client;
    EXPECT_EQ(client.getHeadersData(), QByteArray("\r\n--1234567890--\r\n"));

    client.setHost(QStringLiteral("h"));
    client.addParam(QStringLiteral("session"), QStringLiteral("S1"));
    client.addParam(QStringLiteral("name"), QStringLiteral("caf\u00e9"));
    const QByteArray expected = "--1234567890\r\n"
                                "Content-Disposition: form-data; name=\"session\"\r\n\r\n"
                                "S1"
                                "\r\n--1234567890\r\n"
                                "--1234567890\r\n"
                                "Content-Disposition: form-data; name=\"name\"\r\n\r\n"
                                "caf\xc3\xa9"
                                "\r\n--1234567890\r\n"
                                "\r\n--1234567890--\r\n";
    EXPECT_EQ(client.getHeadersData(), expected);

    const RestRequest request = client.getRequestForPost(QStringLiteral("upload.cgi"));
    EXPECT_EQ(request.method, QByteArray("POST"));
    EXPECT_EQ(request.body, expected);
    EXPECT_EQ(request.urlString(), QStringLiteral("https://h/upload.cgi"));
    EXPECT_EQ(request.request.rawHeader("Content-Type"),
              QByteArray("multipart/form-data; boundary=1234567890"));
    // Every parameter also travels as a header field.
    EXPECT_EQ(request.request.rawHeader("session"), QByteArray("S1"));
    EXPECT_EQ(request.request.rawHeader("name"), QByteArray("caf\xc3\xa9"));
}
