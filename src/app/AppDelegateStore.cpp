// AppDelegate: the catalogue's store stack (coordinator, main context, per-thread contexts).
#include "app/AppDelegate.h"
#include "util/Log.h"

#include <QFileInfo>
#include <QThread>

FvError AppDelegate::storeError() const
{
    return FvError(
        errorDomain(), 9999,
        {{QStringLiteral("NSLocalizedDescription"), QStringLiteral("Failed to initialize the store")},
         {QStringLiteral("NSLocalizedFailureReason"),
          QStringLiteral("There was an error building up the data file.")}});
}

std::shared_ptr<PersistentStoreCoordinator> AppDelegate::persistentStoreCoordinator()
{
    FvError failure;
    {
        QMutexLocker lock(&m_storeLock);
        if (m_persistentStoreCoordinator)
            return m_persistentStoreCoordinator;
        const QString folder = applicationFilesDirectory();
        const QFileInfo info(folder);
        if (info.exists() && !info.isDir()) {
            failure =
                FvError(errorDomain(), 101,
                        {{QStringLiteral("NSLocalizedDescription"),
                          QStringLiteral("Expected a folder to store application data, found a file (%1).")
                              .arg(folder)}});
        } else if (!info.exists() && !makePrivateFolder(folder)) {
            failure = FvError(errorDomain(), 102,
                              {{QStringLiteral("NSLocalizedDescription"),
                                QStringLiteral("Could not create the folder to store application data (%1).")
                                    .arg(folder)}});
        } else {
            // The user id becomes part of a file name: keep it inside the folder.
            QString user = getConfigValueByKey(QStringLiteral("kKeyUseID")).toString();
            user.replace(u'/', u'_').replace(QChar(0), u'_');
            const QString path = folder + QStringLiteral("/Tarnwick_") + user + QStringLiteral(".storedata");
            m_persistentStoreCoordinator = PersistentStoreCoordinator::create(path, &failure);
            if (m_persistentStoreCoordinator)
                return m_persistentStoreCoordinator;
        }
    }
    // Presented outside the lock: whoever shows it may come back for a context.
    presentError(failure);
    return nullptr;
}

void AppDelegate::closeStore()
{
    std::shared_ptr<ManagedObjectContext> context = std::exchange(m_managedObjectContext, nullptr);
    QMutexLocker lock(&m_storeLock);
    m_persistentStoreCoordinator.reset();
}

std::shared_ptr<ManagedObjectContext> AppDelegate::managedObjectContext()
{
    if (!m_isLogined)
        return nullptr;
    if (m_managedObjectContext)
        return m_managedObjectContext;
    if (QThread::currentThread() != thread())
        FV_LOG(QStringLiteral("The main context is being built off the main thread"));
    const std::shared_ptr<PersistentStoreCoordinator> coordinator = persistentStoreCoordinator();
    if (!coordinator) {
        presentError(storeError());
        return nullptr;
    }
    FvError failure;
    m_managedObjectContext = ManagedObjectContext::create(coordinator, &failure);
    if (!m_managedObjectContext)
        presentError(failure);
    return m_managedObjectContext;
}

std::shared_ptr<ManagedObjectContext> AppDelegate::getManagedObjectContextByThread()
{
    const std::shared_ptr<PersistentStoreCoordinator> coordinator = persistentStoreCoordinator();
    if (!coordinator) {
        presentError(storeError());
        return nullptr;
    }
    FvError failure;
    std::shared_ptr<ManagedObjectContext> context = ManagedObjectContext::create(coordinator, &failure);
    if (!context)
        presentError(failure);
    return context;
}

void AppDelegate::saveData()
{
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(this, &AppDelegate::saveData, Qt::BlockingQueuedConnection);
        return;
    }
    const std::shared_ptr<ManagedObjectContext> context = m_managedObjectContext;
    if (!context || !context->hasChanges())
        return;
    FvError failure;
    if (!context->save(&failure))
        presentError(failure);
}

void AppDelegate::deleteManagedObject(const ManagedObjectPtr &object)
{
    if (m_managedObjectContext)
        m_managedObjectContext->deleteObject(object);
}

void AppDelegate::presentError(const FvError &error)
{
    QString text = error.toString();
    const QString reason = error.userInfo.value(QStringLiteral("NSLocalizedFailureReason")).toString();
    if (!reason.isEmpty())
        text += QStringLiteral(" (") + reason + u')';
    FV_LOG(text);
    emit errorPresented(error);
}
