#include "EngineTestSupport.h"

#include "catalogue/DatabaseUtils.h"
#include "util/Log.h"
#include "util/NotificationCenter.h"

#include <QDir>
#include <QTimeZone>

// --- EngineServices ---

EngineServices::EngineServices(std::shared_ptr<PersistentStoreCoordinator> coordinator)
    : m_coordinator(std::move(coordinator))
{
    m_main = ManagedObjectContext::create(m_coordinator);
}

QVariant EngineServices::getConfigValueByKey(const QString &key) const
{
    QMutexLocker lock(&m_lock);
    return m_config.value(key);
}

void EngineServices::setConfigValue(const QVariant &value, const QString &key)
{
    QMutexLocker lock(&m_lock);
    if (value.isNull())
        m_config.remove(key);
    else
        m_config.insert(key, value);
}

std::shared_ptr<ManagedObjectContext> EngineServices::getManagedObjectContextByThread()
{
    return ManagedObjectContext::create(m_coordinator);
}

void EngineServices::saveData()
{
    if (m_main)
        m_main->save();
}

void EngineServices::postNotificationWithTitle(const QString &, const QString &) {}

// --- EngineLog ---

namespace {

QMutex g_logLock;
QStringList g_activity;
QStringList g_diagnostics;

void collectDiagnostic(const QString &line)
{
    QMutexLocker lock(&g_logLock);
    g_diagnostics.append(line);
}

} // namespace

EngineLog::EngineLog() : m_receiver(std::make_unique<QObject>())
{
    clear();
    Log::setSink(collectDiagnostic);
    QObject::connect(
        NotificationCenter::defaultCenter(), &NotificationCenter::posted, m_receiver.get(),
        [](const QString &name, const QVariant &object, const QVariantMap &info) {
            if (name != u"kKeyLogNotification")
                return;
            QString text;
            if (object.metaType().id() == QMetaType::QString)
                text = object.toString();
            else if (info.value(QStringLiteral("log")).metaType().id() == QMetaType::QString)
                text = info.value(QStringLiteral("log")).toString();
            if (text.isEmpty())
                return;
            QMutexLocker lock(&g_logLock);
            g_activity.append(text);
        },
        Qt::DirectConnection);
}

EngineLog::~EngineLog()
{
    Log::setSink(nullptr);
}

QStringList EngineLog::activity() const
{
    QMutexLocker lock(&g_logLock);
    return g_activity;
}

QStringList EngineLog::diagnostics(const QString &text) const
{
    QMutexLocker lock(&g_logLock);
    QStringList found;
    for (const QString &line : std::as_const(g_diagnostics)) {
        if (line.contains(text))
            found.append(line);
    }
    return found;
}

void EngineLog::clear()
{
    QMutexLocker lock(&g_logLock);
    g_activity.clear();
    g_diagnostics.clear();
}

// --- EngineFixture ---

void EngineFixture::SetUp()
{
    ASSERT_TRUE(storeDir.isValid() && syncDir.isValid());
    FvError error;
    coordinator = PersistentStoreCoordinator::create(
        storeDir.filePath(QStringLiteral("Tarnwick_bob.storedata")), &error);
    ASSERT_TRUE(coordinator) << qPrintable(error.toString());
    services = std::make_unique<EngineServices>(coordinator);
    AppServices::setShared(services.get());
    root = QDir(syncDir.path()).canonicalPath() + QStringLiteral("/CloudFolder");
    harness = std::make_unique<ServerHarness>();
    ASSERT_TRUE(harness->ok());
    services->setConfigValue(ServerHarness::user(), QStringLiteral("kKeyUseID"));
    services->setConfigValue(QStringLiteral("desk"), QStringLiteral("kKeyPCName"));
    services->setConfigValue(root, QStringLiteral("kKeyPath"));
    services->setConfigValue(srv().domain(), QStringLiteral("kKeyDomain"));
    services->setConfigValue(harness->session, QStringLiteral("kKeySESSTION"));
    // As after a first sign-in: the account record knows its folder and zone, nothing else.
    const auto context = services->managedObjectContext();
    const InfomationPtr info = context->insertNewObject<Infomation>();
    info->setAccount(ServerHarness::user());
    info->setPath(root);
    info->setTimezone(harness->timezone);
    info->setSession(harness->session);
    ASSERT_TRUE(context->save());
}

void EngineFixture::TearDown()
{
    stop();
    DatabaseUtils::destroy();
    AppServices::setShared(nullptr);
    harness.reset();
}

void EngineFixture::start()
{
    engine = std::make_unique<ProcessWindowController>(services.get());
    QObject::connect(engine.get(), &ProcessWindowController::passCompleted, engine.get(),
                     [this] { ++passes; });
    QObject::connect(engine.get(), &ProcessWindowController::stateChanged, engine.get(),
                     [this](ProcessWindowController::State state) { states.append(state); });
}

void EngineFixture::stop()
{
    if (!engine)
        return;
    engine->disconnect();
    engine.reset();
}

bool EngineFixture::waitForPasses(int count, int timeoutMs)
{
    return TestUtil::waitFor([&] { return passes.load() >= m_passMark + count; }, timeoutMs);
}

bool EngineFixture::waitQuiet(int timeoutMs)
{
    return TestUtil::waitFor([&] { return passes.load() > 0 && engine && engine->isQuiet(); }, timeoutMs);
}

bool EngineFixture::waitInStep(int timeoutMs)
{
    return TestUtil::waitFor(
        [&] {
            if (!engine || !engine->isQuiet() || passes.load() == 0)
                return false;
            const Tree onServer = server(true);
            Tree plain = onServer;
            for (TreeItem &item : plain)
                item.key.clear();
            return plain == local() && onServer == catalogue(true);
        },
        timeoutMs);
}

void EngineFixture::expectInStep()
{
    EXPECT_EQ(local(), server());
    EXPECT_EQ(catalogue(true), server(true));
}

Tree EngineFixture::server(bool keys)
{
    return serverTree(srv(), user(), keys);
}

Tree EngineFixture::local()
{
    return localTree(root);
}

Tree EngineFixture::catalogue(bool keys)
{
    return catalogueTree(*services->managedObjectContext(), root, keys);
}

QDateTime EngineFixture::serverDate(const QString &time) const
{
    const int sign = harness->timezone.startsWith(u'-') ? -1 : 1;
    const int digits = harness->timezone.mid(1).toInt();
    const QTimeZone zone(sign * ((digits / 100) * 3600 + (digits % 100) * 60));
    return QDateTime(QDate::fromString(time.left(8), QStringLiteral("yyyyMMdd")),
                     QTime::fromString(time.mid(8), QStringLiteral("HHmmss")), zone);
}

InfomationPtr EngineFixture::account()
{
    return services->managedObjectContext()->fetchFirst<Infomation>(
        Predicate::equalTo(QStringLiteral("account"), ServerHarness::user()));
}
