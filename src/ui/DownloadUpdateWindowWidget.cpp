#include "ui/DownloadUpdateWindowWidget.h"

#include "app/DownloadUpdateWindowController.h"
#include "ui/ControlBinding.h"
#include "ui_DownloadUpdateWindowController.h"

namespace {
constexpr double kLevelMaximum = 100.0;
} // namespace

DownloadUpdateWindowWidget::DownloadUpdateWindowWidget(DownloadUpdateWindowController *controller,
                                                       QWidget *parent)
    : QWidget(parent, Qt::Window), m_ui(std::make_unique<Ui::DownloadUpdateWindowController>()),
      m_controller(controller)
{
    m_ui->setupUi(this);
    using namespace ControlBinding;
    label(controller->downloadLabel(), m_ui->downloadLabel);
    level(controller->downloadLeveIndicator(), m_ui->downloadLeveIndicator, kLevelMaximum);
    m_ui->downloadLeveIndicator->setTextVisible(true);
    m_ui->downloadLeveIndicator->setFormat(QStringLiteral("%p%"));
    button(controller->cancelButton(), m_ui->cancelButton, [this] {
        if (m_controller)
            m_controller->cancel();
    });
    button(controller->installButton(), m_ui->installButton, [this] {
        if (m_controller)
            m_controller->update();
    });
    ControlBinding::window(controller->window(), this);
    connect(controller, &QObject::destroyed, this, [this] {
        hide();
        deleteLater();
    });
}

DownloadUpdateWindowWidget::~DownloadUpdateWindowWidget() = default;
