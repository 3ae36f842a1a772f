#pragma once
// The main window: the sign-in view while signed out (a CDLoginViewWidget for AppDelegate's
// current CDLoginView, replaced whenever the delegate makes a new one) and the settings view while
// signed in, with the delegate's default button as the window's. Becoming the active window tells
// the delegate (windowDidBecomeMain); closing it only hides it (`closed` lets the shell decide
// whether that ends the program). Does not own the AppDelegate. Main thread.

#include <QPointer>
#include <QWidget>

class AppDelegate;
class CDLoginView;
class CDLoginViewWidget;
class QVBoxLayout;
class SettingsViewWidget;
class ViewControl;

class MainWindowWidget final : public QWidget
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(MainWindowWidget)
public:
    explicit MainWindowWidget(AppDelegate *app, QWidget *parent = nullptr);
    ~MainWindowWidget() override;

    CDLoginViewWidget *loginViewWidget() const;
    SettingsViewWidget *settingsViewWidget() const;

    // Shows the window, brings it to the front and gives it the keyboard.
    void bringToFront();

signals:
    void closed();

protected:
    void changeEvent(QEvent *event) override;
    void closeEvent(QCloseEvent *event) override;

private:
    void showLoginView(CDLoginView *view);
    void showDefaultButton(ViewControl *button);
    // Fits the window to the view it shows now.
    void fitToContents();

    QPointer<AppDelegate> m_app;
    QVBoxLayout *m_layout = nullptr;
    QPointer<CDLoginViewWidget> m_loginViewWidget;
    SettingsViewWidget *m_settingsViewWidget = nullptr;
};
