#include "ui/MainWindowWidget.h"

#include "app/AppDelegate.h"
#include "ui/CDLoginViewWidget.h"
#include "ui/SettingsViewWidget.h"

#include <QCloseEvent>
#include <QPushButton>
#include <QTimer>
#include <QVBoxLayout>

MainWindowWidget::MainWindowWidget(AppDelegate *app, QWidget *parent)
    : QWidget(parent, Qt::Window), m_app(app), m_layout(new QVBoxLayout(this))
{
    setWindowTitle(QStringLiteral("Ferrovane"));
    m_layout->setContentsMargins(0, 0, 0, 0);
    m_layout->setSpacing(0);
    m_settingsViewWidget = new SettingsViewWidget(app, this);
    m_layout->addWidget(m_settingsViewWidget);

    connect(app, &AppDelegate::loginViewChanged, this, &MainWindowWidget::showLoginView);
    connect(app, &AppDelegate::defaultButtonChanged, this, &MainWindowWidget::showDefaultButton);
    connect(app->settingView(), &ViewControl::changed, this, &MainWindowWidget::fitToContents);
    showLoginView(app->loginView());
}

MainWindowWidget::~MainWindowWidget() = default;

CDLoginViewWidget *MainWindowWidget::loginViewWidget() const
{
    return m_loginViewWidget;
}

SettingsViewWidget *MainWindowWidget::settingsViewWidget() const
{
    return m_settingsViewWidget;
}

void MainWindowWidget::bringToFront()
{
    show();
    setWindowState(windowState() & ~Qt::WindowMinimized);
    raise();
    activateWindow();
}

void MainWindowWidget::showLoginView(CDLoginView *view)
{
    if (m_loginViewWidget) {
        // Its view is going (or gone): the widget goes with it.
        m_loginViewWidget->hide();
        m_loginViewWidget->deleteLater();
        m_loginViewWidget = nullptr;
    }
    if (view) {
        m_loginViewWidget = new CDLoginViewWidget(view, this);
        m_layout->insertWidget(0, m_loginViewWidget);
        if (m_app)
            showDefaultButton(m_app->defaultButton());
    }
    fitToContents();
}

void MainWindowWidget::showDefaultButton(ViewControl *button)
{
    if (!m_app || !button)
        return;
    if (m_loginViewWidget && m_app->loginView() && button == m_app->loginView()->loginButton())
        m_loginViewWidget->loginButton()->setDefault(true);
    else if (button == m_app->saveButton())
        m_settingsViewWidget->saveButton()->setDefault(true);
}

void MainWindowWidget::fitToContents()
{
    // After the layout has taken the new view in.
    QTimer::singleShot(0, this, [this] {
        layout()->activate();
        resize(sizeHint().expandedTo(minimumSizeHint()));
    });
}

void MainWindowWidget::changeEvent(QEvent *event)
{
    QWidget::changeEvent(event);
    if (event->type() == QEvent::ActivationChange && isActiveWindow() && m_app)
        m_app->windowDidBecomeMain();
}

void MainWindowWidget::closeEvent(QCloseEvent *event)
{
    QWidget::closeEvent(event);
    emit closed();
}
