#include "ui/ControlBinding.h"

#include "app/ViewControl.h"
#include "ui/BusyIndicator.h"
#include "ui/ImageButton.h"

#include <QAbstractButton>
#include <QAction>
#include <QEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <cmath>

namespace {

// Applies `show` now and on every change of the control, for as long as `widget` lives.
template <class Show> void follow(ViewControl *control, QWidget *widget, Show show)
{
    show();
    QObject::connect(control, &ViewControl::changed, widget, show);
}

// Hides the control when the user closes its window.
class CloseWatcher final : public QObject
{
public:
    CloseWatcher(ViewControl *control, QWidget *window) : QObject(window), m_control(control)
    {
        window->installEventFilter(this);
    }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (event->type() == QEvent::Close && m_control)
            m_control->setHidden(true);
        return QObject::eventFilter(watched, event);
    }

private:
    QPointer<ViewControl> m_control;
};

} // namespace

namespace ControlBinding {

void label(ViewControl *control, QLabel *label)
{
    follow(control, label, [control, label] {
        label->setText(control->stringValue());
        label->setEnabled(control->isEnabled());
        label->setHidden(control->isHidden());
    });
}

void lineEdit(ViewControl *control, QLineEdit *edit)
{
    follow(control, edit, [control, edit] {
        // Only a different text is set, so typing keeps its cursor.
        if (edit->text() != control->stringValue())
            edit->setText(control->stringValue());
        edit->setEnabled(control->isEnabled());
        edit->setHidden(control->isHidden());
    });
    QObject::connect(edit, &QLineEdit::textEdited, control, &ViewControl::setStringValue);
    QObject::connect(control, &ViewControl::focusRequested, edit, [edit] {
        edit->setFocus(Qt::OtherFocusReason);
        edit->selectAll();
    });
}

void textView(ViewControl *control, QPlainTextEdit *view)
{
    view->setReadOnly(true);
    follow(control, view, [control, view] {
        if (view->toPlainText() != control->stringValue())
            view->setPlainText(control->stringValue());
        view->setHidden(control->isHidden() || control->stringValue().isEmpty());
    });
}

void button(ViewControl *control, QAbstractButton *button, std::function<void()> clicked)
{
    follow(control, button, [control, button] {
        button->setText(control->stringValue());
        button->setEnabled(control->isEnabled());
        button->setHidden(control->isHidden());
        if (button->isCheckable())
            button->setChecked(control->isChecked());
    });
    if (button->isCheckable())
        QObject::connect(button, &QAbstractButton::toggled, control, &ViewControl::setChecked);
    if (clicked)
        QObject::connect(button, &QAbstractButton::clicked, control,
                         [clicked = std::move(clicked)] { clicked(); });
}

void imageButton(ViewControl *control, ImageButton *button, std::function<void()> clicked)
{
    follow(control, button, [control, button] {
        button->setText(control->stringValue());
        button->setEnabled(control->isEnabled());
        button->setHidden(control->isHidden());
        button->setLook(control->imageName(), control->alternateImageName(), control->textColor());
        // A longer caption (another language) may need a wider face.
        button->updateGeometry();
    });
    if (clicked)
        QObject::connect(button, &QAbstractButton::clicked, control,
                         [clicked = std::move(clicked)] { clicked(); });
}

void action(ViewControl *control, QAction *action, std::function<void()> triggered)
{
    const auto show = [control, action] {
        action->setText(control->stringValue());
        action->setEnabled(control->isEnabled());
        action->setVisible(!control->isHidden());
        if (action->isCheckable())
            action->setChecked(control->isChecked());
    };
    show();
    QObject::connect(control, &ViewControl::changed, action, show);
    if (triggered)
        QObject::connect(action, &QAction::triggered, control,
                         [triggered = std::move(triggered)] { triggered(); });
}

void level(ViewControl *control, QProgressBar *bar, double maximum)
{
    constexpr int kSteps = 1000;
    bar->setRange(0, kSteps);
    bar->setTextVisible(false);
    follow(control, bar, [control, bar, maximum] {
        const double value = control->doubleValue();
        const double fraction =
            std::isfinite(value) && maximum > 0 ? std::clamp(value / maximum, 0.0, 1.0) : 0.0;
        bar->setValue(int(std::lround(fraction * kSteps)));
        bar->setHidden(control->isHidden());
    });
}

void busy(ViewControl *control, BusyIndicator *indicator)
{
    follow(control, indicator, [control, indicator] {
        if (control->isAnimating())
            indicator->startAnimation();
        else
            indicator->stopAnimation();
        indicator->setHidden(control->isHidden());
    });
}

void container(ViewControl *control, QWidget *widget)
{
    follow(control, widget, [control, widget] {
        widget->setEnabled(control->isEnabled());
        widget->setHidden(control->isHidden());
    });
}

void window(ViewControl *control, QWidget *window)
{
    follow(control, window, [control, window] {
        if (!control->stringValue().isEmpty())
            window->setWindowTitle(control->stringValue());
        window->setHidden(control->isHidden());
    });
    QObject::connect(control, &ViewControl::focusRequested, window, [window] {
        window->show();
        window->raise();
        window->activateWindow();
    });
    new CloseWatcher(control, window);
}

} // namespace ControlBinding
