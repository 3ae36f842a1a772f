#include "common/TestServer.h"

#include "RestLibrary/RestClient.h"
#include "common/TestUtil.h"
#include "server/SelfSignedCertificate.h"
#include "util/Codecs.h"
#include "xml/GDataXMLNode.h"

#include <QFile>
#include <QThread>
#include <atomic>

namespace {

struct Certificate
{
    QTemporaryDir dir;
    QString cert, key;
    QString error;
};

const Certificate &certificate()
{
    // Made once and kept for the life of the process: the client trusts it from its first request on.
    static const Certificate *made = [] {
        auto *c = new Certificate;
        const QString cert = c->dir.filePath(QStringLiteral("cert.pem"));
        const QString key = c->dir.filePath(QStringLiteral("key.pem"));
        if (SelfSignedCertificate::generate(cert, key, &c->error)) {
            c->cert = cert;
            c->key = key;
            qputenv("FERROVANE_CA_FILE", QFile::encodeName(cert));
        }
        return c;
    }();
    return *made;
}

} // namespace

QString TestServer::certificatePath()
{
    return certificate().cert;
}

QString TestServer::keyPath()
{
    return certificate().key;
}

TestServer::TestServer()
{
    const Certificate &cert = certificate();
    if (cert.cert.isEmpty()) {
        m_error = QStringLiteral("no certificate: ") + cert.error;
        return;
    }
    ServerConfig config;
    config.dataDir = m_data.path();
    config.certFile = cert.cert;
    config.keyFile = cert.key;
    m_server = std::make_unique<FerrovaneServer>(config);
    m_ok = m_server->start(&m_error);
}

TestServer::~TestServer() = default;

QString TestServer::signIn(const QString &user, const QString &password, const QString &pcName,
                           QString *timezone)
{
    RestClient client;
    client.setHost(m_server->domain());
    const auto reply = client.postNonAsyncWithURL(
        QStringLiteral("cgi-bin/cloudXml.cgi"),
        QStringLiteral("<XML><LOGIN ID=\"%1\" PASSWORD=\"%2\" ENCODE=\"raw\" PCNAME = \"%3\" "
                       "MAC=\"00:11:22:33:44:55\" VER=\"1.0\"></LOGIN></XML>")
            .arg(gtm_stringBySanitizingAndEscapingForXML(user),
                 gtm_stringBySanitizingAndEscapingForXML(password),
                 gtm_stringBySanitizingAndEscapingForXML(pcName)));
    if (!reply || !reply->rootElement())
        return {};
    const auto login = reply->rootElement()->elementsForName(QStringLiteral("LOGIN"));
    if (login.isEmpty())
        return {};
    const auto attribute = [&](const QString &name) {
        const auto node = login.first()->attributeForName(name);
        return node ? node->stringValue() : QString();
    };
    if (timezone)
        *timezone = attribute(QStringLiteral("TIMEZONE"));
    const QString session = attribute(QStringLiteral("RESULT"));
    return session == u"-1" ? QString() : session;
}

bool runOffMainThread(const std::function<void()> &job, int timeoutMs)
{
    auto done = std::make_shared<std::atomic<bool>>(false);
    QThread *thread = QThread::create([job, done] {
        job();
        *done = true;
    });
    QObject::connect(thread, &QThread::finished, thread, &QObject::deleteLater);
    thread->start();
    return TestUtil::waitFor([done] { return done->load(); }, timeoutMs);
}
