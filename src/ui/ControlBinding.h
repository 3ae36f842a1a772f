#pragma once
// Ties a widget to the ViewControl that holds its state: the widget shows the control's text,
// enabled, hidden, checked, level and animation at once and whenever they change, and forwards
// the user's edits and clicks. The binding lives as long as the widget (it is the context of every
// connection). Main thread.

#include <functional>

class BusyIndicator;
class ImageButton;
class QAction;
class QAbstractButton;
class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QProgressBar;
class QWidget;
class ViewControl;

namespace ControlBinding {

// Text and visibility; enabled greys the label.
void label(ViewControl *control, QLabel *label);
// Two ways: typing sets the control's text; the control's text, enabled, hidden and focus
// requests reach the field.
void lineEdit(ViewControl *control, QLineEdit *edit);
// Read-only text view: hidden while it holds no text.
void textView(ViewControl *control, QPlainTextEdit *view);
// Caption, enabled, hidden; a checkable button also follows and sets the checked state.
// `clicked` (may be empty) runs on every click.
void button(ViewControl *control, QAbstractButton *button, std::function<void()> clicked = {});
// An image button: caption, enabled, hidden and the look (face images and caption colour).
void imageButton(ViewControl *control, ImageButton *button, std::function<void()> clicked = {});
// A menu item: its title, visibility, and enabled while the item has its action. A checkable item
// follows the checked state. `triggered` (may be empty) runs when it is chosen.
void action(ViewControl *control, QAction *action, std::function<void()> triggered = {});
// The control's level (0 to `maximum`) on a bar, clamped; a level that is no number shows as 0.
void level(ViewControl *control, QProgressBar *bar, double maximum);
// Spins while the control animates; hidden with it.
void busy(ViewControl *control, BusyIndicator *indicator);
// A container: enabled and hidden.
void container(ViewControl *control, QWidget *widget);
// A top-level window: the text is its title, hidden is its visibility, a focus request raises
// and activates it. Closing the window hides the control.
void window(ViewControl *control, QWidget *window);

} // namespace ControlBinding
