#pragma once
// In-process notifications by name (e.g. "kKeyLogNotification" with a LogObject under "log").
// post() may be called from any thread; observers connect to `posted` with a context object and get
// the call on their own thread (queued when the poster is another thread).

#include <QObject>
#include <QString>
#include <QVariant>
#include <QVariantMap>

class NotificationCenter final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(NotificationCenter)
public:
    static NotificationCenter *defaultCenter();

    void postNotificationName(const QString &name, const QVariant &object = {},
                              const QVariantMap &userInfo = {});

signals:
    void posted(const QString &name, const QVariant &object, const QVariantMap &userInfo);

private:
    NotificationCenter() = default;
};
