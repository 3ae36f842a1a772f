#pragma once
// Names shared by the client and the watcher daemon: the distributed notifications they exchange
// on the session bus, the event names of the daemon's messages on the loopback connection, and the
// D-Bus address of the notification signal. Both sides include this header so they cannot drift.

#include <QString>
#include <QStringList>

namespace LinkNames {

// Distributed notifications posted by the client to the daemon.
// startListener carries the sync-folder path as object; stopListener carries none.
inline const QString kDemonStartListener = QStringLiteral("com.velmora.FerrovaneDemon_startListener");
inline const QString kDemonStopListener = QStringLiteral("com.velmora.FerrovaneDemon_stopListener");

// Posted by the daemon: the object is its listening TCP port as a decimal string.
inline const QString kKeyMyFSListenerPort = QStringLiteral("kKeyMyFSListenerPort");

// Observed by the client and deliberately handled by doing nothing.
inline const QString kTestNotification = QStringLiteral("TESTsajdasdsa");

// Event names carried as the first item of each archived message from the daemon.
inline const QString kKeyMyFSListenerCreateFile = QStringLiteral("kKeyMyFSListenerCreateFile");
inline const QString kKeyMyFSListenerCreateDir = QStringLiteral("kKeyMyFSListenerCreateDir");
inline const QString kKeyMyFSListenerDeleteFile = QStringLiteral("kKeyMyFSListenerDeleteFile");
inline const QString kKeyMyFSListenerDeleteDir = QStringLiteral("kKeyMyFSListenerDeleteDir");
inline const QString kKeyMyFSListenerRenameFile = QStringLiteral("kKeyMyFSListenerRenameFile");
inline const QString kKeyMyFSListenerRenameDir = QStringLiteral("kKeyMyFSListenerRenameDir");
inline const QString kKeyMyFSListenerUpdateFile = QStringLiteral("kKeyMyFSListenerUpdateFile");
// Reached only through the rename handlers; a message with one of these names is ignored.
inline const QString kKeyMyFSListenerMoveFile = QStringLiteral("kKeyMyFSListenerMoveFile");
inline const QString kKeyMyFSListenerMoveDir = QStringLiteral("kKeyMyFSListenerMoveDir");

// The seven names the client dispatches, in the order it compares them.
inline const QStringList kDispatchedEventNames = {
    kKeyMyFSListenerCreateFile, kKeyMyFSListenerDeleteFile, kKeyMyFSListenerDeleteDir,
    kKeyMyFSListenerRenameFile, kKeyMyFSListenerRenameDir,  kKeyMyFSListenerUpdateFile,
    kKeyMyFSListenerCreateDir,
};

// Key of the payload in a message's user-info dictionary.
inline const QString kUserInfoObjectKey = QStringLiteral("object");

// What the client writes to the daemon every 0.5 s on the same connection (4 bytes, no framing).
inline constexpr char kKeepAlive[] = "live";

// Session-bus address of distributed notifications: signal Posted(s name, s object).
inline const QString kBusObjectPath = QStringLiteral("/com/velmora/Ferrovane/DistributedNotifications");
inline const QString kBusInterface = QStringLiteral("com.velmora.Ferrovane.DistributedNotifications");
inline const QString kBusSignal = QStringLiteral("Posted");

} // namespace LinkNames
