#include "app/CheckUpdate.h"

#include "RestLibrary/NetworkAccess.h"
#include "app/LanguageUtil.h"
#include "util/Log.h"
#include "util/Pace.h"
#include "xml/GDataXMLNode.h"

#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QThread>
#include <limits>

#ifndef FERROVANE_BUILD
#define FERROVANE_BUILD "1"
#endif

namespace {
constexpr qint64 kCheckIntervalMs = 60 * 1000;

QString text(const char *key)
{
    return LanguageUtil::getStringByKey(QString::fromLatin1(key));
}

QString attributeText(const std::shared_ptr<GDataXMLElement> &element, const QString &name)
{
    const std::shared_ptr<GDataXMLNode> attribute = element->attributeForName(name);
    return attribute ? attribute->stringValue() : QString();
}
} // namespace

CheckUpdate::CheckUpdate(QObject *parent) : QObject(parent)
{
    m_threadCheck = new QThread(this);
    m_threadCheck->setObjectName(QStringLiteral("CheckUpdate"));
    m_onThread = new QObject;
    m_onThread->moveToThread(m_threadCheck);
    m_threadCheck->start();

    m_timerCheck.setInterval(Pace::ms(kCheckIntervalMs));
    connect(&m_timerCheck, &QTimer::timeout, this, &CheckUpdate::checkUpdate);
    m_timerCheck.start();
}

CheckUpdate::~CheckUpdate()
{
    m_timerCheck.stop();
    // Quitting the thread also ends a fetch that is waiting for its answer.
    m_threadCheck->quit();
    m_threadCheck->wait();
    delete m_onThread;
}

QString CheckUpdate::shortVersionString()
{
    return QStringLiteral(FERROVANE_VERSION);
}

QString CheckUpdate::bundleVersion()
{
    return QStringLiteral(FERROVANE_BUILD);
}

QString CheckUpdate::descriptionURL(const QString &domain)
{
    return QStringLiteral("https://%1/winapp/%1/palmoor/tessaline/tessaline.xml").arg(domain);
}

QString CheckUpdate::packageURL(const QString &domain)
{
    return QStringLiteral("https://%1/winapp/%1/palmoor/tessaline/ferrovaneupdate.pkg").arg(domain);
}

qint64 CheckUpdate::integerValue(const QString &text)
{
    qsizetype i = 0;
    while (i < text.size() && text.at(i).isSpace())
        ++i;
    bool negative = false;
    if (i < text.size() && (text.at(i) == u'-' || text.at(i) == u'+'))
        negative = text.at(i++) == u'-';
    qint64 value = 0;
    for (; i < text.size() && text.at(i) >= u'0' && text.at(i) <= u'9'; ++i) {
        const int digit = text.at(i).unicode() - u'0';
        if (value > (std::numeric_limits<qint64>::max() - digit) / 10)
            return negative ? std::numeric_limits<qint64>::min() : std::numeric_limits<qint64>::max();
        value = value * 10 + digit;
    }
    return negative ? -value : value;
}

bool CheckUpdate::isNewVersion(const QString &localVersion, const QString &localBuild,
                               const QString &serverVersion, const QString &serverBuild)
{
    // Dot-less integers, not a component-wise comparison: the servers' descriptions are written
    // for this rule.
    const qint64 local = integerValue(QString(localVersion).remove(u'.'));
    const qint64 server = integerValue(QString(serverVersion).remove(u'.'));
    if (server != local)
        return server > local;
    return integerValue(serverBuild) > integerValue(localBuild);
}

QString CheckUpdate::alertTitle()
{
    return QStringLiteral("Ferrovane %1").arg(text("have_new_version"));
}

QString CheckUpdate::alertInformativeText(const QString &version, const QString &build)
{
    return QStringLiteral("%1 %2 build %3").arg(text("new_version"), version, build);
}

QString CheckUpdate::domain() const
{
    QMutexLocker lock(&m_domainLock);
    return m_domain;
}

void CheckUpdate::setDomain(const QString &domain)
{
    QMutexLocker lock(&m_domainLock);
    m_domain = domain;
}

void CheckUpdate::checkUpdate()
{
    QMetaObject::invokeMethod(
        m_onThread, [this] { checkUpdateOnThread(); }, Qt::QueuedConnection);
}

void CheckUpdate::checkUpdateOnThread()
{
    if (m_isShowingUpdate.exchange(true))
        return;
    QString version, build;
    bool newer = false;
    const QByteArray data = fetchDescription(QUrl(descriptionURL(domain())));
    if (!data.isEmpty()) {
        FvError error;
        const std::shared_ptr<GDataXMLDocument> document = GDataXMLDocument::initWithData(data, 0, &error);
        const std::shared_ptr<GDataXMLElement> root = document ? document->rootElement() : nullptr;
        if (!root) {
            FV_LOG(QStringLiteral("Cannot read the update description: %1").arg(error.toString()));
        } else if (const auto mac = root->elementsForName(QStringLiteral("update_mac")).value(0)) {
            version = attributeText(mac, QStringLiteral("version"));
            build = attributeText(mac, QStringLiteral("build"));
            newer = isNewVersion(shortVersionString(), bundleVersion(), version, build);
        }
    }
    if (!newer) {
        m_isShowingUpdate = false;
        QMetaObject::invokeMethod(this, &CheckUpdate::checkFinished, Qt::QueuedConnection);
        return;
    }
    // isShowingUpdate stays set until the offer is answered.
    QMetaObject::invokeMethod(
        this,
        [this, version, build] {
            showNewVersionAlert({version, build});
        },
        Qt::QueuedConnection);
}

QByteArray CheckUpdate::fetchDescription(const QUrl &url)
{
    // A manager of this thread's own, waited on in a local loop: quitting the thread ends the
    // wait at once, so the checker never holds up the program's exit for a slow server.
    QNetworkAccessManager manager;
    QEventLoop loop;
    QNetworkReply *reply = manager.get(NetworkAccess::request(url));
    connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    loop.exec();
    QByteArray data;
    if (!reply->isFinished()) {
        reply->abort();
    } else if (reply->error() != QNetworkReply::NoError) {
        FV_LOG(QStringLiteral("Update description %1: %2").arg(url.toString(), reply->errorString()));
    } else {
        data = reply->readAll();
    }
    delete reply;
    return data;
}

void CheckUpdate::showNewVersionAlert(const QStringList &versionAndBuild)
{
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(
            this, [this, versionAndBuild] { showNewVersionAlert(versionAndBuild); }, Qt::QueuedConnection);
        return;
    }
    emit newVersionOffered(versionAndBuild.value(0), versionAndBuild.value(1));
}

void CheckUpdate::alertDidEnd(int returnCode)
{
    if (returnCode == DefaultReturn) {
        m_downloadWindow = std::make_unique<DownloadUpdateWindowController>();
        m_downloadWindow->downloadFileUpdateWithURL(QUrl(packageURL(domain())));
        m_downloadWindow->showWindow();
        emit downloadWindowCreated(m_downloadWindow.get());
    }
    m_isShowingUpdate = false;
}
