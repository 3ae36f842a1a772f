#include "protocol/UploadFile.h"

#include "RestLibrary/DirectHttp.h"
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

// A file sent as a request body; a cancel is seen between its pieces.
class FileSource final : public DirectHttp::BodySource
{
public:
    FileSource(QFile &file, const TransferState &state) : m_file(file), m_size(file.size()), m_state(state) {}
    qint64 size() const override { return m_size; }
    qint64 read(char *to, qint64 capacity) override { return m_file.read(to, capacity); }
    bool rewind() override { return m_file.seek(0); }
    bool cancelled() const override { return m_state.isSet(TransferState::Cancel); }

private:
    QFile &m_file;
    const qint64 m_size;
    const TransferState &m_state;
};
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
        if (DirectHttp::usable()) {
            {
                std::lock_guard lock(g_currentMutex);
                g_current = this;
            }
            uploadDirect(path, url, time);
        } else if (NetworkAccess::isMainThread()) {
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

// The upload made on the calling worker thread, over the connection it keeps: no hand-over to the
// main thread and back. The server's verdict comes in the answer's head.
void UploadFile::uploadDirect(const QString &path, const QString &url, const QString &time)
{
    QFile input(path);
    if (!input.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        FV_LOG(QStringLiteral("Fail: cannot read %1: %2").arg(path, input.errorString()));
        m_state->set(TransferState::Fail);
        return;
    }
    const QUrl target(url);
    if (!target.isValid() || target.scheme() != QLatin1String("https") || target.host().isEmpty()) {
        FV_LOG(QStringLiteral("Fail: not an https URL: %1").arg(url));
        m_state->set(TransferState::Fail);
        return;
    }
    RestRequest request{NetworkAccess::request(target), "POST", {}};
    request.request.setRawHeader("Content-Type", "application/stream");
    request.request.setRawHeader("velmora_filetime", time.toUtf8());
    FileSource source(input, *m_state);
    // The verdict is in the head: a body that does not follow at once is not waited for.
    struct : DirectHttp::BodyReceiver
    {
        bool bodyOptional(const DirectHttp::Answer &) override { return true; }
    } receiver;
    const DirectHttp::Answer answer = DirectHttp::exchange(request, receiver, &source);
    if (answer.status > 0) {
        FV_LOG(DirectHttp::headerLine(answer.headers));
        if (!receiver.body.isEmpty())
            FV_LOG(QStringLiteral("receive data: %1").arg(QString::fromUtf8(receiver.body)));
    }
    if (m_state->isSet(TransferState::Cancel))
        return;
    if (answer.transportFailure) {
        FV_LOG(QStringLiteral("Fail: %1").arg(answer.error.localizedDescription()));
        m_state->set(TransferState::Fail);
        return;
    }
    FV_LOG(QStringLiteral("Finish!"));
    m_state->set(DirectHttp::headerValue(answer.headers, "Velmora-result") == "0" ? TransferState::Done
                                                                                  : TransferState::Fail);
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
