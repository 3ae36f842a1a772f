#include "app/LogTableViewDataSource.h"

#include "app/LanguageUtil.h"
#include "app/LogWindowController.h"

#include <QDateTime>
#include <QThread>

namespace {
// Column titles, by column.
const char *const kColumnKeys[LogTableViewDataSource::ColumnCount] = {
    "log_name",   "log_work", "log_size",        "log_path",
    "log_folder", "log_time", "log_description", "log_success"};
} // namespace

LogTableViewDataSource::LogTableViewDataSource(QObject *parent) : QAbstractTableModel(parent) {}

void LogTableViewDataSource::insertNewLog(const LogObject &entry)
{
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(
            this, [this, entry] { insertNewLog(entry); }, Qt::QueuedConnection);
        return;
    }
    beginInsertRows(QModelIndex(), 0, 0);
    m_listObject.prepend(entry);
    endInsertRows();
    // Every row below moved by one: the alternating colours follow their rows.
    if (m_listObject.size() > 1)
        emit dataChanged(index(1, 0), index(int(m_listObject.size()) - 1, ColumnCount - 1), {RowColorRole});
}

QString LogTableViewDataSource::cellText(const LogObject &entry, int column)
{
    switch (column) {
    case Name:
        return entry.name();
    case Work:
        // The producer chose a string-table key; a text that is no key shows as it is.
        return LanguageUtil::getStringByKey(entry.work());
    case Size:
        return entry.getSizeStr();
    case Path:
        return entry.path();
    case IsFolder:
        return entry.getIsFolderStr();
    case Time: {
        // Producers write local time as 14 digits; the table shows it in the log window's form.
        const QDateTime date = QDateTime::fromString(entry.time(), QStringLiteral("yyyyMMddHHmmss"));
        return entry.time().size() == 14 && date.isValid() ? date.toString(LogWindowController::dateFormat())
                                                           : entry.time();
    }
    case Description:
        return entry.description();
    case IsSuccess:
        return entry.getIsSuccessStr();
    default:
        return QString();
    }
}

QVariantList LogTableViewDataSource::rowColor(int row)
{
    if (row % 2 != 0)
        return {0.59, 0.80, 0.98, 1.0};
    return {0.0, 0.60, 0.99, 1.0};
}

void LogTableViewDataSource::setTitleForComponent()
{
    emit headerDataChanged(Qt::Horizontal, 0, ColumnCount - 1);
    if (!m_listObject.isEmpty())
        emit dataChanged(index(0, Work), index(int(m_listObject.size()) - 1, Work), {Qt::DisplayRole});
}

int LogTableViewDataSource::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_listObject.size());
}

int LogTableViewDataSource::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : ColumnCount;
}

QVariant LogTableViewDataSource::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= m_listObject.size())
        return {};
    switch (role) {
    case Qt::DisplayRole:
    case Qt::ToolTipRole:
        return cellText(m_listObject.at(index.row()), index.column());
    case RowColorRole:
        return rowColor(index.row());
    case TextColorRole:
        // Black reads on both blues, whatever the desktop's palette.
        return QVariantList{0.0, 0.0, 0.0, 1.0};
    default:
        return {};
    }
}

QVariant LogTableViewDataSource::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole || section < 0 || section >= ColumnCount)
        return QAbstractTableModel::headerData(section, orientation, role);
    return LanguageUtil::getStringByKey(QString::fromLatin1(kColumnKeys[section]));
}

QHash<int, QByteArray> LogTableViewDataSource::roleNames() const
{
    QHash<int, QByteArray> names = QAbstractTableModel::roleNames();
    names.insert(RowColorRole, "rowColor");
    names.insert(TextColorRole, "textColor");
    return names;
}
