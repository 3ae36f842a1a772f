#include "ui/AccountViewWidget.h"

#include "app/AccountView.h"
#include "ui/ControlBinding.h"
#include "ui_AccountView.h"

namespace {
// The quota level runs from 0 to 10.
constexpr double kLevelMaximum = 10.0;
} // namespace

AccountViewWidget::AccountViewWidget(AccountView *view, QWidget *parent)
    : QWidget(parent), m_ui(std::make_unique<Ui::AccountView>()), m_view(view)
{
    m_ui->setupUi(this);
    QFont bold = m_ui->accountTextField->font();
    bold.setBold(true);
    m_ui->accountTextField->setFont(bold);
    using namespace ControlBinding;
    label(view->accountTextField(), m_ui->accountTextField);
    label(view->quotaTextField(), m_ui->quotaTextField);
    label(view->quotaLabel(), m_ui->quotaLabel);
    level(view->progressIndicator(), m_ui->progressIndicator, kLevelMaximum);
    busy(view->loadingProgressIndicator(), m_ui->loadingProgressIndicator);
}

AccountViewWidget::~AccountViewWidget() = default;

void AccountViewWidget::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    if (m_view)
        m_view->viewDidMoveToWindow();
}

AccountView *AccountViewWidget::view() const
{
    return m_view;
}
