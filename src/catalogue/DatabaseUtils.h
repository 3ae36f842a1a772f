#pragma once
// The process-wide catalogue object: account record access, and (in further source files, one per
// concern) the catalogue operations, server-time conversion and the task executor.
//
// instance() creates it on first use (under a lock) and marks it alive; destroy() marks it not alive
// and drops the process's reference. Threads that run catalogue work keep their own reference
// (the shared_ptr returned by instance()) so the object outlives destroy() until they return; they
// check isAlive() before each unit of work.
//
// Threading: the main-context operations run on the main thread (they wait for it when called from
// elsewhere); the `...WithManagedObjectContext` forms run on the thread that owns the given context.

#include "catalogue/ManagedObjectContext.h"
#include "catalogue/Records.h"

#include <QString>
#include <QTimeZone>
#include <QVariant>
#include <atomic>
#include <memory>
#include <optional>

class AppServices;
class QThread;
class QTimer;

class DatabaseUtils final
{
public:
    static std::shared_ptr<DatabaseUtils> instance();
    static void destroy();
    ~DatabaseUtils();
    DatabaseUtils(const DatabaseUtils &) = delete;
    DatabaseUtils &operator=(const DatabaseUtils &) = delete;

    // The alive mark: true from creation until destroy().
    bool isAlive() const { return m_alive.load(); }

    // --- Account record ---
    // The Infomation row whose `account` equals the configured "kKeyUseID", from the main context;
    // null when there is none or no main context.
    InfomationPtr getInfomation();
    InfomationPtr getInfomationWithManagedObjectContext(const std::shared_ptr<ManagedObjectContext> &context);
    // Saves the main context; a failure goes to the activity log ("Cannot save infomation: %@").
    void updateInfomation(const QVariant &ignored = {});

    // Posts a plain text line to the activity log ("kKeyLogNotification", the text under "log",
    // object false: a local-side message). Entries proper are LogObjects, posted by their producers.
    static void postActivityText(const QString &text);

    // --- State kept between calls ---
    AppServices *appDelegate() const { return m_appDelegate; }
    QString macName() const { return m_macName; }
    void setMacName(const QString &name) { m_macName = name; }
    // The executor's timer (not owned by a Qt parent; deleted with deleteLater on release).
    QTimer *timer() const { return m_timer; }
    void setTimer(QTimer *timer);
    bool isDoTask() const { return m_isDoTask.load(); }
    void setIsDoTask(bool running) { m_isDoTask = running; }
    // The executor's context and thread (set by the sync controller when its worker starts).
    std::shared_ptr<ManagedObjectContext> managedObjectContext() const { return m_managedObjectContext; }
    void setManagedObjectContext(const std::shared_ptr<ManagedObjectContext> &context)
    {
        m_managedObjectContext = context;
    }
    QThread *syncThread() const { return m_syncThread; }
    void setSyncThread(QThread *thread) { m_syncThread = thread; }
    QString path() const { return m_path; }
    void setPath(const QString &path) { m_path = path; }

    // Server-time state, made lazily by the time conversions. Formats are date patterns
    // ("yyyyMMddHHmmss"); an empty pattern or an absent zone means not made yet.
    QString sTimezone() const { return m_sTimezone; }
    void setSTimezone(const QString &zone) { m_sTimezone = zone; }
    QString dateFormat() const { return m_dateFormat; }
    void setDateFormat(const QString &pattern) { m_dateFormat = pattern; }
    QString localDateFormat() const { return m_localDateFormat; }
    void setLocalDateFormat(const QString &pattern) { m_localDateFormat = pattern; }
    std::optional<QTimeZone> serverTimeZone() const { return m_serverTimeZone; }
    void setServerTimeZone(const std::optional<QTimeZone> &zone) { m_serverTimeZone = zone; }
    std::optional<QTimeZone> localTimeZone() const { return m_localTimeZone; }
    void setLocalTimeZone(const std::optional<QTimeZone> &zone) { m_localTimeZone = zone; }

private:
    DatabaseUtils();

    AppServices *m_appDelegate = nullptr;
    std::atomic<bool> m_alive{false};
    QString m_macName;
    QTimer *m_timer = nullptr;
    std::atomic<bool> m_isDoTask{false};
    std::shared_ptr<ManagedObjectContext> m_managedObjectContext;
    QThread *m_syncThread = nullptr;
    QString m_path;
    QString m_sTimezone;
    QString m_dateFormat;
    QString m_localDateFormat;
    std::optional<QTimeZone> m_serverTimeZone;
    std::optional<QTimeZone> m_localTimeZone;
};
