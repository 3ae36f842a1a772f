#include "ui/ImageButton.h"

#include <QPainter>
#include <QStyle>
#include <QStyleOptionFocusRect>

namespace {
// The face as drawn at 1x; its ends are half its height wide.
constexpr int kFaceWidth = 72;
constexpr int kFaceHeight = 26;
constexpr int kCaptionPadding = 14;
} // namespace

ImageButton::ImageButton(QWidget *parent) : QAbstractButton(parent), m_textColor(Qt::black)
{
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    setFocusPolicy(Qt::StrongFocus);
    QFont caption = font();
    caption.setBold(true);
    setFont(caption);
}

QIcon ImageButton::face(const QString &name)
{
    QIcon icon;
    if (name.isEmpty())
        return icon;
    icon.addFile(QStringLiteral(":/images/%1.png").arg(name));
    icon.addFile(QStringLiteral(":/images/%1@2x.png").arg(name));
    return icon;
}

void ImageButton::setLook(const QString &image, const QString &pressedImage, const QString &textColor)
{
    m_image = face(image);
    m_pressedImage = face(pressedImage);
    m_textColor = QColor::fromString(textColor.isEmpty() ? QStringLiteral("black") : textColor);
    update();
}

QSize ImageButton::sizeHint() const
{
    const int caption = fontMetrics().horizontalAdvance(text()) + 2 * kCaptionPadding;
    return {std::max(kFaceWidth, caption), kFaceHeight};
}

QSize ImageButton::minimumSizeHint() const
{
    return sizeHint();
}

void ImageButton::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    if (!isEnabled())
        painter.setOpacity(0.45);

    const QIcon &icon = isDown() && !m_pressedImage.isNull() ? m_pressedImage : m_image;
    const QRectF target = rect();
    if (!icon.isNull()) {
        const QPixmap pixmap = icon.pixmap(QSize(kFaceWidth, kFaceHeight), devicePixelRatioF());
        // Three slices: the rounded ends keep their shape, the middle stretches.
        const qreal scale = pixmap.height() / qreal(kFaceHeight);
        const qreal end = kFaceHeight / 2.0;
        const qreal sourceEnd = end * scale;
        const qreal sourceWidth = pixmap.width();
        const qreal sourceHeight = pixmap.height();
        const qreal middle = std::max<qreal>(0, target.width() - 2 * end);
        painter.drawPixmap(QRectF(0, 0, end, target.height()), pixmap, QRectF(0, 0, sourceEnd, sourceHeight));
        painter.drawPixmap(QRectF(end, 0, middle, target.height()), pixmap,
                           QRectF(sourceEnd, 0, sourceWidth - 2 * sourceEnd, sourceHeight));
        painter.drawPixmap(QRectF(end + middle, 0, end, target.height()), pixmap,
                           QRectF(sourceWidth - sourceEnd, 0, sourceEnd, sourceHeight));
    }

    painter.setPen(m_textColor);
    painter.setFont(font());
    painter.drawText(rect(), Qt::AlignCenter, text());

    if (hasFocus()) {
        // A ring round the face, in the desktop's highlight colour.
        painter.setOpacity(1);
        painter.setRenderHint(QPainter::Antialiasing);
        QPen ring(palette().color(QPalette::Highlight), 1.5);
        painter.setPen(ring);
        painter.setBrush(Qt::NoBrush);
        painter.drawRoundedRect(target.adjusted(1, 1, -1, -1), kFaceHeight / 2.0 - 1, kFaceHeight / 2.0 - 1);
    }
}
