#pragma once
// The tray icon's menu: every item of the status menu and the dock menu, each following its
// AppDelegate control (title, shown, enabled while it has its action) and calling its action.
// The account item opens the account panel (an AccountViewWidget in the menu). The two log-out
// items of the status and dock menus do the same and are shown as one. Quit ends the program.
// Does not own the AppDelegate. Main thread.

#include <QMenu>
#include <QPointer>

class AccountView;
class AccountViewWidget;
class AppDelegate;
class QWidgetAction;
class ViewControl;

class StatusMenu final : public QMenu
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(StatusMenu)
public:
    explicit StatusMenu(AppDelegate *app, QWidget *parent = nullptr);
    ~StatusMenu() override;

    // Puts the account panel into the account item (the delegate makes it at the end of launch).
    void setAccountView(AccountView *view);

private:
    // An item named after its control, calling `action` of the delegate.
    QAction *addItem(ViewControl *control, const char *name, void (AppDelegate::*action)());
    // Trays that cannot hold widgets (a tray drawn by the desktop from the menu's description)
    // show the account panel's texts as the item's title.
    void updateAccountText();

    QPointer<AppDelegate> m_app;
    QMenu *m_accountMenu = nullptr;
    QWidgetAction *m_accountAction = nullptr;
    QPointer<AccountView> m_accountView;
};
