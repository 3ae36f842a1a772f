#pragma once
// The activity log window's logic: two tables (changes from the server applied here, and changes
// of this computer sent to the server), fed by the in-process notification "kKeyLogNotification"
// (the object true for the server's table; the entry under "log"). Entries live in memory only.
// The window, the two table captions and the text view are ViewControl state; clearing the log
// and feeding the text view are deliberately no-ops.
//
// Threading: create and use on the main thread. Notifications may be posted from any thread:
// they reach this controller queued on the main thread (never waited for), in posting order.

#include "app/LogTableViewDataSource.h"
#include "app/ViewControl.h"

#include <QObject>
#include <QVariant>
#include <QVariantMap>

class LogWindowController final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(LogWindowController)
public:
    // Subscribes to "kKeyLogNotification" (until destroyed) and captions the window.
    explicit LogWindowController(QObject *parent = nullptr);
    ~LogWindowController() override;

    LogTableViewDataSource *serverTableViewDataSource() { return &m_serverTableViewDataSource; }
    LogTableViewDataSource *localTableViewDataSource() { return &m_localTableViewDataSource; }
    ViewControl *window() { return &m_window; }
    ViewControl *fromServerLabel() { return &m_fromServerLabel; }
    ViewControl *fromSyncLabel() { return &m_fromSyncLabel; }
    ViewControl *logTextView() { return &m_logTextView; }
    ViewControl *clearButton() { return &m_clearButton; }
    const QString &log() const { return m_log; }
    // The pattern of the window's time texts.
    static QString dateFormat() { return QStringLiteral("yyyy/MM/dd HH:mm:ss"); }

    // Captions from the string table (window title, table captions, column titles); again after
    // a locale change.
    void setTitleForComponent();
    // Makes the window visible and asks for it to be brought to the front.
    void showWindow();

    // Takes an entry posted under "kKeyLogNotification"; anything else is ignored (the sync
    // engine also posts plain texts under that name).
    void receiveLogNotification(const QString &name, const QVariant &object, const QVariantMap &userInfo);
    // Both do nothing: the log cannot be cleared.
    void clear();
    void clear_press();
    // Does nothing: the text view is not fed.
    void setStringForLog(const QString &text);

private:
    LogTableViewDataSource m_serverTableViewDataSource;
    LogTableViewDataSource m_localTableViewDataSource;
    ViewControl m_window;
    ViewControl m_fromServerLabel;
    ViewControl m_fromSyncLabel;
    ViewControl m_logTextView;
    ViewControl m_clearButton;
    QString m_log = QStringLiteral("[Ferrovane]");
};
