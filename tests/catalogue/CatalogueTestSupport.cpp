#include "CatalogueTestSupport.h"

#include "RestLibrary/RestClient.h"
#include "util/NotificationCenter.h"
#include "xml/GDataXMLNode.h"

#include <QCryptographicHash>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

// --- FakeServices ---

FakeServices::FakeServices(std::shared_ptr<PersistentStoreCoordinator> coordinator)
    : m_coordinator(std::move(coordinator))
{
    m_main = ManagedObjectContext::create(m_coordinator);
}

FakeServices::~FakeServices() = default;

QVariant FakeServices::getConfigValueByKey(const QString &key) const
{
    QMutexLocker lock(&m_lock);
    return m_config.value(key);
}

void FakeServices::setConfigValue(const QVariant &value, const QString &key)
{
    QMutexLocker lock(&m_lock);
    if (value.isNull())
        m_config.remove(key);
    else
        m_config.insert(key, value);
}

std::shared_ptr<ManagedObjectContext> FakeServices::managedObjectContext()
{
    return m_main;
}

std::shared_ptr<ManagedObjectContext> FakeServices::getManagedObjectContextByThread()
{
    QMutexLocker lock(&m_lock);
    auto &context = m_threadContexts[QThread::currentThread()];
    if (!context)
        context = ManagedObjectContext::create(m_coordinator);
    return context;
}

void FakeServices::releaseThreadContext()
{
    std::shared_ptr<ManagedObjectContext> context;
    {
        QMutexLocker lock(&m_lock);
        context = m_threadContexts.take(QThread::currentThread());
    }
}

void FakeServices::saveData()
{
    FvError error;
    if (m_main && !m_main->save(&error))
        ADD_FAILURE() << "main save failed: " << qPrintable(error.toString());
}

void FakeServices::postNotificationWithTitle(const QString &title, const QString &message)
{
    QMutexLocker lock(&m_lock);
    m_notifications.append(title + QStringLiteral(" | ") + message);
}

QStringList FakeServices::notifications() const
{
    QMutexLocker lock(&m_lock);
    return m_notifications;
}

// --- ActivityLog ---

ActivityLog::ActivityLog() : m_receiver(std::make_unique<QObject>())
{
    QObject::connect(
        NotificationCenter::defaultCenter(), &NotificationCenter::posted, m_receiver.get(),
        [this](const QString &name, const QVariant &object, const QVariantMap &info) {
            if (name != u"kKeyLogNotification")
                return;
            Entry entry;
            entry.fromServer = object.toBool();
            const QVariant log = info.value(QStringLiteral("log"));
            if (log.canConvert<LogObject>() && log.metaType() == QMetaType::fromType<LogObject>())
                entry.log = log.value<LogObject>();
            else
                entry.text = log.toString();
            QMutexLocker lock(&m_lock);
            m_entries.append(entry);
        },
        Qt::DirectConnection);
}

ActivityLog::~ActivityLog() = default;

QList<ActivityLog::Entry> ActivityLog::entries() const
{
    QMutexLocker lock(&m_lock);
    return m_entries;
}

QList<LogObject> ActivityLog::logObjects() const
{
    QList<LogObject> list;
    for (const Entry &entry : entries()) {
        if (entry.text.isEmpty())
            list.append(entry.log);
    }
    return list;
}

QStringList ActivityLog::texts() const
{
    QStringList list;
    for (const Entry &entry : entries()) {
        if (!entry.text.isEmpty())
            list.append(entry.text);
    }
    return list;
}

// --- ServerHarness ---

namespace {

std::shared_ptr<GDataXMLElement> commandElement(const std::shared_ptr<GDataXMLDocument> &doc,
                                                const QString &name)
{
    if (!doc || !doc->rootElement())
        return nullptr;
    const auto list = doc->rootElement()->elementsForName(name);
    return list.isEmpty() ? nullptr : list.first();
}

QString attributeOf(const std::shared_ptr<GDataXMLElement> &element, const QString &name)
{
    const auto node = element ? element->attributeForName(name) : nullptr;
    return node ? node->stringValue() : QString();
}

} // namespace

ServerHarness::ServerHarness()
{
    if (!m_server.ok()) {
        ADD_FAILURE() << "server: " << qPrintable(m_server.error());
        return;
    }
    m_server->addUser(user(), QStringLiteral("secret"));
    session = m_server.signIn(user(), QStringLiteral("secret"), QStringLiteral("desk"), &timezone);
    RestClient client;
    client.setHost(m_server->domain());
    const auto list =
        commandElement(client.postNonAsyncWithURL(
                           QStringLiteral("cgi-bin/cloudXml.cgi"),
                           QStringLiteral("<XML><SYNCLIST SESSION =\"%1\"></SYNCLIST></XML>").arg(session)),
                       QStringLiteral("SYNCLIST"));
    rootKey = attributeOf(list, QStringLiteral("KEY"));
    m_server->clearRequestLog();
    m_ok = !session.isEmpty() && session != u"-1" && !rootKey.isEmpty();
}

ServerHarness::~ServerHarness() = default;

// --- Trees ---

std::ostream &operator<<(std::ostream &out, const Tree &tree)
{
    out << "{";
    for (auto it = tree.cbegin(); it != tree.cend(); ++it)
        out << "\n  " << qPrintable(it.key()) << (it->folder ? "/" : "") << " " << qPrintable(it->md5) << " "
            << qPrintable(it->key);
    return out << "\n}";
}

Tree serverTree(FerrovaneServer &server, const QString &user, bool withKeys)
{
    Tree tree;
    for (const TreeEntry &entry : server.tree(user))
        tree.insert(entry.path, {entry.folder, entry.md5, withKeys ? entry.key : QString()});
    return tree;
}

Tree localTree(const QString &root)
{
    Tree tree;
    QDirIterator it(root, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const QString relative = path.mid(root.size() + 1);
        TreeItem item;
        item.folder = it.fileInfo().isDir();
        if (!item.folder) {
            QFile file(path);
            if (file.open(QIODevice::ReadOnly))
                item.md5 = QString::fromLatin1(
                    QCryptographicHash::hash(file.readAll(), QCryptographicHash::Md5).toHex());
        }
        tree.insert(relative, item);
    }
    return tree;
}

Tree catalogueTree(ManagedObjectContext &context, const QString &root, bool withKeys)
{
    Tree tree;
    for (const DirectoryPtr &row : context.fetch<Directory>())
        tree.insert(row->path().mid(root.size() + 1), {true, QString(), withKeys ? row->key() : QString()});
    for (const FilePtr &row : context.fetch<File>())
        tree.insert(row->path().mid(root.size() + 1), {false, row->md5(), withKeys ? row->key() : QString()});
    return tree;
}

// --- SyncWorker ---

SyncWorker::SyncWorker(FakeServices &services) : m_services(services)
{
    m_thread = new QThread;
    m_thread->setObjectName(QStringLiteral("Main thread"));
    m_receiver = new QObject;
    m_receiver->moveToThread(m_thread);
    QObject::connect(m_thread, &QThread::finished, m_receiver, &QObject::deleteLater);
    m_thread->start();
    run([this] { m_context = m_services.getManagedObjectContextByThread(); });
    auto db = DatabaseUtils::instance();
    db->setSyncThread(m_thread);
    db->setManagedObjectContext(m_context);
}

SyncWorker::~SyncWorker()
{
    if (auto db = DatabaseUtils::instance(); db->syncThread() == m_thread) {
        db->setSyncThread(nullptr);
        db->setManagedObjectContext(nullptr);
    }
    if (m_thread->isRunning()) {
        std::shared_ptr<ManagedObjectContext> context = std::move(m_context);
        run([this, &context] {
            context.reset();
            m_services.releaseThreadContext();
        });
        m_thread->requestInterruption();
        m_thread->quit();
        // The worker may block on the main thread (transfers): keep the loop turning.
        TestUtil::waitFor([this] { return m_thread->isFinished(); }, 30000);
        m_thread->wait(30000);
    } else {
        // A thread that ended on its own dropped nothing; its context goes here.
        m_context.reset();
    }
    delete m_thread;
}

bool SyncWorker::run(const std::function<void()> &job, int timeoutMs)
{
    auto done = std::make_shared<std::atomic<bool>>(false);
    if (!m_thread->isRunning())
        return false;
    QMetaObject::invokeMethod(
        m_receiver,
        [job, done] {
            job();
            *done = true;
        },
        Qt::QueuedConnection);
    return TestUtil::waitFor([done] { return done->load(); }, timeoutMs);
}

void SyncWorker::post(const std::function<void()> &job)
{
    QMetaObject::invokeMethod(m_receiver, job, Qt::QueuedConnection);
}

bool setMTime(const QString &path, const QDateTime &date)
{
    const qint64 ms = date.toMSecsSinceEpoch();
    struct timespec times[2];
    times[0].tv_sec = 0;
    times[0].tv_nsec = UTIME_OMIT;
    times[1].tv_sec = time_t(ms >= 0 ? ms / 1000 : -((-ms + 999) / 1000));
    times[1].tv_nsec = long((ms - qint64(times[1].tv_sec) * 1000) * 1000000);
    return ::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0) == 0;
}
