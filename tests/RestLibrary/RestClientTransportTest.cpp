#include "RestLibrary/RestClient.h"
#include "TestHttpsServer.h"
#include "common/TestUtil.h"
#include "xml/GDataXMLNode.h"

#include <QThread>
#include <gtest/gtest.h>

namespace {

const QString kEndpoint = QStringLiteral("cgi-bin/cloudXml.cgi");

TestResponse xmlReply(const QByteArray &body)
{
    TestResponse r;
    r.headers = {{"Content-Type", "text/xml"}};
    r.body = body;
    return r;
}

TestResponse status(int code, const QByteArray &body = "oops")
{
    TestResponse r;
    r.status = code;
    r.body = body;
    return r;
}

TestResponse action(TestResponse::Action a)
{
    TestResponse r;
    r.action = a;
    return r;
}

// Records what reaches the delegate and on which thread.
struct Recorder : RestClientDelegate
{
    QList<QString> events;
    QList<QThread *> threads;
    std::shared_ptr<GDataXMLDocument> document;
    std::optional<QVariantMap> info;

    void restClientDidFinishRequestwithData(RestClient *,
                                            const std::shared_ptr<GDataXMLDocument> &doc) override
    {
        events << QStringLiteral("finish");
        threads << QThread::currentThread();
        document = doc;
    }
    void restClientHasFail(RestClient *, const std::optional<QVariantMap> &i) override
    {
        events << (i ? QStringLiteral("fail-info") : QStringLiteral("fail-none"));
        threads << QThread::currentThread();
        info = i;
    }
};

QString rootName(const std::shared_ptr<GDataXMLDocument> &doc)
{
    return doc && doc->rootElement() ? doc->rootElement()->name() : QString();
}

} // namespace

TEST(RestClientSync, SendsTheRawXmlBodyAndReturnsTheAnswer)
{
    TestHttpsServer server([](const TestRequest &) { return xmlReply("<XML><LOGIN RESULT=\"s1\"/></XML>"); });
    RestClient client;
    client.setHost(server.domain());
    const QString body = QStringLiteral("<XML><LOGIN ID=\"j\u00fcrgen\"></LOGIN></XML>");
    QByteArray raw;
    std::shared_ptr<GDataXMLDocument> doc;
    ASSERT_TRUE(runOffMainThread([&] {
        raw = client.postNonAsyncRawWithURL(kEndpoint, body);
        doc = client.postNonAsyncWithURL(kEndpoint, body);
    }));
    EXPECT_EQ(raw, QByteArray("<XML><LOGIN RESULT=\"s1\"/></XML>"));
    EXPECT_EQ(rootName(doc), QStringLiteral("XML"));

    const QList<TestRequest> requests = server.requests();
    ASSERT_EQ(requests.size(), 2);
    EXPECT_EQ(requests[0].method, QByteArray("POST"));
    EXPECT_EQ(requests[0].target, QByteArray("/cgi-bin/cloudXml.cgi"));
    EXPECT_EQ(requests[0].body, body.toUtf8());
    // The document is the whole body: no form field and no content type of ours.
    EXPECT_FALSE(requests[0].headers.contains("content-type"));
}

TEST(RestClientSync, EveryKindOfFailureGivesNothing)
{
    const QList<TestResponse> faults = {status(500, "<XML/>"), status(404, "<XML/>"),
                                        action(TestResponse::Drop), xmlReply(""),
                                        action(TestResponse::CutBody)};
    for (const TestResponse &fault : faults) {
        TestHttpsServer server([fault](const TestRequest &) { return fault; });
        RestClient client;
        client.setHost(server.domain());
        QByteArray raw = "unset";
        std::shared_ptr<GDataXMLDocument> doc;
        ASSERT_TRUE(runOffMainThread([&] {
            raw = client.postNonAsyncRawWithURL(kEndpoint, QStringLiteral("<XML/>"));
            doc = client.postNonAsyncWithURL(kEndpoint, QStringLiteral("<XML/>"));
        }));
        EXPECT_TRUE(raw.isEmpty()) << "action " << fault.action << " status " << fault.status;
        EXPECT_EQ(doc, nullptr);
    }

    // A server that is not there, and one whose certificate is not trusted.
    TestHttpsServer untrusted([](const TestRequest &) { return xmlReply("<XML/>"); }, false);
    for (const QString &domain : {QStringLiteral("127.0.0.1:1"), untrusted.domain()}) {
        RestClient client;
        client.setHost(domain);
        QByteArray raw = "unset";
        ASSERT_TRUE(runOffMainThread(
            [&] { raw = client.postNonAsyncRawWithURL(kEndpoint, QStringLiteral("<XML/>")); }));
        EXPECT_TRUE(raw.isEmpty()) << qPrintable(domain);
    }
    EXPECT_TRUE(untrusted.requests().isEmpty());
}

TEST(RestClientSync, NonXmlAnswerIsReturnedRawButNotAsDocument)
{
    TestHttpsServer server([](const TestRequest &) { return xmlReply("-3"); });
    RestClient client;
    client.setHost(server.domain());
    QByteArray raw;
    std::shared_ptr<GDataXMLDocument> doc;
    ASSERT_TRUE(runOffMainThread([&] {
        raw = client.postNonAsyncRawWithURL(kEndpoint, QStringLiteral("<XML/>"));
        doc = client.postNonAsyncWithURL(kEndpoint, QStringLiteral("<XML/>"));
    }));
    EXPECT_EQ(raw, QByteArray("-3"));
    EXPECT_EQ(doc, nullptr);
}

TEST(RestClientArrayInfo, ReportsToTheDelegateOnTheWorkerThread)
{
    TestResponse next = xmlReply("<XML><QUOTA TOTAL=\"1\"/></XML>");
    TestHttpsServer server([&next](const TestRequest &) { return next; });
    Recorder recorder;
    RestClient client(&recorder, QStringLiteral("u"), QStringLiteral("p"));
    client.setHost(server.domain());
    QThread *worker = nullptr;
    const auto send = [&](const QStringList &info) {
        return runOffMainThread([&] {
            worker = QThread::currentThread();
            client.postNonAsyncWithArrayInfo(info);
        });
    };

    ASSERT_TRUE(send({kEndpoint, QStringLiteral("<XML/>")}));
    ASSERT_EQ(recorder.events, QList<QString>{QStringLiteral("finish")});
    EXPECT_EQ(recorder.threads.last(), worker);
    EXPECT_EQ(rootName(recorder.document), QStringLiteral("XML"));

    next = action(TestResponse::Drop);
    ASSERT_TRUE(send({kEndpoint, QStringLiteral("<XML/>")}));
    EXPECT_EQ(recorder.events.last(), QStringLiteral("fail-none"));
    EXPECT_EQ(recorder.threads.last(), worker);

    // A reply that does not parse is only logged: neither callback.
    next = xmlReply("-3");
    ASSERT_TRUE(send({kEndpoint, QStringLiteral("<XML/>")}));
    EXPECT_EQ(recorder.events.size(), 2);

    // A short list sends nothing and counts as no answer.
    const qsizetype before = server.requests().size();
    ASSERT_TRUE(send({kEndpoint}));
    EXPECT_EQ(recorder.events.last(), QStringLiteral("fail-none"));
    EXPECT_EQ(server.requests().size(), before);
}

TEST(RestClientAsync, CallbacksArriveOnTheMainThread)
{
    TestResponse next = xmlReply("<XML><OK/></XML>");
    TestHttpsServer server([&next](const TestRequest &) { return next; });
    Recorder recorder;
    RestClient client(&recorder, {}, {});
    client.setHost(server.domain());

    client.postWithURL(kEndpoint, QStringLiteral("<XML><PING/></XML>"));
    ASSERT_TRUE(TestUtil::waitFor([&] { return recorder.events.size() == 1; }));
    EXPECT_EQ(recorder.events.last(), QStringLiteral("finish"));
    EXPECT_EQ(recorder.threads.last(), QThread::currentThread());
    EXPECT_EQ(server.requests().last().body, QByteArray("<XML><PING/></XML>"));

    next = status(500);
    client.postWithURL(kEndpoint, QStringLiteral("<XML/>"));
    ASSERT_TRUE(TestUtil::waitFor([&] { return recorder.events.size() == 2; }));
    EXPECT_EQ(recorder.events.last(), QStringLiteral("fail-info"));
    ASSERT_TRUE(recorder.info.has_value());
    EXPECT_FALSE(recorder.info->value(QStringLiteral("info_message")).value<FvError>().isNull());

    // Not XML: the parse error is reported as a failure with info.
    next = xmlReply("-3");
    client.postWithURL(kEndpoint, QStringLiteral("<XML/>"));
    ASSERT_TRUE(TestUtil::waitFor([&] { return recorder.events.size() == 3; }));
    EXPECT_EQ(recorder.events.last(), QStringLiteral("fail-info"));
    EXPECT_EQ(recorder.threads.last(), QThread::currentThread());
}

TEST(RestClientAsync, GetPutAndMultipartPostCarryTheParameters)
{
    TestHttpsServer server([](const TestRequest &) { return xmlReply("<XML/>"); });
    Recorder recorder;
    RestClient client(&recorder, {}, {});
    client.setHost(server.domain());
    client.addParam(QStringLiteral("a"), QStringLiteral("1"));
    client.addParam(QStringLiteral("b"), QStringLiteral("x&y"));

    client.getWithURL(QStringLiteral("list.cgi"));
    ASSERT_TRUE(TestUtil::waitFor([&] { return recorder.events.size() == 1; }));
    client.putWithURL(QStringLiteral("put.cgi"));
    ASSERT_TRUE(TestUtil::waitFor([&] { return recorder.events.size() == 2; }));
    client.postWithURL(QStringLiteral("form.cgi"));
    ASSERT_TRUE(TestUtil::waitFor([&] { return recorder.events.size() == 3; }));
    client.deletetWithURL(QStringLiteral("gone.cgi"));

    const QList<TestRequest> requests = server.requests();
    ASSERT_EQ(requests.size(), 3);
    EXPECT_EQ(requests[0].method, QByteArray("GET"));
    EXPECT_EQ(requests[0].target, QByteArray("/list.cgi?a=1&b=x&y"));
    EXPECT_EQ(requests[1].method, QByteArray("PUT"));
    EXPECT_EQ(requests[1].headers.value("content-type"), QByteArray("application/x-www-form-urlencoded"));
    EXPECT_EQ(requests[1].body, QByteArray("a=1&b=x&y"));
    EXPECT_EQ(requests[2].method, QByteArray("POST"));
    EXPECT_EQ(requests[2].headers.value("b"), QByteArray("x&y"));
    EXPECT_EQ(requests[2].body, client.getHeadersData());
    EXPECT_EQ(recorder.events, QList<QString>(3, QStringLiteral("finish")));
}

TEST(RestClientAsync, ReplyAfterTheClientIsGoneIsDropped)
{
    TestHttpsServer server([](const TestRequest &) { return xmlReply("<XML/>"); });
    Recorder recorder;
    {
        RestClient client(&recorder, {}, {});
        client.setHost(server.domain());
        client.postWithURL(kEndpoint, QStringLiteral("<XML/>"));
    }
    ASSERT_TRUE(TestUtil::waitFor([&] { return server.requests().size() == 1; }));
    // Let the answer come back and be thrown away.
    TestUtil::waitFor([] { return false; }, 300);
    EXPECT_TRUE(recorder.events.isEmpty());
}
