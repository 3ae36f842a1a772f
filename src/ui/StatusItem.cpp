#include "ui/StatusItem.h"

#include "app/AppDelegate.h"

#include <QFileInfo>
#include <QMenu>

StatusItem::StatusItem(AppDelegate *app, QMenu *menu, QObject *parent) : QObject(parent), m_app(app)
{
    m_statusItem.setContextMenu(menu);
    changeIcon(app->statusBarImageName().isEmpty() ? AppDelegate::idleImageName()
                                                   : app->statusBarImageName());
    updateToolTip();
    connect(app, &AppDelegate::statusBarImageChanged, this, &StatusItem::changeIcon);
    connect(app->statusTextField(), &ViewControl::changed, this, &StatusItem::updateToolTip);
    connect(app, &AppDelegate::signedIn, this, &StatusItem::updateToolTip);
    connect(app, &AppDelegate::signedOut, this, &StatusItem::updateToolTip);
    connect(&m_statusItem, &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::DoubleClick)
                    emit reopenRequested();
            });
    m_statusItem.show();
}

StatusItem::~StatusItem()
{
    m_statusItem.hide();
}

QIcon StatusItem::image(const QString &name)
{
    auto cached = m_cacheStatusBarImage.constFind(name);
    if (cached != m_cacheStatusBarImage.constEnd())
        return cached.value();
    // "sync_16_01.png" is ":/images/sync_16_01.png" with ":/images/sync_16_01@2x.png" beside it.
    const QString base = QFileInfo(name).completeBaseName();
    QIcon icon;
    icon.addFile(QStringLiteral(":/images/%1.png").arg(base));
    icon.addFile(QStringLiteral(":/images/%1@2x.png").arg(base));
    m_cacheStatusBarImage.insert(name, icon);
    return icon;
}

void StatusItem::changeIcon(const QString &name)
{
    m_statusItem.setIcon(image(name));
}

void StatusItem::updateToolTip()
{
    QString tip = QStringLiteral("Ferrovane");
    if (m_app && m_app->isLogined() && !m_app->statusTextField()->stringValue().isEmpty())
        tip += QStringLiteral(" — ") + m_app->statusTextField()->stringValue();
    m_statusItem.setToolTip(tip);
}
