#include "ui/LogWindowWidget.h"

#include "app/LogWindowController.h"
#include "ui/ControlBinding.h"
#include "ui/LogTableView.h"
#include "ui_LogWindowController.h"

LogWindowWidget::LogWindowWidget(LogWindowController *controller, QWidget *parent)
    : QWidget(parent, Qt::Window), m_ui(std::make_unique<Ui::LogWindowController>()), m_controller(controller)
{
    m_ui->setupUi(this);
    QFont caption = m_ui->fromServerLabel->font();
    caption.setBold(true);
    m_ui->fromServerLabel->setFont(caption);
    m_ui->fromSyncLabel->setFont(caption);

    m_ui->serverTableView->setModel(controller->serverTableViewDataSource());
    controller->serverTableViewDataSource()->setTableView(m_ui->serverTableView);
    m_ui->localTableView->setModel(controller->localTableViewDataSource());
    controller->localTableViewDataSource()->setTableView(m_ui->localTableView);

    using namespace ControlBinding;
    label(controller->fromServerLabel(), m_ui->fromServerLabel);
    label(controller->fromSyncLabel(), m_ui->fromSyncLabel);
    textView(controller->logTextView(), m_ui->logTextView);
    button(controller->clearButton(), m_ui->clearButton, [this] {
        if (m_controller)
            m_controller->clear_press();
    });
    ControlBinding::window(controller->window(), this);
}

LogWindowWidget::~LogWindowWidget()
{
    if (m_controller) {
        m_controller->serverTableViewDataSource()->setTableView(nullptr);
        m_controller->localTableViewDataSource()->setTableView(nullptr);
    }
}

LogTableView *LogWindowWidget::serverTableView() const
{
    return m_ui->serverTableView;
}

LogTableView *LogWindowWidget::localTableView() const
{
    return m_ui->localTableView;
}
