#pragma once
// The account panel as the user sees it (in the tray's account menu item): the account, the
// storage used and available as text and as a bar, and a spinner while the quota is asked for.
// Each time it is shown it asks the AccountView logic to load again. Does not own the logic.
// Main thread.

#include <QPointer>
#include <QWidget>
#include <memory>

class AccountView;
namespace Ui {
class AccountView;
}

class AccountViewWidget final : public QWidget
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(AccountViewWidget)
public:
    explicit AccountViewWidget(AccountView *view, QWidget *parent = nullptr);
    ~AccountViewWidget() override;

    AccountView *view() const;

protected:
    void showEvent(QShowEvent *event) override;

private:
    std::unique_ptr<Ui::AccountView> m_ui;
    QPointer<AccountView> m_view;
};
