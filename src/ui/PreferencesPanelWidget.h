#pragma once
// The preferences panel: the start-with-system and automatic-run check boxes and the notification
// toggle with its two looks, following AppDelegate's controls. AppDelegate::showPreferences() makes
// it visible (the first opening registers the login item); closing it only hides it.
// Does not own the AppDelegate. Main thread.

#include <QPointer>
#include <QWidget>
#include <memory>

class AppDelegate;
namespace Ui {
class PreferencesPanel;
}

class PreferencesPanelWidget final : public QWidget
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(PreferencesPanelWidget)
public:
    explicit PreferencesPanelWidget(AppDelegate *app, QWidget *parent = nullptr);
    ~PreferencesPanelWidget() override;

    // Captions that are no control of the delegate's; again after a locale change.
    void setTitleForComponent();

private:
    std::unique_ptr<Ui::PreferencesPanel> m_ui;
    QPointer<AppDelegate> m_app;
};
