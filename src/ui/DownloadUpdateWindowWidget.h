#pragma once
// The update download window: what is happening, a progress bar, cancel and the install button
// (shown once the package is written), all following DownloadUpdateWindowController. Goes with its
// controller: deleted when the controller is. Main thread.

#include <QPointer>
#include <QWidget>
#include <memory>

class DownloadUpdateWindowController;
namespace Ui {
class DownloadUpdateWindowController;
}

class DownloadUpdateWindowWidget final : public QWidget
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(DownloadUpdateWindowWidget)
public:
    explicit DownloadUpdateWindowWidget(DownloadUpdateWindowController *controller,
                                        QWidget *parent = nullptr);
    ~DownloadUpdateWindowWidget() override;

private:
    std::unique_ptr<Ui::DownloadUpdateWindowController> m_ui;
    QPointer<DownloadUpdateWindowController> m_controller;
};
