// DatabaseUtils: server time, the SERVERTIME and INFO commands, change detection, and the command
// transport under them.
#include "RestLibrary/RestClient.h"
#include "catalogue/CataloguePaths.h"
#include "catalogue/CommandReplies.h"
#include "catalogue/CommandTransport.h"
#include "catalogue/DatabaseUtils.h"
#include "protocol/UploadFile.h"
#include "util/AppServices.h"
#include "util/Log.h"
#include "util/Pace.h"
#include "xml/GDataXMLNode.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QThread>

namespace {

const QString kTimeFormat = QStringLiteral("yyyyMMddHHmmss");
const QString kEndpoint = QStringLiteral("cgi-bin/cloudXml.cgi");

// The leading integer of a text: blanks skipped, an optional sign, digits up to the first other
// character; 0 when there are none.
qint64 leadingInteger(const QString &text)
{
    qsizetype i = 0;
    while (i < text.size() && text[i].isSpace())
        ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == u'+' || text[i] == u'-'))
        negative = text[i++] == u'-';
    qint64 value = 0;
    for (; i < text.size() && text[i] >= u'0' && text[i] <= u'9' && value < 100000000; ++i)
        value = value * 10 + (text[i].unicode() - u'0');
    return negative ? -value : value;
}

QString written(const QDateTime &date, const QTimeZone &zone)
{
    return date.isValid() ? date.toTimeZone(zone).toString(kTimeFormat) : QString();
}

// Reads "yyyyMMddHHmmss" as a time in `zone`; invalid unless it is exactly that.
QDateTime parsed(const QString &text, const QTimeZone &zone)
{
    if (text.size() != 14)
        return {};
    for (const QChar c : text) {
        if (!c.isDigit() || c.unicode() > 127)
            return {};
    }
    const QDate date(text.left(4).toInt(), text.mid(4, 2).toInt(), text.mid(6, 2).toInt());
    const QTime time(text.mid(8, 2).toInt(), text.mid(10, 2).toInt(), text.mid(12, 2).toInt());
    if (!date.isValid() || !time.isValid())
        return {};
    return QDateTime(date, time, zone);
}

QString describe(const QDateTime &date)
{
    return date.isValid() ? date.toString(Qt::ISODate) : QStringLiteral("(null)");
}

} // namespace

QByteArray RestClientTransport::post(const QString &url, const QString &body)
{
    RestClient client;
    client.setHost(url);
    return client.postNonAsyncRawWithURL(QString(), body);
}

void DatabaseUtils::setTransport(const std::shared_ptr<CommandTransport> &transport)
{
    std::lock_guard lock(m_transportLock);
    m_transport = transport;
}

QByteArray DatabaseUtils::postToServer(const QString &url, const QString &body)
{
    std::shared_ptr<CommandTransport> transport;
    {
        std::lock_guard lock(m_transportLock);
        if (!m_transport)
            m_transport = std::make_shared<RestClientTransport>();
        transport = m_transport;
    }
    return transport->post(url, body);
}

DatabaseUtils::CommandReply DatabaseUtils::sentRequestWithBody(const QString &body)
{
    AppServices *services = AppServices::shared();
    const QString domain =
        services ? services->getConfigValueByKey(QStringLiteral("kKeyDomain")).toString() : QString();
    RestClient hostRule;
    hostRule.setHost(domain);
    CommandReply reply;
    const QByteArray data = postToServer(hostRule.buildURL(kEndpoint), body);
    if (data.isEmpty())
        return reply;
    FvError error;
    reply.document = GDataXMLDocument::initWithData(data, 0, &error);
    if (!reply.document) {
        reply.unreadable = true;
        FV_LOG(QStringLiteral("Error read xml: %1").arg(QString::fromUtf8(data.left(200))));
    }
    return reply;
}

QString DatabaseUtils::timeZoneText()
{
    // The account record of the executor's context, read on the thread that owns a context.
    ContextPtr context = m_managedObjectContext;
    if (!context || context->thread() != QThread::currentThread())
        context = ownContext();
    const InfomationPtr info = getInfomationWithManagedObjectContext(context);
    return info ? info->timezone() : QString();
}

void DatabaseUtils::createDateFormat()
{
    std::lock_guard lock(m_timeLock);
    if (m_sTimezone.isEmpty() && !m_serverTimeZone) {
        const QString zone = timeZoneText();
        if (!zone.isEmpty())
            m_sTimezone = zone;
    }
    if (m_dateFormat.isEmpty())
        m_dateFormat = kTimeFormat;
    if (m_localDateFormat.isEmpty())
        m_localDateFormat = kTimeFormat;
    if (!m_serverTimeZone) {
        const qint64 n = leadingInteger(m_sTimezone);
        // Truncation toward zero: -0530 is -5 hours and -30 minutes.
        const qint64 offset = (n / 100) * 3600 + (n % 100) * 60;
        QTimeZone zone{int(offset)};
        if (!zone.isValid()) {
            FV_LOG(QStringLiteral("Unusable server time zone \"%1\"; using GMT").arg(m_sTimezone));
            zone = QTimeZone(0);
        }
        m_serverTimeZone = zone;
    }
    if (!m_localTimeZone)
        m_localTimeZone = QTimeZone::systemTimeZone();
}

QString DatabaseUtils::localTimeToServerTime(const QDateTime &date)
{
    createDateFormat();
    std::lock_guard lock(m_timeLock);
    return written(date, *m_serverTimeZone);
}

QString DatabaseUtils::localTimeFromDate(const QDateTime &date)
{
    return serverTimeToLocalTimeStr(localTimeToServerTime(date));
}

DatabaseUtils::TimeMemo &DatabaseUtils::convertedTime(const QString &serverTime)
{
    if (!m_timeMemo || m_timeMemo->serverTime != serverTime || m_timeMemo->serverZone != *m_serverTimeZone ||
        m_timeMemo->localZone != *m_localTimeZone) {
        m_timeMemo = TimeMemo{serverTime, *m_serverTimeZone, *m_localTimeZone,
                              written(parsed(serverTime, *m_serverTimeZone), *m_localTimeZone), std::nullopt};
    }
    return *m_timeMemo;
}

QString DatabaseUtils::serverTimeToLocalTimeStr(const QString &serverTime)
{
    createDateFormat();
    std::lock_guard lock(m_timeLock);
    return convertedTime(serverTime).localText;
}

QDateTime DatabaseUtils::serverTimeToLocalTime(const QString &serverTime)
{
    createDateFormat();
    std::lock_guard lock(m_timeLock);
    TimeMemo &converted = convertedTime(serverTime);
    // Read back in the local zone: only whole seconds survive the round trip.
    if (!converted.localDate)
        converted.localDate = parsed(converted.localText, *m_localTimeZone);
    return *converted.localDate;
}

QString DatabaseUtils::serverTimeOfFileAtPath(const QString &path)
{
    const QDateTime date = CataloguePaths::modificationDate(path);
    return date.isValid() ? localTimeToServerTime(date) : QString();
}

QDateTime DatabaseUtils::serverTimeNSDateOfFileAtPath(const QString &path)
{
    const QString server = serverTimeOfFileAtPath(path);
    createDateFormat();
    std::lock_guard lock(m_timeLock);
    return parsed(server, *m_serverTimeZone);
}

QString DatabaseUtils::getDateServerFromDate(const QDateTime &date)
{
    return date.isValid() ? date.toLocalTime().toString(kTimeFormat) : QString();
}

QString DatabaseUtils::getServerID()
{
    AppServices *services = AppServices::shared();
    const QString session =
        services ? services->getConfigValueByKey(QStringLiteral("kKeySESSTION")).toString() : QString();
    const CommandReply reply = sentRequestWithBody(
        QStringLiteral("<XML><SERVERTIME SESSION =\"%1\"></SERVERTIME></XML>").arg(session));
    if (!reply.document)
        return {};
    return CommandReplies::readServerTime(reply.document);
}

void DatabaseUtils::updateLastCheckWithCurrentTimeOfServer(const ContextPtr &context)
{
    if (!context)
        return;
    const QString now = getServerID();
    if (now.isEmpty())
        return;
    const InfomationPtr info = getInfomationWithManagedObjectContext(context);
    if (!info)
        return;
    info->setLastUpdate(now);
    FvError error;
    if (!context->save(&error))
        FV_LOG(QStringLiteral("Update last check error: %1").arg(error.toString()));
}

std::shared_ptr<GDataXMLDocument> DatabaseUtils::getInfoOfItemWithKey(const QString &key, FvError *error)
{
    AppServices *services = AppServices::shared();
    const QString session =
        services ? services->getConfigValueByKey(QStringLiteral("kKeySESSTION")).toString() : QString();
    const CommandReply reply = sentRequestWithBody(
        QStringLiteral("<XML><INFO SESSION=\"%1\"><KEY>%2</KEY></INFO></XML>").arg(session, key));
    if (reply.unreadable && error)
        *error = FvError(QStringLiteral("DatabaseUtils"), -1,
                         {{QStringLiteral("NSLocalizedDescription"), QStringLiteral("Error read xml")}});
    return reply.document;
}

std::optional<QStringList> DatabaseUtils::getInfomationOfItemWithKey(const QString &key, FvError *error)
{
    AppServices *services = AppServices::shared();
    const QString domain =
        services ? services->getConfigValueByKey(QStringLiteral("kKeyDomain")).toString() : QString();
    const QString session =
        services ? services->getConfigValueByKey(QStringLiteral("kKeySESSTION")).toString() : QString();
    QString url = domain + QStringLiteral("/") + kEndpoint;
    if (!url.contains(QLatin1String("https://")))
        url = QStringLiteral("https://") + url;
    const QString body =
        QStringLiteral("<XML><INFO SESSION=\"%1\"><KEY>%2</KEY></INFO></XML>").arg(session, key);

    QByteArray data;
    // No limit: only a reply, or the end of both the catalogue object and the calling thread, ends
    // the loop. A second between tries, so that a server out of reach does not keep a core busy.
    for (bool first = true; data.isEmpty(); first = false) {
        if (!first)
            Pace::sleep(1000);
        if (!isAlive() && QThread::currentThread()->isInterruptionRequested())
            return std::nullopt;
        data = postToServer(url, body);
    }
    FvError parseError;
    const auto document = GDataXMLDocument::initWithData(data, 0, &parseError);
    if (!document) {
        FV_LOG(QStringLiteral("Error read xml: %1").arg(QString::fromUtf8(data.left(200))));
        if (error)
            *error = FvError(QStringLiteral("DatabaseUtils"), -1,
                             {{QStringLiteral("NSLocalizedDescription"), QStringLiteral("Error read xml")}});
        return std::nullopt;
    }
    return CommandReplies::readInfo(document);
}

int DatabaseUtils::checkFileIsModifierWithPath(const QString &path, const QString &timeCompare,
                                               const QString &md5Compare)
{
    Q_UNUSED(md5Compare); // time alone decides
    const QDateTime fileDate = CataloguePaths::modificationDate(path);
    if (!fileDate.isValid() && !CataloguePaths::itemExists(path))
        return Missing;
    const QDateTime serverDate = serverTimeToLocalTime(timeCompare);
    FV_LOG(QStringLiteral("======= Server time: %1  File time: %2 ")
               .arg(describe(serverDate), describe(fileDate)));
    // An item without a readable date, or a row without a usable time, is never "unchanged".
    if (!fileDate.isValid() || !serverDate.isValid())
        return ChangedLocally;
    const qint64 fileMs = fileDate.toMSecsSinceEpoch();
    const qint64 fileSecs = fileMs >= 0 ? fileMs / 1000 : -((-fileMs + 999) / 1000);
    const qint64 serverSecs = serverDate.toSecsSinceEpoch();
    if (fileSecs == serverSecs)
        return Unchanged;
    return fileSecs > serverSecs ? ChangedLocally : OlderThanServer;
}

bool DatabaseUtils::fileDiffersFromRecord(const QString &path, const QString &md5, const QString &size)
{
    bool sizeOk = false;
    const qint64 recorded = size.toLongLong(&sizeOk);
    if (sizeOk && recorded >= 0 && QFileInfo(path).size() != recorded)
        return true;
    return md5.isEmpty() || UploadFile::getMD5OfFileAtPath(path) != md5;
}

bool DatabaseUtils::serverCopyReplacesSameSecond(const QString &path, const FilePtr &row,
                                                 const QString &serverMd5)
{
    return row && !serverMd5.isEmpty() && !row->md5().isEmpty() && serverMd5 != row->md5() &&
           !fileDiffersFromRecord(path, row->md5(), row->size());
}

QList<DirectoryPtr> DatabaseUtils::getAllDirectoryChangedWithManagedObjectContext(const ContextPtr &context)
{
    QList<DirectoryPtr> changed;
    for (const DirectoryPtr &row : getAllDirectoryWithManagedObjectContext(context)) {
        const QString path = row->path();
        const QDateTime date = CataloguePaths::modificationDate(path);
        if (date.isValid()) {
            const QString local = localTimeToServerTime(date);
            FV_LOG(QStringLiteral("======= Server time: %1  Directory time: %2 ").arg(row->time(), local));
            if (local != row->time()) {
                const bool listed = std::any_of(changed.cbegin(), changed.cend(), [&](const DirectoryPtr &d) {
                    return d->key() == row->key();
                });
                if (!listed)
                    changed.append(row);
            }
        } else {
            FV_LOG(QStringLiteral("Dir was remove: %1").arg(path));
            addTaskWithDictionary({{QStringLiteral("kKeyTaskType"), 2},
                                   {QStringLiteral("kKeyTaskFolder"), true},
                                   {QStringLiteral("kKeyTaskPath"), path},
                                   {QStringLiteral("kKeyTaskName"), CataloguePaths::lastPathComponent(path)},
                                   {QStringLiteral("kKeyTaskTime"), QDateTime::currentDateTime()}},
                                  context);
        }
    }
    return changed;
}
