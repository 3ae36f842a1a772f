#include "protocol/UploadFile.h"

#include "RestLibrary/NetworkAccess.h"
#include "protocol/Md5Digest.h"
#include "protocol/TransferState.h"
#include "util/Log.h"

#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>
#include <exception>
#include <mutex>

// The live part of an upload: the input stream and the connection, both on the main thread.
class UploadConnection final : public QObject
{
public:
    explicit UploadConnection(std::shared_ptr<TransferState> state) : m_state(std::move(state)) {}
    ~UploadConnection() override { close(); }

    void start(const QString &path, const QString &url, const QString &time)
    {
        m_inputStream = new QFile(path, this);
        if (!m_inputStream->open(QIODevice::ReadOnly)) {
            FV_LOG(QStringLiteral("Fail: cannot read %1: %2").arg(path, m_inputStream->errorString()));
            m_state->set(TransferState::Fail);
            return;
        }
        QNetworkRequest request = NetworkAccess::request(QUrl(url));
        request.setRawHeader("Content-Type", "application/stream");
        request.setRawHeader("velmora_filetime", time.toUtf8());
        m_urlConnection = NetworkAccess::mainManager()->sendCustomRequest(request, "POST", m_inputStream);
        connect(m_urlConnection, &QNetworkReply::metaDataChanged, this,
                &UploadConnection::didReceiveResponse);
        connect(m_urlConnection, &QNetworkReply::readyRead, this, &UploadConnection::didReceiveData);
        connect(m_urlConnection, &QNetworkReply::finished, this, &UploadConnection::didFinish);
    }

    void cancel()
    {
        if (m_urlConnection && !m_urlConnection->isFinished())
            m_urlConnection->abort();
    }

    void close()
    {
        if (m_urlConnection) {
            m_urlConnection->disconnect(this);
            if (!m_urlConnection->isFinished())
                m_urlConnection->abort();
            // The manager may still reach for the body device while it unwinds: both go later.
            m_urlConnection->deleteLater();
            m_urlConnection = nullptr;
        }
        if (m_inputStream) {
            m_inputStream->setParent(nullptr);
            m_inputStream->close();
            m_inputStream->deleteLater();
            m_inputStream = nullptr;
        }
    }

private:
    void didReceiveResponse()
    {
        if (m_responded || !m_urlConnection)
            return;
        m_responded = true;
        QStringList fields;
        for (const auto &[name, value] : m_urlConnection->rawHeaderPairs())
            fields << QString::fromUtf8(name + ": " + value);
        FV_LOG(fields.join(QLatin1String(", ")));
        // The verdict comes with the headers, before any body of the answer.
        if (m_urlConnection->rawHeader("Velmora-result") == "0")
            m_state->set(TransferState::Done);
        else
            m_state->set(TransferState::Fail);
    }

    void didReceiveData()
    {
        if (m_urlConnection)
            FV_LOG(QStringLiteral("receive data: %1").arg(QString::fromUtf8(m_urlConnection->readAll())));
    }

    void didFinish()
    {
        if (!m_urlConnection)
            return;
        if (NetworkAccess::isTransportFailure(m_urlConnection)) {
            FV_LOG(QStringLiteral("Fail"));
            m_state->set(TransferState::Fail);
            return;
        }
        didReceiveResponse();
        FV_LOG(QStringLiteral("Finish!"));
    }

    std::shared_ptr<TransferState> m_state;
    QFile *m_inputStream = nullptr;
    QNetworkReply *m_urlConnection = nullptr;
    bool m_responded = false;
};

namespace {
// The application-wide current upload. Guarded so that a cancel from another thread never meets
// an upload that is being torn down.
std::mutex g_currentMutex;
UploadFile *g_current = nullptr;
} // namespace

UploadFile::UploadFile() : m_state(std::make_shared<TransferState>()) {}

UploadFile::~UploadFile()
{
    {
        std::lock_guard lock(g_currentMutex);
        if (g_current == this)
            g_current = nullptr;
    }
    closeConnection();
}

QString UploadFile::uploadFileWithKey(const QString &key, const QString &path, const QString &url,
                                      quint64 offset, const QString &time)
{
    UploadFile upload;
    return upload.uploadFile(key, path, url, offset, time);
}

QString UploadFile::uploadFile(const QString &, const QString &path, const QString &url, quint64,
                               const QString &time)
{
    QString result;
    try {
        if (NetworkAccess::isMainThread()) {
            // The connection needs this thread's event loop: waiting here could never end.
            FV_LOG(QStringLiteral("Upload refused on the main thread: %1").arg(path));
            m_state->set(TransferState::Fail);
        } else {
            NetworkAccess::runOnMainThread([&] {
                {
                    std::lock_guard lock(g_currentMutex);
                    g_current = this;
                }
                createConnection({path, url, time});
            });
            m_state->waitForOutcome();
        }
        closeConnection();
        if (isCancel())
            result = QStringLiteral("cancel");
        else if (isDone())
            result = QStringLiteral("done");
        else
            result = QStringLiteral("fail");
    } catch (const std::exception &e) {
        FV_LOG(QStringLiteral("Upload exception: %1").arg(QString::fromUtf8(e.what())));
    }
    FV_LOG(QStringLiteral("End upload file: %1").arg(QFileInfo(path).fileName()));
    {
        std::lock_guard lock(g_currentMutex);
        if (g_current == this)
            g_current = nullptr;
    }
    return result;
}

void UploadFile::createConnection(const QStringList &info)
{
    if (info.size() < 2) {
        m_state->set(TransferState::Fail);
        return;
    }
    closeConnection();
    auto *connection = new UploadConnection(m_state);
    {
        std::lock_guard lock(g_currentMutex);
        m_connection = connection;
    }
    connection->start(info.at(0), info.at(1), info.value(2));
}

void UploadFile::closeConnection()
{
    UploadConnection *connection = nullptr;
    {
        std::lock_guard lock(g_currentMutex);
        std::swap(connection, m_connection);
    }
    if (!connection)
        return;
    NetworkAccess::runOnMainThread([connection] {
        connection->close();
        connection->deleteLater();
    });
}

void UploadFile::cancelCurrentUpload()
{
    std::lock_guard lock(g_currentMutex);
    if (!g_current)
        return;
    UploadFile *upload = g_current;
    upload->m_state->set(TransferState::Cancel);
    if (upload->m_connection) {
        QPointer<UploadConnection> connection = upload->m_connection;
        NetworkAccess::postToMainThread([connection] {
            if (connection)
                connection->cancel();
        });
    }
    g_current = nullptr;
}

UploadFile *UploadFile::currentUpload()
{
    std::lock_guard lock(g_currentMutex);
    return g_current;
}

QString UploadFile::getMD5OfFileAtPath(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return {};
    constexpr qint64 kChunk = 1024 * 1024;
    QByteArray chunk(kChunk, Qt::Uninitialized);
    Md5Digest digest;
    for (;;) {
        const qint64 got = file.read(chunk.data(), kChunk);
        if (got <= 0)
            break;
        digest.addData(QByteArrayView(chunk.constData(), got));
    }
    return digest.hexResult();
}

bool UploadFile::isDone() const
{
    return m_state->isSet(TransferState::Done);
}
bool UploadFile::isFail() const
{
    return m_state->isSet(TransferState::Fail);
}
bool UploadFile::isCancel() const
{
    return m_state->isSet(TransferState::Cancel);
}
