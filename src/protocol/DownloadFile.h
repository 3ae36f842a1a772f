#pragma once
// Streams one file from the server straight into its place, computing its MD5 as the bytes arrive,
// and blocks the caller until the answer is complete. Memory stays constant for any file size.
// The file is written from offset 0 without being truncated first: an older, longer file keeps
// its tail. Whatever body the server sends (even with an HTTP error status) is written.
//
// Threading: call from a worker thread, never the main thread; the connection runs on the main
// thread's event loop while the caller waits in a one-second polling loop. The digest is computed
// on a thread of the connection's own (BackgroundDigest).

#include <QDateTime>
#include <QString>
#include <memory>

class DownloadConnection;
class TransferState;

class DownloadFile final
{
public:
    DownloadFile();
    ~DownloadFile();
    Q_DISABLE_COPY_MOVE(DownloadFile)

    // Runs a new downloader; on success `md5` (if given) receives the digest, else it is untouched.
    static bool downloadFileFromURL(const QString &url, const QString &savePath, QString *md5,
                                    const QDateTime &time);
    bool downloadFileFromURL(const QString &url, const QString &savePath);

    // POST to urlStr with no body. Main thread only.
    void createConnection();

    const QString &urlStr() const { return m_urlStr; }
    const QString &savePath() const { return m_savePath; }
    const QString &md5Str() const { return m_md5Str; }
    const QDateTime &time() const { return m_time; }
    void setTime(const QDateTime &time) { m_time = time; }
    bool isDone() const;
    bool isFail() const;

private:
    void closeConnection();

    QString m_urlStr;
    QString m_savePath;
    QString m_md5Str;
    QDateTime m_time;
    std::shared_ptr<TransferState> m_state;
    DownloadConnection *m_connection = nullptr; // lives on the main thread, deleted there
};
