#include "protocol/UploadFile.h"

#include "RestLibrary/NetworkAccess.h"
#include "protocol/Md5Digest.h"
#include "protocol/TransferState.h"
#include "protocol/UploadConnection.h"
#include "util/Log.h"

#include <QFile>
#include <QFileInfo>
#include <QPointer>
#include <exception>
#include <mutex>

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
