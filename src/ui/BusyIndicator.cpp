#include "ui/BusyIndicator.h"

#include "util/Pace.h"

#include <QPainter>

namespace {
constexpr int kSpokes = 12;
constexpr qint64 kFrameMs = 80;
} // namespace

BusyIndicator::BusyIndicator(QWidget *parent) : QWidget(parent)
{
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    m_timer.setInterval(Pace::ms(kFrameMs));
    connect(&m_timer, &QTimer::timeout, this, [this] {
        m_step = (m_step + 1) % kSpokes;
        update();
    });
}

void BusyIndicator::startAnimation()
{
    m_animating = true;
    updateTimer();
    update();
}

void BusyIndicator::stopAnimation()
{
    m_animating = false;
    updateTimer();
    update();
}

QSize BusyIndicator::sizeHint() const
{
    return {20, 20};
}

void BusyIndicator::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    updateTimer();
}

void BusyIndicator::hideEvent(QHideEvent *event)
{
    QWidget::hideEvent(event);
    updateTimer();
}

void BusyIndicator::updateTimer()
{
    if (m_animating && isVisible())
        m_timer.start();
    else
        m_timer.stop();
}

void BusyIndicator::paintEvent(QPaintEvent *)
{
    if (!m_animating)
        return;
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const qreal side = qMin(width(), height());
    painter.translate(width() / 2.0, height() / 2.0);
    painter.scale(side / 20.0, side / 20.0);
    QColor colour = palette().color(QPalette::WindowText);
    for (int i = 0; i < kSpokes; ++i) {
        // The spoke at the current step is darkest; the ones behind it fade out.
        const int age = (m_step - i + kSpokes) % kSpokes;
        colour.setAlphaF(1.0 - 0.8 * age / (kSpokes - 1));
        painter.setPen(QPen(colour, 2.0, Qt::SolidLine, Qt::RoundCap));
        painter.save();
        painter.rotate(i * 360.0 / kSpokes);
        painter.drawLine(QPointF(0, -5), QPointF(0, -8.5));
        painter.restore();
    }
}
