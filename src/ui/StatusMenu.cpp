#include "ui/StatusMenu.h"

#include "app/AccountView.h"
#include "app/AppDelegate.h"
#include "ui/AccountViewWidget.h"
#include "ui/ControlBinding.h"

#include <QApplication>
#include <QWidgetAction>

StatusMenu::StatusMenu(AppDelegate *app, QWidget *parent) : QMenu(parent), m_app(app)
{
    setObjectName(QStringLiteral("statusBarMenu"));
    addItem(app->loginMenuItem(), "loginMenuItem", &AppDelegate::loginMenuItem_touch);

    m_accountMenu = new QMenu(this);
    m_accountMenu->setObjectName(QStringLiteral("accountMenu"));
    QAction *account = addMenu(m_accountMenu);
    account->setObjectName(QStringLiteral("accountMenuItem"));
    ControlBinding::action(app->accountMenu(), account);
    m_accountAction = new QWidgetAction(m_accountMenu);
    m_accountAction->setObjectName(QStringLiteral("accountInfomationMenu"));
    // Its title is the panel's texts (below), not the control's.
    const auto showPanel = [app, this] {
        m_accountAction->setEnabled(app->accountInfomationMenu()->isEnabled());
        m_accountAction->setVisible(!app->accountInfomationMenu()->isHidden());
    };
    showPanel();
    connect(app->accountInfomationMenu(), &ViewControl::changed, m_accountAction, showPanel);
    m_accountMenu->addAction(m_accountAction);
    // A tray that draws the menu itself never shows the panel: ask for the quota when it opens.
    connect(m_accountMenu, &QMenu::aboutToShow, this, [this] {
        if (m_accountView)
            m_accountView->viewDidMoveToWindow();
    });

    addSeparator();
    addItem(app->syncStartMenuItem(), "syncStartMenuItem", &AppDelegate::pressedSyncStart);
    addItem(app->syncStopMenuItem(), "syncStopMenuItem", &AppDelegate::pressedSyncStop);
    addItem(app->openSyncFolderMenuItem(), "openSyncFolderMenuItem", &AppDelegate::pressedOpenSyncFolder);
    addSeparator();
    addItem(app->logMenuItem(), "logMenuItem", &AppDelegate::logViewMenuItem_touch);
    addItem(app->clearLogMenuItem(), "clearLogMenuItem", &AppDelegate::clearLogMenuItem_touch);
    addSeparator();
    addItem(app->preferencesMenuItem(), "preferencesMenuItem", &AppDelegate::showPreferences);
    addItem(app->checkUpdateMenuItem(), "checkUpdateMenuItem", &AppDelegate::checkUpdate);
    addSeparator();

    // The status menu's and the dock menu's log-out items: one item, shown while either is.
    QAction *logout = addAction(QString());
    logout->setObjectName(QStringLiteral("logoutMenuItem"));
    const auto showLogout = [app, logout] {
        logout->setText(app->logoutMenuItem()->stringValue());
        logout->setVisible(!app->logoutMenuItem()->isHidden() || !app->logoutTrayMenuItem()->isHidden());
        logout->setEnabled(app->logoutMenuItem()->isEnabled() || app->logoutTrayMenuItem()->isEnabled());
    };
    showLogout();
    connect(app->logoutMenuItem(), &ViewControl::changed, logout, showLogout);
    connect(app->logoutTrayMenuItem(), &ViewControl::changed, logout, showLogout);
    connect(logout, &QAction::triggered, this, [this] {
        if (m_app)
            m_app->logout();
    });

    QAction *quit = addAction(QString());
    quit->setObjectName(QStringLiteral("quitMenuItem"));
    quit->setMenuRole(QAction::QuitRole);
    ControlBinding::action(app->quitMenuItem(), quit, [] {
        // Termination is always allowed; the delegate's quit work runs as the event loop ends.
        QCoreApplication::quit();
    });
}

StatusMenu::~StatusMenu() = default;

QAction *StatusMenu::addItem(ViewControl *control, const char *name, void (AppDelegate::*action)())
{
    QAction *item = addAction(QString());
    item->setObjectName(QString::fromLatin1(name));
    ControlBinding::action(control, item, [this, action] {
        if (m_app)
            (m_app.data()->*action)();
    });
    return item;
}

void StatusMenu::setAccountView(AccountView *view)
{
    if (m_accountView == view)
        return;
    if (m_accountView)
        disconnect(m_accountView, nullptr, this, nullptr);
    m_accountView = view;
    // A menu makes the item's widget when the action is added: add it again with its new panel.
    m_accountMenu->removeAction(m_accountAction);
    m_accountAction->setDefaultWidget(view ? new AccountViewWidget(view) : nullptr);
    m_accountMenu->addAction(m_accountAction);
    if (view) {
        connect(view->accountTextField(), &ViewControl::changed, this, &StatusMenu::updateAccountText);
        connect(view->quotaTextField(), &ViewControl::changed, this, &StatusMenu::updateAccountText);
    }
    updateAccountText();
}

void StatusMenu::updateAccountText()
{
    if (!m_accountView) {
        m_accountAction->setText(QString());
        return;
    }
    QStringList parts;
    for (const ViewControl *field : {m_accountView->accountTextField(), m_accountView->quotaTextField()}) {
        if (!field->stringValue().isEmpty())
            parts << field->stringValue();
    }
    QString text = parts.join(QStringLiteral(" — "));
    // A title marks its shortcut letter with "&": a user id may hold one.
    text.replace(u'&', QStringLiteral("&&"));
    m_accountAction->setText(text);
}
