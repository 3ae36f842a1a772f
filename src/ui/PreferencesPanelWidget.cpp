#include "ui/PreferencesPanelWidget.h"

#include "app/AppDelegate.h"
#include "app/LanguageUtil.h"
#include "ui/ControlBinding.h"
#include "ui_PreferencesPanel.h"

PreferencesPanelWidget::PreferencesPanelWidget(AppDelegate *app, QWidget *parent)
    : QWidget(parent, Qt::Window), m_ui(std::make_unique<Ui::PreferencesPanel>()), m_app(app)
{
    m_ui->setupUi(this);
    setTitleForComponent();
    using namespace ControlBinding;
    // A check box's state reaches its control (toggled) before the action reads it (clicked).
    button(app->startWithSystem(), m_ui->startWithSystem, [this] {
        if (m_app)
            m_app->startWithSystem_valueChange();
    });
    button(app->autoStartCheckBox(), m_ui->autoStartCheckBox, [this] {
        if (m_app)
            m_app->autoStartCheckBox_valueChange();
    });
    imageButton(app->notificationCheckBox(), m_ui->notificationCheckBox, [this] {
        if (m_app)
            m_app->notificationCheckBox_change();
    });
    ControlBinding::window(app->preferencesPanel(), this);
}

PreferencesPanelWidget::~PreferencesPanelWidget() = default;

void PreferencesPanelWidget::setTitleForComponent()
{
    m_ui->notificationLabel->setText(LanguageUtil::getStringByKey(QStringLiteral("notification")));
}
