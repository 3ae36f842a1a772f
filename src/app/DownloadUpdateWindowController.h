#pragma once
// The update download window's logic: fetches the installer package from the account's server
// with a progress level (0 to 100), keeps it as "Update/update.pkg" in the application-files
// folder, and on the install button hands it to the desktop's default application and quits.
// The window, its label, level and buttons are ViewControl state (the window's hidden flag is
// its visibility, its text the title).
//
// Threading: main thread only; the download runs on the main thread's network manager.
// Owned by CheckUpdate once the user accepted an offer; a running download is aborted with it.

#include "app/ViewControl.h"

#include <QByteArray>
#include <QNetworkReply>
#include <QObject>
#include <QPointer>
#include <QUrl>

class DownloadUpdateWindowController final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(DownloadUpdateWindowController)
public:
    explicit DownloadUpdateWindowController(QObject *parent = nullptr);
    ~DownloadUpdateWindowController() override;

    // Where a finished download is kept: <application-files folder>/Update/update.pkg.
    static QString packagePath();

    // The package's server URL while downloading; the local file once it is written.
    QUrl fileUpdateURL() const { return m_fileUpdateURL; }
    // Expected length from the response (-1 when the server did not say).
    qint64 dataLength() const { return m_dataLength; }
    qint64 receivedLength() const { return m_receiveData.size(); }
    bool isDownloading() const { return m_connection != nullptr; }

    ViewControl *window() { return &m_window; }
    ViewControl *downloadLabel() { return &m_downloadLabel; }
    ViewControl *downloadLeveIndicator() { return &m_downloadLeveIndicator; }
    ViewControl *installButton() { return &m_installButton; }
    ViewControl *cancelButton() { return &m_cancelButton; }

    // Captions from the string table; again after a locale change.
    void setTitleForComponent();
    // Makes the window visible and asks for it to be brought to the front.
    void showWindow();

    // Starts fetching `url` (any earlier download of this window is dropped).
    void downloadFileUpdateWithURL(const QUrl &url);
    // The install button: opens the package with the default application, then quits the program.
    // Nothing happens before the package is written; if it cannot be opened the program stays.
    void update();
    // The cancel button: stops a running download and hides the window.
    void cancel();

signals:
    // The download ended: written, not found, failed or cancelled.
    void downloadFinished();

private:
    void connectionDidReceiveResponse(QNetworkReply *reply);
    void connectionDidReceiveData(QNetworkReply *reply);
    void connectionDidFinishLoading(QNetworkReply *reply);
    void connectionDidFailWithError(QNetworkReply *reply);
    // Detaches and drops the running reply (its later signals are not heard).
    void dropConnection();
    bool writePackage(QString *problem);
    // Shows the string-table text of `key` in the label ("" clears it) and keeps the key, so a
    // locale change rewords it.
    void showLabel(const QString &key);

    QUrl m_fileUpdateURL;
    QPointer<QNetworkReply> m_connection;
    QByteArray m_receiveData;
    qint64 m_dataLength = -1;
    bool m_responded = false;
    QString m_labelKey;

    ViewControl m_window;
    ViewControl m_downloadLabel;
    ViewControl m_downloadLeveIndicator;
    ViewControl m_installButton;
    ViewControl m_cancelButton;
};
