#include "app/DownloadUpdateWindowController.h"

#include "RestLibrary/NetworkAccess.h"
#include "app/AppDelegate.h"
#include "app/LanguageUtil.h"
#include "app/UrlOpener.h"
#include "util/Log.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSaveFile>

namespace {
QString text(const char *key)
{
    return LanguageUtil::getStringByKey(QString::fromLatin1(key));
}
} // namespace

DownloadUpdateWindowController::DownloadUpdateWindowController(QObject *parent) : QObject(parent)
{
    for (ViewControl *control :
         {&m_window, &m_downloadLabel, &m_downloadLeveIndicator, &m_installButton, &m_cancelButton})
        control->setParent(this);
    m_window.setHidden(true);
    m_installButton.setHidden(true);
    setTitleForComponent();
}

DownloadUpdateWindowController::~DownloadUpdateWindowController()
{
    dropConnection();
    for (ViewControl *control :
         {&m_window, &m_downloadLabel, &m_downloadLeveIndicator, &m_installButton, &m_cancelButton})
        control->setParent(nullptr);
}

QString DownloadUpdateWindowController::packagePath()
{
    return AppDelegate::applicationFilesDirectory() + QStringLiteral("/Update/update.pkg");
}

void DownloadUpdateWindowController::setTitleForComponent()
{
    m_window.setStringValue(text("update_window_title"));
    m_installButton.setStringValue(text("close_install"));
    m_cancelButton.setStringValue(text("cancel"));
    showLabel(m_labelKey);
}

void DownloadUpdateWindowController::showLabel(const QString &key)
{
    m_labelKey = key;
    m_downloadLabel.setStringValue(m_labelKey.isEmpty() ? QString()
                                                        : LanguageUtil::getStringByKey(m_labelKey));
}

void DownloadUpdateWindowController::showWindow()
{
    m_window.setHidden(false);
    m_window.makeFirstResponder();
}

void DownloadUpdateWindowController::downloadFileUpdateWithURL(const QUrl &url)
{
    dropConnection();
    m_fileUpdateURL = url;
    m_receiveData.clear();
    m_dataLength = -1;
    m_responded = false;
    m_installButton.setHidden(true);
    m_downloadLeveIndicator.setDoubleValue(0);
    FV_LOG(QStringLiteral("Connect URL: %1").arg(url.toString()));

    QNetworkReply *reply = NetworkAccess::mainManager()->get(NetworkAccess::request(url));
    m_connection = reply;
    showLabel(QStringLiteral("downloading_update"));
    connect(reply, &QNetworkReply::metaDataChanged, this,
            [this, reply] { connectionDidReceiveResponse(reply); });
    connect(reply, &QNetworkReply::readyRead, this, [this, reply] { connectionDidReceiveData(reply); });
    connect(reply, &QNetworkReply::finished, this, [this, reply] {
        if (reply->error() == QNetworkReply::NoError)
            connectionDidFinishLoading(reply);
        else
            connectionDidFailWithError(reply);
    });
}

void DownloadUpdateWindowController::connectionDidReceiveResponse(QNetworkReply *reply)
{
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!status.isValid() || m_responded)
        return;
    m_responded = true;
    if (status.toInt() == 404) {
        showLabel(QStringLiteral("file_not_found"));
        // Nothing of this answer is a package: the transfer is over for us. The reply is left to
        // end by itself (aborting it inside its own signal upsets the network stack).
        m_connection = nullptr;
        reply->disconnect(this);
        connect(reply, &QNetworkReply::finished, reply, &QObject::deleteLater);
        emit downloadFinished();
        return;
    }
    const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
    m_dataLength = length.isValid() ? length.toLongLong() : -1;
    FV_LOG(QStringLiteral("Response url: %1\t length: %2").arg(reply->url().toString()).arg(m_dataLength));
    m_receiveData.clear();
}

void DownloadUpdateWindowController::connectionDidReceiveData(QNetworkReply *reply)
{
    if (!m_responded)
        connectionDidReceiveResponse(reply);
    if (reply != m_connection)
        return;
    m_receiveData.append(reply->readAll());
    if (m_dataLength > 0)
        m_downloadLeveIndicator.setDoubleValue(double(m_receiveData.size()) / double(m_dataLength) * 100.0);
}

void DownloadUpdateWindowController::connectionDidFinishLoading(QNetworkReply *reply)
{
    if (reply != m_connection)
        return;
    m_receiveData.append(reply->readAll());
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    dropConnection();
    // Only a 2xx answer carries the package (redirects are not followed).
    QString problem;
    if (status < 200 || status >= 300)
        problem = QStringLiteral("HTTP status %1").arg(status);
    else if (!writePackage(&problem))
        problem = QStringLiteral("Cannot write %1: %2").arg(packagePath(), problem);
    if (!problem.isEmpty()) {
        FV_LOG(QStringLiteral("Error: %1").arg(problem));
        showLabel(QStringLiteral("download_error"));
        emit downloadFinished();
        return;
    }
    m_fileUpdateURL = QUrl::fromLocalFile(packagePath());
    m_downloadLeveIndicator.setDoubleValue(100);
    showLabel(QStringLiteral("download_complete"));
    m_installButton.setHidden(false);
    emit downloadFinished();
}

void DownloadUpdateWindowController::connectionDidFailWithError(QNetworkReply *reply)
{
    if (reply != m_connection)
        return;
    // An HTTP error status is an answer, not a failure of the connection.
    if (!m_responded && reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid()) {
        connectionDidReceiveResponse(reply);
        if (reply != m_connection)
            return;
    }
    FV_LOG(QStringLiteral("Error: %1").arg(reply->errorString()));
    dropConnection();
    showLabel(QStringLiteral("download_error"));
    emit downloadFinished();
}

void DownloadUpdateWindowController::dropConnection()
{
    QNetworkReply *reply = m_connection;
    m_connection = nullptr;
    if (!reply)
        return;
    reply->disconnect(this);
    reply->abort();
    reply->deleteLater();
}

bool DownloadUpdateWindowController::writePackage(QString *problem)
{
    const QString folder = AppDelegate::applicationFilesDirectory();
    const bool fresh = !QFileInfo::exists(folder);
    if (!QDir().mkpath(folder + QStringLiteral("/Update"))) {
        *problem = QStringLiteral("cannot create the folder");
        return false;
    }
    // The application-files folder is private to the user whoever creates it.
    if (fresh)
        QFile::setPermissions(folder,
                              QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    QSaveFile file(packagePath());
    if (!file.open(QIODevice::WriteOnly) || file.write(m_receiveData) != m_receiveData.size() ||
        !file.commit()) {
        *problem = file.errorString();
        return false;
    }
    return true;
}

void DownloadUpdateWindowController::update()
{
    if (!m_fileUpdateURL.isLocalFile() || m_installButton.isHidden())
        return;
    FV_LOG(QStringLiteral("Install package: %1").arg(m_fileUpdateURL.toLocalFile()));
    if (!UrlOpener::shared()->openURL(m_fileUpdateURL)) {
        showLabel(QStringLiteral("download_error"));
        return;
    }
    QCoreApplication::quit();
}

void DownloadUpdateWindowController::cancel()
{
    if (isDownloading()) {
        dropConnection();
        showLabel(QString());
        emit downloadFinished();
    }
    m_window.setHidden(true);
}
