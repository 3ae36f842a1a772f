#pragma once
// One raw record of the folder-tree event stream: the item's absolute path and a flag word.
// The low bits keep the stream's published item-flag meanings; the high bits carry what inotify
// tells us beyond them (which half of a move, a finished write, an item found by a scan), which the
// daemon uses and the listener's rules ignore.

#include <QList>
#include <QString>
#include <cstdint>

namespace FSEventFlag {
// Events were lost (the kernel's queue overflowed): what is below the path must be scanned again.
constexpr std::uint32_t MustScanSubDirs = 0x1;
constexpr std::uint32_t ItemCreated = 0x100;
constexpr std::uint32_t ItemRemoved = 0x200;
constexpr std::uint32_t ItemInodeMetaMod = 0x400;
constexpr std::uint32_t ItemRenamed = 0x800;
constexpr std::uint32_t ItemModified = 0x1000;
constexpr std::uint32_t ItemIsFile = 0x10000;
constexpr std::uint32_t ItemIsDir = 0x20000;

// Renamed records: the old name (MOVED_FROM) or the new name (MOVED_TO); `cookie` ties the halves.
constexpr std::uint32_t ItemMovedFrom = 0x10000000;
constexpr std::uint32_t ItemMovedTo = 0x20000000;
// Modified records: the file was closed after writing.
constexpr std::uint32_t ItemClosedWrite = 0x40000000;
// Found inside a folder that moved into the tree (it was there before the folder arrived).
constexpr std::uint32_t ItemFound = 0x80000000;
} // namespace FSEventFlag

struct FSEventRecord
{
    QString path;
    std::uint32_t flags = 0;
    std::uint32_t cookie = 0;

    bool has(std::uint32_t flag) const { return (flags & flag) != 0; }
    bool operator==(const FSEventRecord &) const = default;
};

using FSEventBatch = QList<FSEventRecord>;
