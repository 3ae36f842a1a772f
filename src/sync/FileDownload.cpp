#include "sync/FileDownload.h"

#include "RestLibrary/RestClient.h"
#include "catalogue/CataloguePaths.h"
#include "catalogue/DatabaseUtils.h"
#include "util/AppServices.h"
#include "util/Log.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QSaveFile>
#include <QThread>

void FileDownloadDelegate::fileDownloadStatus(const QString &) {}
void FileDownloadDelegate::fileDownloadComplete() {}

FileDownload::FileDownload(FileDownloadDelegate *delegate, const QStringList &infomation)
    : m_delegate(delegate), m_arrInfo(infomation)
{}

FileDownload::~FileDownload()
{
    // No callback may reach this object once it is gone (and no retry may start).
    if (m_fileInternetBase)
        m_fileInternetBase->cancel();
}

void FileDownload::sentRequest()
{
    sentRequestToServer();
}

void FileDownload::sentRequestToServer()
{
    if (!m_restClient) {
        m_restClient = std::make_unique<RestClient>();
        m_appDelegate = AppServices::shared();
    }
    if (m_arrInfo.size() <= DatabaseUtils::ItemPath) {
        FV_LOG(QStringLiteral("Download record with %1 field(s) skipped").arg(m_arrInfo.size()));
        return;
    }
    m_path = m_arrInfo.at(DatabaseUtils::ItemPath);
    const QString root = DatabaseUtils::instance()->syncFolderPath();
    if (!CataloguePaths::checkName(m_arrInfo.at(DatabaseUtils::ItemName), QStringLiteral("Download")) ||
        !CataloguePaths::checkName(CataloguePaths::lastPathComponent(m_path), QStringLiteral("Download")) ||
        !CataloguePaths::checkInside(m_path, root, QStringLiteral("Download"))) {
        m_isDownloading = false;
        return;
    }
    AppServices *services = m_appDelegate ? m_appDelegate : AppServices::shared();
    const QString domain =
        services ? services->getConfigValueByKey(QStringLiteral("kKeyDomain")).toString() : QString();
    const QString session =
        services ? services->getConfigValueByKey(QStringLiteral("kKeySESSTION")).toString() : QString();
    m_restClient->setHost(domain);
    const QString url =
        QStringLiteral("cgi-bin/cloudXml.cgi") + QStringLiteral("?do=download&session=%1&key=%2&offset=0")
                                                     .arg(session, m_arrInfo.at(DatabaseUtils::ItemKey));
    m_isDownloading = true;
    m_fileInternetBase = m_restClient->downloadFileWithURL(url, this);
}

void FileDownload::fileInternetBaseDidConnectedWithDataLength(FileInternetBase *, qint64 length)
{
    FV_LOG(QStringLiteral("Data length: %1").arg(length));
}

void FileDownload::fileInternetBaseDidWorkPercent(FileInternetBase *, float percent)
{
    if (m_delegate)
        m_delegate->fileDownloadStatus(QStringLiteral("%1 percent %2%").arg(m_path).arg(double(percent)));
}

std::shared_ptr<ManagedObjectContext> FileDownload::recordingContext()
{
    if (m_managedObjectContext)
        return m_managedObjectContext;
    AppServices *services = AppServices::shared();
    if (!services)
        return nullptr;
    QCoreApplication *app = QCoreApplication::instance();
    const bool onMain = !app || QThread::currentThread() == app->thread();
    m_managedObjectContext =
        onMain ? services->managedObjectContext() : services->getManagedObjectContextByThread();
    return m_managedObjectContext;
}

void FileDownload::fileInternetBaseDidSusscelWithData(FileInternetBase *, const QByteArray &data)
{
    m_fileInternetBase = nullptr;
    const QString parent = CataloguePaths::deletingLastPathComponent(m_path);
    if (!QFileInfo(parent).isDir())
        QDir().mkpath(parent);
    QSaveFile file(m_path);
    bool written = file.open(QIODevice::WriteOnly) && file.write(data) == data.size();
    written = written && file.commit();
    m_isDownloading = false;
    if (!written) {
        FV_LOG(QStringLiteral("Error write file: %1").arg(file.errorString()));
        return;
    }
    DatabaseUtils::instance()->insertFile(m_arrInfo, recordingContext());
    if (m_delegate)
        m_delegate->fileDownloadComplete();
    if (AppServices *services = AppServices::shared())
        services->postNotificationWithTitle(
            DatabaseUtils::localizedString(QStringLiteral("download_complete")),
            QStringLiteral("%1: %2").arg(DatabaseUtils::localizedString(QStringLiteral("file")),
                                         m_arrInfo.at(DatabaseUtils::ItemName)));
}

void FileDownload::fileInternetBaseDidFailWithCode(FileInternetBase *, int code)
{
    FV_LOG(QStringLiteral("Error"));
    Q_UNUSED(code);
    m_fileInternetBase = nullptr;
    // Started again at once, without limit or delay; through the event loop, because a request that
    // cannot be made fails inside the call that starts it.
    if (!m_retry)
        m_retry = std::make_unique<QObject>();
    QMetaObject::invokeMethod(
        m_retry.get(), [this] { sentRequestToServer(); }, Qt::QueuedConnection);
}
