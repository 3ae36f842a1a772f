#include "ui/SettingsViewWidget.h"

#include "app/AppDelegate.h"
#include "ui/ControlBinding.h"
#include "ui_SettingsView.h"

SettingsViewWidget::SettingsViewWidget(AppDelegate *app, QWidget *parent)
    : QWidget(parent), m_ui(std::make_unique<Ui::SettingsView>()), m_app(app)
{
    m_ui->setupUi(this);
    QFont heading = m_ui->syncLabel->font();
    heading.setBold(true);
    m_ui->syncLabel->setFont(heading);

    // Each click goes to the delegate while it lives.
    const auto to = [this](void (AppDelegate::*action)()) {
        return [this, action] {
            if (m_app)
                (m_app.data()->*action)();
        };
    };
    using namespace ControlBinding;
    container(app->settingView(), this);
    label(app->idTitleLabel(), m_ui->idTitleLabel);
    label(app->idLabel(), m_ui->idLabel);
    label(app->pcNameLabel(), m_ui->pcNameLabel);
    lineEdit(app->pcNameTextField(), m_ui->pcNameTextField);
    label(app->folderLabel(), m_ui->folderLabel);
    lineEdit(app->pathTextField(), m_ui->pathTextField);
    button(app->searchButton(), m_ui->searchButton, to(&AppDelegate::choiceSaveDir));
    label(app->shortcut(), m_ui->shortcut);
    button(app->addShortcut(), m_ui->addShortcut, to(&AppDelegate::addShortcutAction));
    label(app->syncLabel(), m_ui->syncLabel);
    label(app->executeLabel(), m_ui->executeLabel);
    imageButton(app->onoffButton(), m_ui->onoffButton, to(&AppDelegate::onoffAction));
    label(app->statusTextField(), m_ui->statusTextField);
    button(app->logoutButton(), m_ui->logoutButton, to(&AppDelegate::logout));
    button(app->cancelButton(), m_ui->cancelButton, [this] { reset(); });
    button(app->saveButton(), m_ui->saveButton, to(&AppDelegate::saveAction));
    connect(m_ui->pcNameTextField, &QLineEdit::returnPressed, this, [this] {
        if (m_ui->saveButton->isEnabled())
            m_ui->saveButton->click();
    });
}

SettingsViewWidget::~SettingsViewWidget() = default;

QPushButton *SettingsViewWidget::saveButton() const
{
    return m_ui->saveButton;
}

void SettingsViewWidget::reset()
{
    if (!m_app)
        return;
    // What Save last stored; nothing is written.
    m_app->pcNameTextField()->setStringValue(
        m_app->getConfigValueByKey(QStringLiteral("kKeyPCName")).toString());
    m_app->pathTextField()->setStringValue(m_app->getConfigValueByKey(QStringLiteral("kKeyPath")).toString());
}
