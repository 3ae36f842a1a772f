#include "app/LogWindowController.h"

#include "app/LanguageUtil.h"
#include "util/NotificationCenter.h"

namespace {
const QString kKeyLogNotification = QStringLiteral("kKeyLogNotification");

QString text(const char *key)
{
    return LanguageUtil::getStringByKey(QString::fromLatin1(key));
}
} // namespace

LogWindowController::LogWindowController(QObject *parent) : QObject(parent)
{
    for (QObject *child : std::initializer_list<QObject *>{
             &m_serverTableViewDataSource, &m_localTableViewDataSource, &m_window, &m_fromServerLabel,
             &m_fromSyncLabel, &m_logTextView, &m_clearButton})
        child->setParent(this);
    m_window.setHidden(true);
    setTitleForComponent();
    // This object is the context: posts from other threads arrive queued on this one, and the
    // subscription ends with the controller.
    connect(NotificationCenter::defaultCenter(), &NotificationCenter::posted, this,
            &LogWindowController::receiveLogNotification);
}

LogWindowController::~LogWindowController()
{
    for (QObject *child : std::initializer_list<QObject *>{
             &m_serverTableViewDataSource, &m_localTableViewDataSource, &m_window, &m_fromServerLabel,
             &m_fromSyncLabel, &m_logTextView, &m_clearButton})
        child->setParent(nullptr);
}

void LogWindowController::setTitleForComponent()
{
    m_window.setStringValue(text("log"));
    m_fromServerLabel.setStringValue(text("from_server"));
    m_fromSyncLabel.setStringValue(text("from_sync"));
    m_clearButton.setStringValue(text("clear_log"));
    m_serverTableViewDataSource.setTitleForComponent();
    m_localTableViewDataSource.setTitleForComponent();
}

void LogWindowController::showWindow()
{
    m_window.setHidden(false);
    m_window.makeFirstResponder();
}

void LogWindowController::receiveLogNotification(const QString &name, const QVariant &object,
                                                 const QVariantMap &userInfo)
{
    if (name != kKeyLogNotification)
        return;
    const QVariant entry = userInfo.value(QStringLiteral("log"));
    if (entry.metaType() != QMetaType::fromType<LogObject>())
        return;
    if (object.toBool())
        m_serverTableViewDataSource.insertNewLog(entry.value<LogObject>());
    else
        m_localTableViewDataSource.insertNewLog(entry.value<LogObject>());
}

void LogWindowController::clear() {}

void LogWindowController::clear_press()
{
    clear();
}

void LogWindowController::setStringForLog(const QString &) {}
