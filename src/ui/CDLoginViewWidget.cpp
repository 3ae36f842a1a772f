#include "ui/CDLoginViewWidget.h"

#include "app/CDLoginView.h"
#include "ui/ControlBinding.h"
#include "ui/Palette.h"
#include "ui_CDLoginView.h"

CDLoginViewWidget::CDLoginViewWidget(CDLoginView *view, QWidget *parent)
    : QWidget(parent), m_ui(std::make_unique<Ui::CDLoginView>()), m_view(view)
{
    m_ui->setupUi(this);
    using namespace ControlBinding;
    lineEdit(view->domainTextField(), m_ui->domainTextField);
    lineEdit(view->useridTextField(), m_ui->useridTextField);
    lineEdit(view->passwordTextField(), m_ui->passwordTextField);
    button(view->saveInfomation(), m_ui->saveInfomation);
    label(view->failTextField(), m_ui->failTextField);
    label(view->domainLabel(), m_ui->domainLabel);
    label(view->userIDLabel(), m_ui->userIDLabel);
    label(view->passwordLabel(), m_ui->passwordLabel);
    container(view->viewForUserPassword(), m_ui->viewForUserPassword);
    busy(view->progressIndicator(), m_ui->progressIndicator);
    const auto login = [this] {
        if (m_view)
            m_view->login();
    };
    button(view->loginButton(), m_ui->loginButton, login);
    for (QLineEdit *field : {m_ui->domainTextField, m_ui->useridTextField, m_ui->passwordTextField})
        connect(field, &QLineEdit::returnPressed, this, [this, login] {
            if (m_ui->loginButton->isEnabled())
                login();
        });
    // The message line has no caption of its own: it shows only when there is something to say.
    label(view->messLabel(), m_ui->messLabel);
    connect(view->messLabel(), &ViewControl::changed, m_ui->messLabel, [this] {
        m_ui->messLabel->setHidden(m_view->messLabel()->isHidden() ||
                                   m_view->messLabel()->stringValue().isEmpty());
    });
    m_ui->messLabel->setHidden(view->messLabel()->stringValue().isEmpty());
    styleFailText();
}

CDLoginViewWidget::~CDLoginViewWidget() = default;

QPushButton *CDLoginViewWidget::loginButton() const
{
    return m_ui->loginButton;
}

void CDLoginViewWidget::changeEvent(QEvent *event)
{
    QWidget::changeEvent(event);
    if (event->type() == QEvent::PaletteChange)
        styleFailText();
}

void CDLoginViewWidget::styleFailText()
{
    QPalette palette = m_ui->failTextField->palette();
    palette.setColor(QPalette::WindowText, Palette::errorText(this->palette()));
    m_ui->failTextField->setPalette(palette);
}

CDLoginView *CDLoginViewWidget::view() const
{
    return m_view;
}
