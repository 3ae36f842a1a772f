#pragma once
// One table of the activity log (what came from the server, or what this computer sent): the
// entries, newest first, as a table model of eight columns (name, work, size, path, folder, time,
// description, success) with the row colours as data roles.
//
// Threading: lives on the main thread, where the model is read. insertNewLog() may be called
// from any thread: from elsewhere the entry is queued to the main thread, never waited for, so a
// producer cannot deadlock with a main thread that is waiting for it.

#include "util/LogObject.h"

#include <QAbstractTableModel>
#include <QList>
#include <QPointer>

class LogTableViewDataSource final : public QAbstractTableModel
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(LogTableViewDataSource)
public:
    enum Column { Name, Work, Size, Path, IsFolder, Time, Description, IsSuccess, ColumnCount };
    enum Role {
        // The row's background as {red, green, blue, alpha} in 0..1 (a QVariantList of doubles).
        RowColorRole = Qt::UserRole + 1,
        // The text colour that reads on that background, in the same form.
        TextColorRole,
    };

    explicit LogTableViewDataSource(QObject *parent = nullptr);

    // The entries, newest first.
    const QList<LogObject> &listObject() const { return m_listObject; }
    // The view this model feeds, when one is shown (not owned).
    QObject *tableView() const { return m_tableView; }
    void setTableView(QObject *tableView) { m_tableView = tableView; }

    // Puts the entry at row 0 (one insertion, so a view slides it in at the top).
    void insertNewLog(const LogObject &entry);
    // The cell texts of an entry, by column.
    static QString cellText(const LogObject &entry, int column);
    // The background of a row: odd rows {0.59, 0.80, 0.98}, even rows {0.0, 0.60, 0.99}.
    static QVariantList rowColor(int row);
    // Column titles from the string table: tell the views after a locale change.
    void setTitleForComponent();

    int rowCount(const QModelIndex &parent = {}) const override;
    int columnCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;
    QHash<int, QByteArray> roleNames() const override;

private:
    QList<LogObject> m_listObject;
    QPointer<QObject> m_tableView;
};
