#include "app/ViewControl.h"

#include <QThread>
#include <cmath>

ViewControl::ViewControl(QObject *parent) : QObject(parent) {}

template <class F> void ViewControl::apply(F change)
{
    if (QThread::currentThread() == thread()) {
        if (change())
            emit changed();
        return;
    }
    QMetaObject::invokeMethod(
        this,
        [this, change]() mutable {
            if (change())
                emit changed();
        },
        Qt::QueuedConnection);
}

void ViewControl::setStringValue(const QString &text)
{
    apply([this, text] { return std::exchange(m_stringValue, text) != text; });
}

void ViewControl::setEnabled(bool enabled)
{
    apply([this, enabled] { return std::exchange(m_enabled, enabled) != enabled; });
}

void ViewControl::setHidden(bool hidden)
{
    apply([this, hidden] { return std::exchange(m_hidden, hidden) != hidden; });
}

void ViewControl::setChecked(bool checked)
{
    apply([this, checked] { return std::exchange(m_checked, checked) != checked; });
}

void ViewControl::setDoubleValue(double value)
{
    apply([this, value] {
        const double old = std::exchange(m_doubleValue, value);
        return !(old == value || (std::isnan(old) && std::isnan(value)));
    });
}

void ViewControl::startAnimation()
{
    apply([this] { return !std::exchange(m_animating, true); });
}

void ViewControl::stopAnimation()
{
    apply([this] { return std::exchange(m_animating, false); });
}

void ViewControl::setLook(const QString &image, const QString &alternateImage, const QString &textColor)
{
    apply([this, image, alternateImage, textColor] {
        const bool same =
            m_imageName == image && m_alternateImageName == alternateImage && m_textColor == textColor;
        m_imageName = image;
        m_alternateImageName = alternateImage;
        m_textColor = textColor;
        return !same;
    });
}

void ViewControl::makeFirstResponder()
{
    if (QThread::currentThread() == thread())
        emit focusRequested();
    else
        QMetaObject::invokeMethod(this, &ViewControl::focusRequested, Qt::QueuedConnection);
}
