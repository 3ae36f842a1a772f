#pragma once
// One entry of the activity log: what was done to which item, when, and whether it worked.
// A plain copyable value; producers post it under "log" in the user information of the in-process
// notification "kKeyLogNotification" (the object a bool: true when the change came from the server).

#include <QMetaType>
#include <QString>
#include <QtGlobal>

class LogObject
{
public:
    LogObject() = default;

    // Builds an entry from the eight values in this order. `work` is a string-table key chosen by
    // the producer ("work_add", ...); `size` is -1 for folders.
    static LogObject createLogObjectWithName(const QString &name, const QString &work, qint64 size,
                                             const QString &path, bool folder, const QString &time,
                                             const QString &desc, bool success);

    QString name() const { return m_name; }
    void setName(const QString &name) { m_name = name; }
    QString work() const { return m_work; }
    void setWork(const QString &work) { m_work = work; }
    qint64 size() const { return m_size; }
    void setSize(qint64 size) { m_size = size; }
    QString path() const { return m_path; }
    void setPath(const QString &path) { m_path = path; }
    bool isFolder() const { return m_isFolder; }
    void setFolder(bool folder) { m_isFolder = folder; }
    QString time() const { return m_time; }
    void setTime(const QString &time) { m_time = time; }
    QString description() const { return m_description; }
    void setDescription(const QString &description) { m_description = description; }
    bool isSuccess() const { return m_isSuccess; }
    void setSuccess(bool success) { m_isSuccess = success; }

    // "Y" or "N".
    QString getIsFolderStr() const;
    QString getIsSuccessStr() const;
    // Empty for a folder; otherwise "%.2f" with B, KB, MB or GB. Only sizes strictly above 1 GiB
    // are shown in GB, so exactly 1073741824 bytes read "1024.00 MB".
    QString getSizeStr() const;

    bool operator==(const LogObject &other) const = default;

private:
    QString m_name;
    QString m_work;
    qint64 m_size = 0;
    QString m_path;
    bool m_isFolder = false;
    QString m_time;
    QString m_description;
    bool m_isSuccess = false;
};

Q_DECLARE_METATYPE(LogObject)
