#pragma once
// The state of one control of a view (a text field, label, button, check box, menu item, level or
// progress indicator): its text, enabled, hidden, checked, level, animation and, for image buttons,
// the look (image, pressed image, text colour). A widget (or the headless client) shows it and
// follows `changed`; `focusRequested` asks for the keyboard focus. For a menu item, enabled means
// the item has its action.
//
// Threading: lives on the main thread. Setters may be called from any thread: off the main
// thread they are queued to it. Read the state on the main thread.

#include <QObject>
#include <QString>

class ViewControl final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ViewControl)
public:
    explicit ViewControl(QObject *parent = nullptr);

    const QString &stringValue() const { return m_stringValue; }
    void setStringValue(const QString &text);
    bool isEnabled() const { return m_enabled; }
    void setEnabled(bool enabled);
    bool isHidden() const { return m_hidden; }
    void setHidden(bool hidden);
    bool isChecked() const { return m_checked; }
    void setChecked(bool checked);
    // Level indicators: the current value (not clamped: a widget clamps what it draws).
    double doubleValue() const { return m_doubleValue; }
    void setDoubleValue(double value);
    // Progress indicators.
    bool isAnimating() const { return m_animating; }
    void startAnimation();
    void stopAnimation();
    void makeFirstResponder();

    // Image buttons: the resource names of the image and the pressed image, and the title's colour
    // as a colour name ("white", "black"); empty when the control has no such look.
    const QString &imageName() const { return m_imageName; }
    const QString &alternateImageName() const { return m_alternateImageName; }
    const QString &textColor() const { return m_textColor; }
    void setLook(const QString &image, const QString &alternateImage, const QString &textColor);

signals:
    void changed();
    void focusRequested();

private:
    // Runs `change` here when on this object's thread, else queues it there.
    template <class F> void apply(F change);

    QString m_stringValue;
    bool m_enabled = true;
    bool m_hidden = false;
    bool m_checked = false;
    double m_doubleValue = 0;
    bool m_animating = false;
    QString m_imageName;
    QString m_alternateImageName;
    QString m_textColor;
};
