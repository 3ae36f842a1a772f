#pragma once
// The update check: while a user is signed in, asks the account's server every minute (through
// the time scale) whether a newer build of this client exists, offers it, and on acceptance
// opens the download window (DownloadUpdateWindowController).
//
// The comparison is the one the server side has always been built against: the dots are removed
// from both version strings and the rest compared as integers (so 1.2.10 is newer than 1.2.9, and
// 1.3 is older than 1.2.9); equal versions compare their build numbers as integers.
//
// Threading: create, configure and destroy on the main thread. The description is fetched and
// read on the checker's own thread ("CheckUpdate"); the offer, the answer and the download are on
// the main thread. isShowingUpdate() is set from the start of a check until the check finds
// nothing or the offer is answered, so checks never overlap and no second offer appears while
// one is open. Owns its thread (quit and joined on destruction) and the download window.

#include "app/DownloadUpdateWindowController.h"

#include <QMutex>
#include <QObject>
#include <QStringList>
#include <QTimer>
#include <atomic>
#include <memory>

class QThread;

class CheckUpdate final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CheckUpdate)
public:
    // The answers of the offer.
    enum ReturnCode { AlternateReturn = 0, DefaultReturn = 1 };

    // Starts the checker's thread and the repeating 60-second timer (the first check comes when
    // it first fires, or from checkUpdate()).
    explicit CheckUpdate(QObject *parent = nullptr);
    ~CheckUpdate() override;

    // The running program's version ("0.1.0") and build number, compared with the server's.
    static QString shortVersionString();
    static QString bundleVersion();
    // Server resources; "%1" of both is the domain, used twice.
    static QString descriptionURL(const QString &domain);
    static QString packageURL(const QString &domain);
    // True when the server's version and build name a newer program than the local ones.
    static bool isNewVersion(const QString &localVersion, const QString &localBuild,
                             const QString &serverVersion, const QString &serverBuild);
    // The leading integer of a text: blanks skipped, an optional sign, then digits up to the first
    // other character; 0 without digits; saturates instead of overflowing.
    static qint64 integerValue(const QString &text);

    // The offer's texts: "Ferrovane <have_new_version>" and "<new_version> <version> build <build>".
    static QString alertTitle();
    static QString alertInformativeText(const QString &version, const QString &build);

    // The account's server host ("kKeyDomain").
    QString domain() const;
    void setDomain(const QString &domain);
    bool isShowingUpdate() const { return m_isShowingUpdate.load(); }
    // The download window once an offer was accepted.
    DownloadUpdateWindowController *downloadWindow() const { return m_downloadWindow.get(); }

    // Runs checkUpdateOnThread on the checker's thread without waiting. Also the status menu's
    // check-update action.
    void checkUpdate();
    // The check itself; runs on the checker's thread.
    void checkUpdateOnThread();
    // Announces the offer (newVersionOffered) on the main thread. `versionAndBuild`: version, build.
    void showNewVersionAlert(const QStringList &versionAndBuild);
    // The user's answer to the offer: DefaultReturn downloads the package and shows the download
    // window; anything else declines. Either way the offer is over.
    void alertDidEnd(int returnCode);

signals:
    // All on the main thread.
    // A newer build is on offer; answer with alertDidEnd.
    void newVersionOffered(const QString &version, const QString &build);
    // A check ended without an offer (nothing newer, or the description could not be had).
    void checkFinished();
    // The download window was created (after an accepted offer).
    void downloadWindowCreated(DownloadUpdateWindowController *window);

private:
    // Fetches the description on the checker's thread; empty on any failure (logged).
    QByteArray fetchDescription(const QUrl &url);

    mutable QMutex m_domainLock;
    QString m_domain;
    QThread *m_threadCheck = nullptr;
    QObject *m_onThread = nullptr; // lives on m_threadCheck: the target of queued checks
    QTimer m_timerCheck;
    std::atomic<bool> m_isShowingUpdate{false};
    std::unique_ptr<DownloadUpdateWindowController> m_downloadWindow;
};
