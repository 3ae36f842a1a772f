#pragma once
// Sends one local file to the server as a streamed POST and answers, synchronously, whether the
// server stored it: "done", "fail" or "cancel". The whole file is always sent from its first byte.
//
// Threading: uploadFileWithKey blocks the calling worker thread (never the main thread) in a
// one-second polling loop while the connection runs on the main thread's event loop. Only one
// upload runs in the application at a time; it is the current upload and cancelCurrentUpload
// (any thread) stops it.

#include <QString>
#include <QStringList>
#include <QVariant>
#include <memory>

class TransferState;
class UploadConnection;

class UploadFile final
{
public:
    UploadFile();
    ~UploadFile();
    Q_DISABLE_COPY_MOVE(UploadFile)

    // Makes a new uploader and runs it. `key` and `offset` are accepted but never sent.
    static QString uploadFileWithKey(const QString &key, const QString &path, const QString &url,
                                     quint64 offset, const QString &time);
    // The same on this object. Empty result when an exception ended the upload.
    QString uploadFile(const QString &key, const QString &path, const QString &url, quint64 offset,
                       const QString &time);

    // (path, URL, time); fewer than two items marks the upload failed. Main thread only.
    void createConnection(const QStringList &info);

    static void cancelCurrentUpload();
    // The running upload, or nullptr.
    static UploadFile *currentUpload();

    // 32 lower-case hex digits; empty when the file cannot be opened.
    static QString getMD5OfFileAtPath(const QString &path);

    bool isDone() const;
    bool isFail() const;
    bool isCancel() const;
    // Carried for the caller; the upload does not look at it.
    const QVariant &file() const { return m_file; }
    void setFile(const QVariant &file) { m_file = file; }

private:
    void closeConnection();
    void uploadDirect(const QString &path, const QString &url, const QString &time);

    std::shared_ptr<TransferState> m_state;
    UploadConnection *m_connection = nullptr; // lives on the main thread, deleted there
    QVariant m_file;
};
