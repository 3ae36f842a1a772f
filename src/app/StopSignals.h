#pragma once

#include <QObject>

class QSocketNotifier;

// SIGINT and SIGTERM turned into a queued Qt signal on the thread that made this object, so that a
// client can stop cleanly (engine disconnected, daemon told) instead of dying in the handler. One
// at a time per process; the default handling comes back when it is destroyed.
class StopSignals final : public QObject
{
    Q_OBJECT

public:
    explicit StopSignals(QObject *parent = nullptr);
    ~StopSignals() override;

    // The name of a signal number that can arrive here ("SIGINT" or "SIGTERM").
    static QString name(int signal);

signals:
    void stopRequested(int signal);

private:
    QSocketNotifier *m_notifier = nullptr;
};
