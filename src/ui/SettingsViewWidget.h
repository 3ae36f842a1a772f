#pragma once
// The main window's settings view, shown while signed in: the account, the computer name, the
// sync folder with its directory chooser and desktop shortcut, the on/off switch with the status
// text, and log out, reset and save. Every control follows AppDelegate's state; clicks go to its
// actions. Reset puts the stored computer name and sync folder back into the fields.
// Does not own the AppDelegate. Main thread.

#include <QPointer>
#include <QWidget>
#include <memory>

class AppDelegate;
class QPushButton;
namespace Ui {
class SettingsView;
}

class SettingsViewWidget final : public QWidget
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(SettingsViewWidget)
public:
    explicit SettingsViewWidget(AppDelegate *app, QWidget *parent = nullptr);
    ~SettingsViewWidget() override;

    // The window's default button while signed in.
    QPushButton *saveButton() const;

private:
    void reset();

    std::unique_ptr<Ui::SettingsView> m_ui;
    QPointer<AppDelegate> m_app;
};
