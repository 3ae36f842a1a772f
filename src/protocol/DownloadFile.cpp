#include "protocol/DownloadFile.h"

#include "RestLibrary/DirectHttp.h"
#include "RestLibrary/NetworkAccess.h"
#include "protocol/BackgroundDigest.h"
#include "protocol/TransferState.h"
#include "util/Log.h"

#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <cerrno>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
// Bytes the manager may hold for us before it stops reading the socket; also our chunk size.
// Buffers of a megabyte on the way (the manager's, ours) are given back to the system when freed and
// faulted in again for the next piece, which costs more CPU than the decryption itself.
constexpr qint64 kReadBufferSize = 256 * 1024;

// Creates the output when missing, never truncates it: a longer old file keeps its tail.
bool openOutputFile(QFile &file, const QString &path)
{
    file.setFileName(path);
    if (!file.open(QIODevice::ReadWrite | QIODevice::Unbuffered)) {
        FV_LOG(QStringLiteral("Fail: cannot write %1: %2").arg(path, file.errorString()));
        return false;
    }
    return true;
}

// A download made on the calling thread: the body is written and hashed as it comes. The file is
// written through its descriptor: a stream object around it costs more than the few system calls
// of a small file.
class DirectDownload final : public DirectHttp::BodyReceiver
{
public:
    explicit DirectDownload(QString savePath) : m_savePath(std::move(savePath)), m_digest(kReadBufferSize) {}
    ~DirectDownload() override { closeFile(); }
    DirectDownload(const DirectDownload &) = delete;
    DirectDownload &operator=(const DirectDownload &) = delete;

    char *buffer(qint64 *capacity) override
    {
        QByteArray &piece = m_digest.nextBuffer(*capacity);
        *capacity = piece.size();
        return piece.data();
    }

    bool take(qint64 size) override
    {
        if (!ensureOpen())
            return false;
        const char *data = m_digest.nextBuffer().constData();
        for (qint64 done = 0; done < size;) {
            const ssize_t n = ::write(m_fd, data + done, size_t(size - done));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0) {
                FV_LOG(QStringLiteral("Fail: write to %1: %2")
                           .arg(m_savePath, errnoText(n < 0 ? errno : ENOSPC)));
                m_failed = true;
                return false;
            }
            done += n;
        }
        m_digest.submit(size);
        return true;
    }

    // Creates the output when missing, never truncates it: a longer old file keeps its tail.
    bool ensureOpen()
    {
        if (m_fd < 0 && !m_failed) {
            do
                m_fd = ::open(QFile::encodeName(m_savePath).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
            while (m_fd < 0 && errno == EINTR);
            if (m_fd < 0) {
                FV_LOG(QStringLiteral("Fail: cannot write %1: %2").arg(m_savePath, errnoText(errno)));
                m_failed = true;
            }
        }
        return !m_failed;
    }

    // Whether the whole answer is in the file; the file is closed either way.
    bool finish(const DirectHttp::Answer &answer)
    {
        if (answer.status > 0)
            FV_LOG(DirectHttp::headerLine(answer.headers));
        bool ok = !m_failed;
        if (ok && answer.transportFailure) {
            FV_LOG(QStringLiteral("Fail: %1").arg(answer.error.toString()));
            ok = false;
        }
        // An answer without a body is an empty file, which must exist all the same.
        if (ok && !ensureOpen())
            ok = false;
        if (ok)
            FV_LOG(QStringLiteral("Finish!"));
        closeFile();
        return ok;
    }

    QString md5() { return m_digest.hexResult(); }

private:
    static QString errnoText(int error) { return QString::fromLocal8Bit(std::strerror(error)); }
    void closeFile()
    {
        if (m_fd >= 0)
            ::close(m_fd); // written data is in the page cache already; close reports nothing more
        m_fd = -1;
    }

    QString m_savePath;
    int m_fd = -1;
    BackgroundDigest m_digest;
    bool m_failed = false;
};
} // namespace

// The live part of a download on the main thread: the connection, the output file and the digest.
class DownloadConnection final : public QObject
{
public:
    DownloadConnection(std::shared_ptr<TransferState> state, QString savePath)
        : m_state(std::move(state)), m_savePath(std::move(savePath)), m_digest(kReadBufferSize)
    {}
    ~DownloadConnection() override { close(); }

    void start(const QString &url)
    {
        QNetworkRequest request = NetworkAccess::request(QUrl(url));
        m_connection = NetworkAccess::mainManager()->sendCustomRequest(request, "POST", QByteArray());
        m_connection->setReadBufferSize(kReadBufferSize);
        connect(m_connection, &QNetworkReply::metaDataChanged, this, &DownloadConnection::didReceiveResponse);
        connect(m_connection, &QNetworkReply::readyRead, this, &DownloadConnection::didReceiveData);
        connect(m_connection, &QNetworkReply::finished, this, &DownloadConnection::didFinish);
    }

    void close()
    {
        if (m_connection) {
            m_connection->disconnect(this);
            if (!m_connection->isFinished())
                m_connection->abort();
            m_connection->deleteLater();
            m_connection = nullptr;
        }
        m_fileHandler.close();
    }

    // The digest of everything written (of nothing when no byte came).
    QString md5() { return m_digest.hexResult(); }

private:
    void didReceiveResponse()
    {
        if (m_responded || !m_connection)
            return;
        m_responded = true;
        // Again now: the network thread drops a limit that reaches it before its reply exists.
        m_connection->setReadBufferSize(kReadBufferSize);
        FV_LOG(DirectHttp::headerLine(m_connection->rawHeaderPairs()));
    }

    bool openOutput()
    {
        if (!openOutputFile(m_fileHandler, m_savePath))
            return false;
        m_digest.reset();
        return true;
    }

    void didReceiveData()
    {
        if (!m_connection || m_state->anySet())
            return;
        if (!m_fileHandler.isOpen() && !openOutput()) {
            fail();
            return;
        }
        for (;;) {
            QByteArray &chunk = m_digest.nextBuffer();
            const qint64 got = m_connection->read(chunk.data(), chunk.size());
            if (got <= 0)
                break;
            if (m_fileHandler.write(chunk.constData(), got) != got) {
                FV_LOG(QStringLiteral("Fail: write to %1: %2").arg(m_savePath, m_fileHandler.errorString()));
                fail();
                return;
            }
            m_digest.submit(got);
        }
    }

    void didFinish()
    {
        if (!m_connection || m_state->anySet())
            return;
        didReceiveResponse();
        if (m_connection->bytesAvailable() > 0)
            didReceiveData();
        if (m_state->anySet())
            return;
        if (NetworkAccess::isTransportFailure(m_connection)) {
            FV_LOG(QStringLiteral("Fail: %1").arg(NetworkAccess::errorFromReply(m_connection).toString()));
            m_state->set(TransferState::Fail);
            return;
        }
        // An answer without a body is an empty file, which must exist all the same.
        if (!m_fileHandler.isOpen() && !openOutput()) {
            fail();
            return;
        }
        FV_LOG(QStringLiteral("Finish!"));
        m_fileHandler.close();
        m_state->set(TransferState::Done);
    }

    void fail()
    {
        m_state->set(TransferState::Fail);
        if (m_connection && !m_connection->isFinished()) {
            m_connection->disconnect(this);
            m_connection->abort();
        }
    }

    std::shared_ptr<TransferState> m_state;
    QString m_savePath;
    QNetworkReply *m_connection = nullptr;
    QFile m_fileHandler;
    BackgroundDigest m_digest; // hashes on a thread of its own; also holds our read buffers
    bool m_responded = false;
};

DownloadFile::DownloadFile() : m_state(std::make_shared<TransferState>()) {}

DownloadFile::~DownloadFile()
{
    closeConnection();
}

bool DownloadFile::downloadFileFromURL(const QString &url, const QString &savePath, QString *md5,
                                       const QDateTime &time)
{
    DownloadFile download;
    download.setTime(time);
    const bool ok = download.downloadFileFromURL(url, savePath);
    if (ok && md5)
        *md5 = download.md5Str();
    return ok;
}

bool DownloadFile::downloadFileFromURL(const QString &url, const QString &savePath)
{
    bool ok = false;
    try {
        m_urlStr = url;
        m_savePath = savePath;
        QString digest;
        if (DirectHttp::usable()) {
            // A worker fetches on its own thread: no hand-over to the main thread and back.
            DirectDownload body(savePath);
            const DirectHttp::Answer answer =
                DirectHttp::exchange({NetworkAccess::request(QUrl(url)), "POST", {}}, body);
            m_state->set(body.finish(answer) ? TransferState::Done : TransferState::Fail);
            digest = body.md5();
        } else if (NetworkAccess::isMainThread()) {
            // The connection needs this thread's event loop: waiting here could never end.
            FV_LOG(QStringLiteral("Download refused on the main thread: %1").arg(savePath));
            m_state->set(TransferState::Fail);
        } else {
            NetworkAccess::runOnMainThread([this] { createConnection(); });
            m_state->waitForOutcome();
        }
        // Closed, read and let go in one visit to the main thread: each visit is a round trip of
        // two thread switches, and small files are mostly that.
        if (m_connection) {
            DownloadConnection *connection = m_connection;
            m_connection = nullptr;
            NetworkAccess::runOnMainThread([&] {
                connection->close();
                digest = connection->md5();
                connection->deleteLater();
            });
        }
        if (isFail() || !isDone()) {
            m_md5Str.clear();
        } else {
            m_md5Str = digest;
            if (m_time.isValid()) {
                // Both dates become the server's time; Linux keeps no settable creation date, so
                // the modification (and access) time carry it. A file gone meanwhile fails here.
                const QByteArray nativePath = QFile::encodeName(savePath);
                const qint64 ms = m_time.toMSecsSinceEpoch();
                struct timespec times[2];
                times[0].tv_sec = times[1].tv_sec = time_t(ms / 1000);
                times[0].tv_nsec = times[1].tv_nsec = long(ms % 1000) * 1000000L;
                if (::utimensat(AT_FDCWD, nativePath.constData(), times, 0) == 0)
                    FV_LOG(QStringLiteral("Set attribute for file: %1").arg(savePath));
            }
            ok = true;
        }
    } catch (const std::exception &e) {
        FV_LOG(QStringLiteral("Download exception: %1").arg(QString::fromUtf8(e.what())));
        ok = false;
    }
    FV_LOG(QStringLiteral("End download file: %1").arg(QFileInfo(savePath).fileName()));
    return ok;
}

void DownloadFile::createConnection()
{
    closeConnection();
    m_connection = new DownloadConnection(m_state, m_savePath);
    m_connection->start(m_urlStr);
}

void DownloadFile::closeConnection()
{
    if (!m_connection)
        return;
    DownloadConnection *connection = m_connection;
    m_connection = nullptr;
    NetworkAccess::runOnMainThread([connection] {
        connection->close();
        connection->deleteLater();
    });
}

bool DownloadFile::isDone() const
{
    return m_state->isSet(TransferState::Done);
}
bool DownloadFile::isFail() const
{
    return m_state->isSet(TransferState::Fail);
}
