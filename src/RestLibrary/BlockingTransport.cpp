#include "RestLibrary/BlockingTransport.h"

#include "RestLibrary/DirectHttp.h"
#include "RestLibrary/NetworkAccess.h"

#include <QCoreApplication>
#include <QMutex>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QThread>
#include <future>

namespace {

struct Answer
{
    QByteArray data;
    FvError error;
};

// The network thread and its manager. The manager keeps connections alive between commands.
class TransportThread
{
public:
    TransportThread()
    {
        m_thread.setObjectName(QStringLiteral("Command transport"));
        m_thread.start();
        m_manager = new QNetworkAccessManager;
        m_manager->moveToThread(&m_thread);
    }

    ~TransportThread() { stop(); }

    void stop()
    {
        if (!m_thread.isRunning())
            return;
        QMetaObject::invokeMethod(m_manager, &QObject::deleteLater, Qt::QueuedConnection);
        m_thread.quit();
        m_thread.wait();
    }

    bool isRunning() const { return m_thread.isRunning(); }
    QThread *thread() { return &m_thread; }
    QNetworkAccessManager *manager() const { return m_manager; }

private:
    QThread m_thread;
    QNetworkAccessManager *m_manager = nullptr;
};

QMutex g_mutex;
TransportThread *g_transport = nullptr;

void stopTransport()
{
    QMutexLocker lock(&g_mutex);
    delete g_transport;
    g_transport = nullptr;
}

// The running transport, started on first use; null when no application object exists.
TransportThread *transport()
{
    QMutexLocker lock(&g_mutex);
    if (!g_transport && QCoreApplication::instance()) {
        g_transport = new TransportThread;
        qAddPostRoutine(stopTransport);
    }
    return g_transport;
}

} // namespace

namespace BlockingTransport {

QByteArray send(const RestRequest &request, FvError *error)
{
    if (DirectHttp::usable()) {
        DirectHttp::BodyReceiver receiver;
        const DirectHttp::Answer answer = DirectHttp::exchange(request, receiver);
        *error = answer.error;
        return answer.error.isNull() ? receiver.body : QByteArray();
    }
    TransportThread *network = transport();
    if (!network || QThread::currentThread() == network->thread()) {
        *error = FvError(QStringLiteral("RestClient"), 0,
                         {{QStringLiteral("NSLocalizedDescription"), QStringLiteral("no transport")}});
        return {};
    }
    auto promise = std::make_shared<std::promise<Answer>>();
    std::future<Answer> future = promise->get_future();
    QNetworkAccessManager *manager = network->manager();
    QMetaObject::invokeMethod(
        manager,
        [manager, request, promise] {
            QNetworkReply *reply = manager->sendCustomRequest(request.request, request.method, request.body);
            QObject::connect(reply, &QNetworkReply::finished, reply, [reply, promise] {
                Answer answer;
                if (reply->error() != QNetworkReply::NoError)
                    answer.error = NetworkAccess::errorFromReply(reply);
                else
                    answer.data = reply->readAll();
                reply->deleteLater();
                promise->set_value(std::move(answer));
            });
        },
        Qt::QueuedConnection);
    try {
        Answer answer = future.get();
        *error = answer.error;
        return answer.data;
    } catch (const std::future_error &) {
        // The transport went away (application shutdown) before the answer came.
        *error = FvError(QStringLiteral("RestClient"), 0,
                         {{QStringLiteral("NSLocalizedDescription"), QStringLiteral("transport stopped")}});
        return {};
    }
}

} // namespace BlockingTransport
