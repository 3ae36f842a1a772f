// DatabaseUtils: the account record.
#include "catalogue/DatabaseUtils.h"
#include "util/AppServices.h"
#include "util/Log.h"
#include "util/NotificationCenter.h"

#include <QCoreApplication>
#include <QThread>

InfomationPtr DatabaseUtils::getInfomation()
{
    AppServices *services = AppServices::shared();
    return services ? getInfomationWithManagedObjectContext(services->managedObjectContext()) : nullptr;
}

InfomationPtr
DatabaseUtils::getInfomationWithManagedObjectContext(const std::shared_ptr<ManagedObjectContext> &context)
{
    AppServices *services = AppServices::shared();
    if (!context || !services)
        return nullptr;
    const QVariant account = services->getConfigValueByKey(QStringLiteral("kKeyUseID"));
    return context->fetchFirst<Infomation>(Predicate::equalTo(QStringLiteral("account"), account));
}

void DatabaseUtils::updateInfomation(const QVariant &ignored)
{
    Q_UNUSED(ignored);
    AppServices *services = AppServices::shared();
    const std::shared_ptr<ManagedObjectContext> context =
        services ? services->managedObjectContext() : nullptr;
    if (!context)
        return;
    auto save = [context] {
        FvError error;
        if (!context->save(&error)) {
            const QString text = QStringLiteral("Cannot save infomation: %1").arg(error.toString());
            FV_LOG(text);
            postActivityText(text);
        }
    };
    // The main context lives on the main thread; wait there for the save.
    if (QThread::currentThread() == context->thread() || !QCoreApplication::instance())
        save();
    else
        QMetaObject::invokeMethod(QCoreApplication::instance(), save, Qt::BlockingQueuedConnection);
}

void DatabaseUtils::postActivityText(const QString &text)
{
    NotificationCenter::defaultCenter()->postNotificationName(QStringLiteral("kKeyLogNotification"), false,
                                                              {{QStringLiteral("log"), text}});
}
