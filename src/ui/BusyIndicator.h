#pragma once
// A small spinning indicator (twelve spokes fading round) for work in progress. Runs only while
// animating and visible; the frame rate follows the time scale. Main thread.

#include <QTimer>
#include <QWidget>

class BusyIndicator final : public QWidget
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(BusyIndicator)
public:
    explicit BusyIndicator(QWidget *parent = nullptr);

    bool isAnimating() const { return m_animating; }
    void startAnimation();
    void stopAnimation();

    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent *event) override;
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    void updateTimer();

    QTimer m_timer;
    int m_step = 0;
    bool m_animating = false;
};
