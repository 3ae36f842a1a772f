#include "util/NotificationCenter.h"

NotificationCenter *NotificationCenter::defaultCenter()
{
    // Never destroyed: posts may arrive from worker threads during shutdown.
    static NotificationCenter *center = new NotificationCenter;
    return center;
}

void NotificationCenter::postNotificationName(const QString &name, const QVariant &object,
                                              const QVariantMap &userInfo)
{
    emit posted(name, object, userInfo);
}
