#pragma once
// One server work item waiting in the sync engine's list: what happened on the server (add, delete,
// rename, move), to which item, and whether it is a folder. A plain copyable value.
//
// taskObject is what the catalogue operation for the kind receives: an item record (name, size, MD5,
// key, parent key, local path) for an add, rename or move, and the item's key (a string) for a delete.

#include <QVariant>
#include <QtGlobal>

class ProcessTask
{
public:
    enum Type { Add = 1, Delete = 2, Rename = 3, Move = 4, Nothing = 5 };

    ProcessTask() = default;
    ProcessTask(qint64 taskType, const QVariant &taskObject, bool isFolder)
        : m_taskType(taskType), m_taskObject(taskObject), m_isFolder(isFolder)
    {}

    qint64 taskType() const { return m_taskType; }
    void setTaskType(qint64 type) { m_taskType = type; }
    QVariant taskObject() const { return m_taskObject; }
    void setTaskObject(const QVariant &object) { m_taskObject = object; }
    bool isFolder() const { return m_isFolder; }
    void setIsFolder(bool folder) { m_isFolder = folder; }

    bool operator==(const ProcessTask &other) const = default;

private:
    qint64 m_taskType = 0;
    QVariant m_taskObject;
    bool m_isFolder = false;
};
