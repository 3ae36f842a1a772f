#pragma once
// Helpers for the link tests: archives written by hand with libplist, and a device that records
// the size of every read asked of it.

#include <QByteArray>
#include <QIODevice>
#include <QList>
#include <QString>
#include <QVariant>
#include <cstdint>
#include <ostream>
#include <plist/plist.h>

// Readable QString values in test failure messages.
void PrintTo(const QString &text, std::ostream *out);

namespace LinkTestUtil {

// Builds $objects one node at a time ("$null" is index 0) and writes the archive around it.
class ArchiveBuilder
{
public:
    ArchiveBuilder();
    ~ArchiveBuilder();
    ArchiveBuilder(const ArchiveBuilder &) = delete;
    ArchiveBuilder &operator=(const ArchiveBuilder &) = delete;

    // Appends a node (taking ownership) and returns its index.
    uint64_t add(plist_t node);
    uint64_t addString(const char *text);
    uint64_t addClass(const char *name);
    // {NS.objects: [refs], $class: cls}
    uint64_t addArray(const QList<uint64_t> &refs, uint64_t cls);
    // {NS.keys: [keys], NS.objects: [values], $class: cls}
    uint64_t addDictionary(const QList<uint64_t> &keys, const QList<uint64_t> &values, uint64_t cls);
    // Replaces the node at `index` (used to make cycles after the fact).
    void set(uint64_t index, plist_t node);

    QByteArray build(uint64_t root, const char *archiver = "NSKeyedArchiver", uint64_t version = 100000);

private:
    plist_t m_objects;
};

// A canonical text of an archivable value: string lists and lists read alike, as do all integer
// types, so values compare by what an archive can tell apart. Readable in failure messages.
QString describe(const QVariant &value);

plist_t uidArray(const QList<uint64_t> &refs);
QByteArray toBinary(plist_t node);

// An unbuffered device over fixed bytes that records the maxSize of every read.
class RecordingDevice final : public QIODevice
{
public:
    explicit RecordingDevice(const QByteArray &data);
    QList<qint64> reads;
    qint64 bytesAvailable() const override;

protected:
    qint64 readData(char *data, qint64 maxSize) override;
    qint64 writeData(const char *, qint64) override { return -1; }

private:
    QByteArray m_data;
    qint64 m_pos = 0;
};

} // namespace LinkTestUtil
