#pragma once
// Fetches one file for the sync engine through FileInternetBase (the whole answer in memory), writes
// it into its place in the sync folder, records it in the catalogue and tells its delegate.
//
// The file is described by an item record (name, size, MD5, key, parent key, local path) given at
// creation. A failed request is started again at once, without limit: the object keeps trying until
// it succeeds or is destroyed. A record whose name or path would leave the sync folder is refused.
//
// Threading: call sentRequestToServer on a thread that runs an event loop; every callback, the write
// and the catalogue update happen on that thread (with that thread's catalogue context). The
// delegate is not owned and must outlive the download.

#include "RestLibrary/FileInternetBase.h"

#include <QPointer>
#include <QString>
#include <QStringList>
#include <memory>

class AppServices;
class ManagedObjectContext;
class RestClient;

// Both callbacks are optional: the defaults do nothing.
class FileDownloadDelegate
{
public:
    virtual ~FileDownloadDelegate() = default;
    // "<path> percent <n>%" while the answer arrives.
    virtual void fileDownloadStatus(const QString &status);
    virtual void fileDownloadComplete();
};

class FileDownload final : public FileInternetBaseDelegate
{
public:
    FileDownload(FileDownloadDelegate *delegate,
                 const QStringList &infomation); // initWithDelegate:infomation:
    ~FileDownload() override;
    FileDownload(const FileDownload &) = delete;
    FileDownload &operator=(const FileDownload &) = delete;

    FileDownloadDelegate *delegate() const { return m_delegate; }
    void setDelegate(FileDownloadDelegate *delegate) { m_delegate = delegate; }
    const QStringList &arrInfo() const { return m_arrInfo; }
    // The record of the next download (the object is reused from one download to the next).
    void setArrInfo(const QStringList &infomation) { m_arrInfo = infomation; }
    FileInternetBase *fileInternetBase() const { return m_fileInternetBase; }
    const QString &path() const { return m_path; }
    bool isDownloading() const { return m_isDownloading; }
    AppServices *appDelegate() const { return m_appDelegate; }
    // The context the file is recorded in; by default the calling thread's own.
    std::shared_ptr<ManagedObjectContext> managedObjectContext() const { return m_managedObjectContext; }
    void setManagedObjectContext(const std::shared_ptr<ManagedObjectContext> &context)
    {
        m_managedObjectContext = context;
    }

    // Builds the download request for the record's key and starts it.
    void sentRequestToServer();
    void sentRequest();

    void fileInternetBaseDidConnectedWithDataLength(FileInternetBase *base, qint64 length) override;
    void fileInternetBaseDidSusscelWithData(FileInternetBase *base, const QByteArray &data) override;
    void fileInternetBaseDidWorkPercent(FileInternetBase *base, float percent) override;
    void fileInternetBaseDidFailWithCode(FileInternetBase *base, int code) override;

private:
    std::shared_ptr<ManagedObjectContext> recordingContext();

    FileDownloadDelegate *m_delegate = nullptr;
    QStringList m_arrInfo;
    QPointer<FileInternetBase> m_fileInternetBase;
    QString m_path;
    bool m_isDownloading = false;
    AppServices *m_appDelegate = nullptr;
    std::shared_ptr<ManagedObjectContext> m_managedObjectContext;
    std::unique_ptr<RestClient> m_restClient;
    // Receives the queued restarts on the requesting thread; pending ones go with it.
    std::unique_ptr<QObject> m_retry;
};
