#include "catalogue/DatabaseUtils.h"

#include "util/AppServices.h"

#include <QTimer>
#include <mutex>

namespace {
std::mutex g_instanceLock;
std::shared_ptr<DatabaseUtils> g_instance;
} // namespace

DatabaseUtils::DatabaseUtils() = default;

std::shared_ptr<DatabaseUtils> DatabaseUtils::instance()
{
    std::lock_guard lock(g_instanceLock);
    if (!g_instance) {
        g_instance.reset(new DatabaseUtils);
        g_instance->m_appDelegate = AppServices::shared();
        if (g_instance->m_appDelegate)
            g_instance->m_macName =
                g_instance->m_appDelegate->getConfigValueByKey(QStringLiteral("kKeyPCName")).toString();
        g_instance->m_alive = true;
    }
    return g_instance;
}

void DatabaseUtils::destroy()
{
    std::shared_ptr<DatabaseUtils> released;
    {
        std::lock_guard lock(g_instanceLock);
        released.swap(g_instance);
    }
    if (released)
        released->m_alive = false;
    // `released` goes here unless a worker still holds the object; it then goes when the worker returns.
}

DatabaseUtils::~DatabaseUtils()
{
    m_alive = false;
    setTimer(nullptr);
    m_syncThread = nullptr;
}

void DatabaseUtils::setTimer(QTimer *timer)
{
    if (m_timer == timer)
        return;
    if (m_timer) {
        // The timer belongs to the thread it runs on: stop and delete it there.
        QTimer *old = m_timer;
        QMetaObject::invokeMethod(old, &QTimer::stop, Qt::QueuedConnection);
        old->deleteLater();
    }
    m_timer = timer;
}
