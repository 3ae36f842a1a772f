#pragma once
// The activity log window: the server's and this computer's tables (LogTableView) under their
// captions, and the clear button, all following LogWindowController. Hidden until the controller
// shows it; closing it only hides it. Does not own the controller. Main thread.

#include <QPointer>
#include <QWidget>
#include <memory>

class LogTableView;
class LogWindowController;
namespace Ui {
class LogWindowController;
}

class LogWindowWidget final : public QWidget
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(LogWindowWidget)
public:
    explicit LogWindowWidget(LogWindowController *controller, QWidget *parent = nullptr);
    ~LogWindowWidget() override;

    LogTableView *serverTableView() const;
    LogTableView *localTableView() const;

private:
    std::unique_ptr<Ui::LogWindowController> m_ui;
    QPointer<LogWindowController> m_controller;
};
