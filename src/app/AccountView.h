#pragma once
// The account panel's logic: which account is signed in and how much of its storage is used,
// asked of the server with QUOTA each time the panel is put into a window. The texts, the level
// (0 to 10) and the spinner are ViewControl state.
//
// Threading: main thread; the request runs on a thread of its own, which sets the controls
// (queued to the main thread). The panel waits for a running request when it is destroyed.

#include "app/MyViewBase.h"
#include "app/ViewControl.h"

#include <QPointer>
#include <QThread>
#include <atomic>
#include <memory>

class AccountView final : public MyViewBase
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(AccountView)
public:
    explicit AccountView(QObject *parent = nullptr);
    ~AccountView() override;
    static std::unique_ptr<AccountView> instance();

    ViewControl *accountTextField() { return &m_accountTextField; }
    ViewControl *quotaTextField() { return &m_quotaTextField; }
    ViewControl *progressIndicator() { return &m_progressIndicator; }
    ViewControl *loadingProgressIndicator() { return &m_loadingProgressIndicator; }
    ViewControl *quotaLabel() { return &m_quotaLabel; }
    bool isLoading() const { return m_isLoading.load(); }

    void viewDidMoveToWindow();
    // Captions the quota label again (after a locale change); the loaded texts change with the
    // next load.
    void setTitleForComponent() override;
    // Starts the spinner and runs loadInfomationThread on a new thread.
    void loadInfomation();
    // The request and the display of its answer; runs on the loading thread.
    void loadInfomationThread();

    // "<caption> <used>/<total>": both numbers in GB when TOTAL is at least 1 GiB, else both in MB
    // (the unit follows TOTAL alone), at most two fraction digits.
    static QString quotaText(const QString &usedTotalCaption, double used, double total);
    // USED × 10 / TOTAL (not guarded: TOTAL 0 gives no number).
    static double quotaLevel(double used, double total);
    static QString formatNumber(double value);

signals:
    // The loading thread is done (whatever the outcome).
    void loadingFinished();

private:
    struct Snapshot
    {
        bool logined = false;
        QString mailId;
        QString domain;
        QString session;
    };

    ViewControl m_accountTextField;
    ViewControl m_quotaTextField;
    ViewControl m_progressIndicator;
    ViewControl m_loadingProgressIndicator;
    ViewControl m_quotaLabel;
    std::atomic<bool> m_isLoading{false};
    std::atomic<bool> m_requestRunning{false}; // a loading thread has not finished its work yet
    Snapshot m_snapshot; // settings read on the main thread before the loading thread starts
    QPointer<QThread> m_loading;
};
