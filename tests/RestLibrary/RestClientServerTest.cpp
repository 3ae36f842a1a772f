// The command transport against the local server: every sending path, and the faults a server or
// the way to it can produce.
#include "RestLibrary/RestClient.h"
#include "common/TestServer.h"
#include "common/TestUtil.h"
#include "xml/GDataXMLNode.h"

#include <QCoreApplication>
#include <QThread>
#include <gtest/gtest.h>

namespace {

const QString kEndpoint = QStringLiteral("cgi-bin/cloudXml.cgi");
// The update description answers any method with a small XML document.
const QString kDescription = QStringLiteral("winapp/any/palmoor/tessaline/tessaline.xml");

QString loginXml(const QString &password, const QString &pcName = QStringLiteral("desk"))
{
    return QStringLiteral("<XML><LOGIN ID=\"carol\" PASSWORD=\"%1\" ENCODE=\"raw\" PCNAME = \"%2\" "
                          "MAC=\"00:11:22:33:44:55\" VER=\"20130128\"></LOGIN></XML>")
        .arg(password, pcName);
}

QString quotaXml(const QString &session)
{
    return QStringLiteral("<XML><QUOTA SESSION=\"%1\" ></QUOTA></XML>").arg(session);
}

// The attribute of the command element inside the reply's root, or a null string.
QString attribute(const std::shared_ptr<GDataXMLDocument> &doc, const QString &command, const QString &name)
{
    if (!doc || !doc->rootElement())
        return {};
    const auto elements = doc->rootElement()->elementsForName(command);
    const auto node = elements.isEmpty() ? nullptr : elements.first()->attributeForName(name);
    return node ? node->stringValue() : QString();
}

std::shared_ptr<GDataXMLDocument> parse(const QByteArray &data)
{
    FvError error;
    return GDataXMLDocument::initWithData(data, 0, &error);
}

// Records what reaches the delegate and on which thread.
struct Recorder : RestClientDelegate
{
    QStringList events;
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

class RestClientServer : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server.ok()) << qPrintable(server.error());
        ASSERT_TRUE(server->addUser(QStringLiteral("carol"), QStringLiteral("pw")));
    }

    TestServer server;
};

} // namespace

TEST_F(RestClientServer, SynchronousPostsReturnTheRawAnswerOrTheDocument)
{
    RestClient client;
    client.setHost(server->domain());
    const QString signIn = loginXml(QStringLiteral("pw"), QStringLiteral("J\u00fcrgens Rechner"));
    QByteArray raw, refused;
    std::shared_ptr<GDataXMLDocument> quota;
    ASSERT_TRUE(runOffMainThread([&] {
        raw = client.postNonAsyncRawWithURL(kEndpoint, signIn);
        const QString session = attribute(parse(raw), QStringLiteral("LOGIN"), QStringLiteral("RESULT"));
        quota = client.postNonAsyncWithURL(kEndpoint, quotaXml(session));
        refused = client.postNonAsyncRawWithURL(kEndpoint, loginXml(QStringLiteral("wrong")));
    }));
    const QString session = attribute(parse(raw), QStringLiteral("LOGIN"), QStringLiteral("RESULT"));
    EXPECT_FALSE(session.isEmpty());
    EXPECT_NE(session, QStringLiteral("-1"));
    EXPECT_EQ(attribute(quota, QStringLiteral("QUOTA"), QStringLiteral("TOTAL")),
              QStringLiteral("10737418240"));
    EXPECT_EQ(attribute(quota, QStringLiteral("QUOTA"), QStringLiteral("USED")), QStringLiteral("0"));
    // A refusal is an answer like any other.
    EXPECT_EQ(attribute(parse(refused), QStringLiteral("LOGIN"), QStringLiteral("RESULT")),
              QStringLiteral("-1"));

    const QList<RequestLogEntry> log = server->requestLog();
    ASSERT_EQ(log.size(), 3);
    for (const RequestLogEntry &entry : log) {
        EXPECT_EQ(entry.method, QStringLiteral("POST"));
        EXPECT_EQ(entry.target, QStringLiteral("/cgi-bin/cloudXml.cgi"));
    }
    EXPECT_EQ(log[0].body, signIn.toUtf8());
    EXPECT_EQ(server->requestedCommands(),
              QStringList({QStringLiteral("LOGIN"), QStringLiteral("QUOTA"), QStringLiteral("LOGIN")}));
}

// Work queued for the sending thread (a task run, say) must not start inside a synchronous send:
// the caller waits without turning its own event loop.
TEST_F(RestClientServer, SynchronousSendRunsNoQueuedWorkOfTheCallingThread)
{
    RestClient client;
    client.setHost(server->domain());
    bool inSend = false;
    std::optional<bool> ranDuringSend;
    QByteArray raw;
    ASSERT_TRUE(runOffMainThread([&] {
        QObject receiver;
        QMetaObject::invokeMethod(
            &receiver, [&] { ranDuringSend = inSend; }, Qt::QueuedConnection);
        inSend = true;
        raw = client.postNonAsyncRawWithURL(kEndpoint, loginXml(QStringLiteral("pw")));
        inSend = false;
        QCoreApplication::sendPostedEvents(&receiver);
    }));
    EXPECT_FALSE(raw.isEmpty());
    ASSERT_TRUE(ranDuringSend.has_value());
    EXPECT_FALSE(*ranDuringSend);
}

TEST_F(RestClientServer, TransportFaultsGiveNothingAndAreNotRetried)
{
    const QString login = QStringLiteral("LOGIN");
    // A connection closed before any byte of answer is sent again by the network layer on its own,
    // so a plain drop never reaches the client; a reply cut after its head is the dropped reply a
    // client does see.
    const QList<std::pair<const char *, std::function<void()>>> faults = {
        {"reply cut", [&] { server->cutReplies(login, 2); }},
        {"carried out, reply lost", [&] { server->dropRepliesAfterProcessing(login, 2); }},
        {"HTTP 500", [&] { server->failWithStatus(login, 500, 2); }},
        {"HTTP 404", [&] { server->failWithStatus(login, 404, 2); }},
        {"empty answer", [&] { server->replyWithBody(login, QByteArray(), 2); }},
    };
    RestClient client;
    client.setHost(server->domain());
    for (const auto &[what, inject] : faults) {
        server->clearRequestLog();
        inject();
        QByteArray raw = "unset";
        std::shared_ptr<GDataXMLDocument> doc;
        ASSERT_TRUE(runOffMainThread([&] {
            raw = client.postNonAsyncRawWithURL(kEndpoint, loginXml(QStringLiteral("pw")));
            doc = client.postNonAsyncWithURL(kEndpoint, loginXml(QStringLiteral("pw")));
        }));
        EXPECT_TRUE(raw.isEmpty()) << what;
        EXPECT_EQ(doc, nullptr) << what;
        EXPECT_EQ(server->requestedCommands(), QStringList({login, login})) << what;
        EXPECT_EQ(server->pendingFaults(), 0) << what;
    }

    // Nobody listening.
    client.setHost(QStringLiteral("127.0.0.1:1"));
    QByteArray raw = "unset";
    ASSERT_TRUE(runOffMainThread([&] { raw = client.postNonAsyncRawWithURL(kEndpoint, loginXml({})); }));
    EXPECT_TRUE(raw.isEmpty());
}

TEST_F(RestClientServer, NonXmlAnswerIsReturnedRawButNotAsDocument)
{
    RestClient client;
    client.setHost(server->domain());
    const QString session = server.signIn(QStringLiteral("carol"), QStringLiteral("pw"));
    ASSERT_FALSE(session.isEmpty());

    server->replyWithBody(QStringLiteral("QUOTA"), "-2", 2);
    QByteArray raw;
    std::shared_ptr<GDataXMLDocument> doc = parse("<XML/>");
    ASSERT_TRUE(runOffMainThread([&] {
        raw = client.postNonAsyncRawWithURL(kEndpoint, quotaXml(session));
        doc = client.postNonAsyncWithURL(kEndpoint, quotaXml(session));
    }));
    EXPECT_EQ(raw, QByteArray("-2"));
    EXPECT_EQ(doc, nullptr);

    // The server's own "-3" for a session it no longer knows.
    ASSERT_EQ(server->expireSessions(QStringLiteral("carol")), 1);
    doc = parse("<XML/>");
    ASSERT_TRUE(runOffMainThread([&] {
        raw = client.postNonAsyncRawWithURL(kEndpoint, quotaXml(session));
        doc = client.postNonAsyncWithURL(kEndpoint, quotaXml(session));
    }));
    EXPECT_EQ(raw, QByteArray("-3"));
    EXPECT_EQ(doc, nullptr);
}

TEST_F(RestClientServer, BackgroundPostReportsToTheDelegateOnItsOwnThread)
{
    Recorder recorder;
    RestClient client(&recorder, QStringLiteral("carol"), QStringLiteral("pw"));
    client.setHost(server->domain());
    QThread *worker = nullptr;
    const auto send = [&](const QStringList &info) {
        return runOffMainThread([&] {
            worker = QThread::currentThread();
            client.postNonAsyncWithArrayInfo(info);
        });
    };
    const QString login = QStringLiteral("LOGIN");

    ASSERT_TRUE(send({kEndpoint, loginXml(QStringLiteral("pw"))}));
    ASSERT_EQ(recorder.events, QStringList{QStringLiteral("finish")});
    EXPECT_EQ(recorder.threads.last(), worker);
    EXPECT_NE(recorder.threads.last(), QThread::currentThread());
    EXPECT_NE(attribute(recorder.document, login, QStringLiteral("RESULT")), QStringLiteral("-1"));

    // No data back, whether cut or an HTTP error: failure without info.
    server->cutReplies(login);
    ASSERT_TRUE(send({kEndpoint, loginXml(QStringLiteral("pw"))}));
    EXPECT_EQ(recorder.events.last(), QStringLiteral("fail-none"));
    EXPECT_EQ(recorder.threads.last(), worker);
    server->failWithStatus(login, 500);
    ASSERT_TRUE(send({kEndpoint, loginXml(QStringLiteral("pw"))}));
    EXPECT_EQ(recorder.events.last(), QStringLiteral("fail-none"));
    EXPECT_EQ(recorder.events.size(), 3);

    // An answer that does not parse is only logged: neither callback.
    server->replyWithBody(login, "-3");
    ASSERT_TRUE(send({kEndpoint, loginXml(QStringLiteral("pw"))}));
    EXPECT_EQ(recorder.events.size(), 3);

    // A short list sends nothing and counts as no answer.
    const qsizetype before = server->requestLog().size();
    ASSERT_TRUE(send({kEndpoint}));
    EXPECT_EQ(recorder.events.last(), QStringLiteral("fail-none"));
    EXPECT_EQ(server->requestLog().size(), before);
}

TEST_F(RestClientServer, AsynchronousRequestsAnswerOnTheMainThread)
{
    const QString session = server.signIn(QStringLiteral("carol"), QStringLiteral("pw"));
    ASSERT_FALSE(session.isEmpty());
    Recorder recorder;
    RestClient client(&recorder, {}, {});
    client.setHost(server->domain());
    const auto settled = [&](qsizetype count) {
        return TestUtil::waitFor([&] { return recorder.events.size() == count; });
    };
    const QString quota = QStringLiteral("QUOTA");

    client.postWithURL(kEndpoint, quotaXml(session));
    ASSERT_TRUE(settled(1));
    EXPECT_EQ(recorder.events.last(), QStringLiteral("finish"));
    EXPECT_EQ(attribute(recorder.document, quota, QStringLiteral("TOTAL")), QStringLiteral("10737418240"));

    // An HTTP error, a cut reply and an answer that is not XML all fail with the error as info.
    server->failWithStatus(quota, 500);
    server->cutReplies(quota);
    server->replyWithBody(quota, "-3");
    for (qsizetype count = 2; count <= 4; ++count) {
        client.postWithURL(kEndpoint, quotaXml(session));
        ASSERT_TRUE(settled(count));
        EXPECT_EQ(recorder.events.last(), QStringLiteral("fail-info"));
        ASSERT_TRUE(recorder.info.has_value());
        EXPECT_FALSE(recorder.info->value(QStringLiteral("info_message")).value<FvError>().isNull());
    }
    EXPECT_EQ(server->pendingFaults(), 0);

    // GET with the parameters as an unencoded query, PUT with them as a form, multipart POST.
    client.addParam(QStringLiteral("a"), QStringLiteral("1"));
    client.addParam(QStringLiteral("b"), QStringLiteral("x&y"));
    server->clearRequestLog();
    client.getWithURL(kDescription);
    ASSERT_TRUE(settled(5));
    client.putWithURL(kDescription);
    ASSERT_TRUE(settled(6));
    client.postWithURL(kDescription);
    ASSERT_TRUE(settled(7));
    client.deletetWithURL(kDescription);
    EXPECT_EQ(recorder.events.mid(4), QStringList(3, QStringLiteral("finish")));
    EXPECT_EQ(recorder.document->rootElement()->name(), QStringLiteral("update"));

    const QList<RequestLogEntry> log = server->requestLog();
    ASSERT_EQ(log.size(), 3); // the delete sent nothing
    EXPECT_EQ(log[0].method, QStringLiteral("GET"));
    EXPECT_EQ(log[0].target, QStringLiteral("/") + kDescription + QStringLiteral("?a=1&b=x&y"));
    EXPECT_EQ(log[1].method, QStringLiteral("PUT"));
    EXPECT_EQ(log[1].bodySize, qint64(sizeof("a=1&b=x&y") - 1));
    EXPECT_EQ(log[2].method, QStringLiteral("POST"));
    EXPECT_EQ(log[2].bodySize, client.getHeadersData().size());

    for (QThread *thread : std::as_const(recorder.threads))
        EXPECT_EQ(thread, QThread::currentThread());
}

TEST_F(RestClientServer, AnswerForAClientThatIsGoneIsDropped)
{
    Recorder recorder;
    {
        RestClient client(&recorder, {}, {});
        client.setHost(server->domain());
        client.postWithURL(kEndpoint, loginXml(QStringLiteral("pw")));
    }
    ASSERT_TRUE(TestUtil::waitFor([&] { return server->requestLog().size() == 1; }));
    // The server answers in order: once a later request is answered, the first answer has come back.
    Recorder later;
    RestClient client(&later, {}, {});
    client.setHost(server->domain());
    client.postWithURL(kEndpoint, loginXml(QStringLiteral("pw")));
    ASSERT_TRUE(TestUtil::waitFor([&] { return !later.events.isEmpty(); }));
    EXPECT_TRUE(recorder.events.isEmpty());
}
