#pragma once
// A button drawn from an image pair (the normal and the pressed face, ":/images/<name>.png" with
// its "@2x" variant) with its caption in a given colour over it: the on/off and notification
// toggles. The face keeps its rounded ends and stretches in the middle to fit a longer caption.
// Main thread.

#include <QAbstractButton>
#include <QColor>
#include <QIcon>

class ImageButton final : public QAbstractButton
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ImageButton)
public:
    explicit ImageButton(QWidget *parent = nullptr);

    // The face's image names (without ".png") and the caption's colour name ("white", "black").
    void setLook(const QString &image, const QString &pressedImage, const QString &textColor);

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    static QIcon face(const QString &name);

    QIcon m_image;
    QIcon m_pressedImage;
    QColor m_textColor;
};
