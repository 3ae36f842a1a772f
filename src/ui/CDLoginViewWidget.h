#pragma once
// The sign-in view as the user sees it: domain, user id and password fields, the remember check
// box, the failure text, the progress indicator and the default button, all following the
// CDLoginView logic; Return in any field or the button signs in. Does not own the logic.
// Main thread.

#include <QPointer>
#include <QWidget>
#include <memory>

class CDLoginView;
class QPushButton;
namespace Ui {
class CDLoginView;
}

class CDLoginViewWidget final : public QWidget
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CDLoginViewWidget)
public:
    explicit CDLoginViewWidget(CDLoginView *view, QWidget *parent = nullptr);
    ~CDLoginViewWidget() override;

    CDLoginView *view() const;
    QPushButton *loginButton() const;

protected:
    void changeEvent(QEvent *event) override;

private:
    void styleFailText();

    std::unique_ptr<Ui::CDLoginView> m_ui;
    QPointer<CDLoginView> m_view;
};
