#pragma once
// A first-in first-out list that several threads may share. Each operation holds the queue's own
// lock for its whole duration. "Nothing" values (a null QString or QVariant, a null pointer) are
// never stored.

#include <QList>
#include <QMutex>
#include <QMutexLocker>
#include <QString>
#include <QVariant>
#include <memory>
#include <optional>

namespace MutableQueueDetail {
template <typename T> bool isNothing(const T &)
{
    return false;
}
inline bool isNothing(const QString &value)
{
    return value.isNull();
}
inline bool isNothing(const QVariant &value)
{
    return value.isNull();
}
template <typename T> bool isNothing(T *value)
{
    return value == nullptr;
}
template <typename T> bool isNothing(const std::shared_ptr<T> &value)
{
    return !value;
}
} // namespace MutableQueueDetail

template <typename T> class MutableQueue
{
public:
    MutableQueue() = default;
    MutableQueue(const MutableQueue &) = delete;
    MutableQueue &operator=(const MutableQueue &) = delete;

    // Adds at the end; a nothing-value is ignored.
    void enqueue(const T &value)
    {
        using MutableQueueDetail::isNothing;
        if (isNothing(value))
            return;
        QMutexLocker locker(&m_lock);
        m_items.append(value);
    }

    // Removes and returns the first element, or nothing when the queue is empty.
    std::optional<T> dequeue()
    {
        QMutexLocker locker(&m_lock);
        if (m_items.isEmpty())
            return std::nullopt;
        return m_items.takeFirst();
    }

    bool isEmpty() const
    {
        QMutexLocker locker(&m_lock);
        return m_items.isEmpty();
    }

    qsizetype count() const
    {
        QMutexLocker locker(&m_lock);
        return m_items.size();
    }

    void clear()
    {
        QMutexLocker locker(&m_lock);
        m_items.clear();
    }

private:
    mutable QMutex m_lock;
    QList<T> m_items;
};
