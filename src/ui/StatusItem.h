#pragma once
// The status item: the tray icon (a StatusNotifierItem where the desktop runs a watcher, an XEmbed
// tray icon otherwise, as QSystemTrayIcon decides) with the status menu. It shows the image
// AppDelegate names (the idle icon or a frame of the sync animation), loading each image once
// into its cache, and a tool tip with the sync status. A click on the icon is the re-open request.
// Does not own the AppDelegate or the menu. Main thread.

#include <QHash>
#include <QIcon>
#include <QObject>
#include <QPointer>
#include <QSystemTrayIcon>

class AppDelegate;
class QMenu;

class StatusItem final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(StatusItem)
public:
    StatusItem(AppDelegate *app, QMenu *menu, QObject *parent = nullptr);
    ~StatusItem() override;

    QSystemTrayIcon *trayIcon() { return &m_statusItem; }
    // The compiled-in image of that name (1x and 2x), from the cache.
    QIcon image(const QString &name);

signals:
    // The user clicked the icon.
    void reopenRequested();

private:
    void changeIcon(const QString &name);
    void updateToolTip();

    QPointer<AppDelegate> m_app;
    QSystemTrayIcon m_statusItem;
    QHash<QString, QIcon> m_cacheStatusBarImage;
};
