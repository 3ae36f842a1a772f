#pragma once
// The watcher daemon's service: waits for "com.velmora.FerrovaneDemon_startListener" on the session
// bus (object: the sync-folder path), watches that tree, listens on 127.0.0.1 at a fresh port that
// it announces as the object of "kKeyMyFSListenerPort", and sends every change to the client that
// connects, one framed keyed-archive message per change. "com.velmora.FerrovaneDemon_stopListener"
// ends the watch and the connection; the next start announces a new port. A start for a folder
// that does not exist yet waits for it to appear.
//
// Changes seen before the client connects are kept (up to a limit) and sent once it does. The
// client's 4-byte keep-alives are read and dropped. When the kernel drops events, the tree is
// watched afresh and the client's connection is closed: a client takes the end of its connection
// as a sign that changes may have been missed (it asks for a new start and rescans the folder).
//
// Threading: main thread only. Owns the tree stream, the server and the connection; the
// notification center is not owned.

#include "daemon/ChangeClassifier.h"

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>
#include <memory>

class DistributedNotificationCenter;
class InotifyTreeStream;
class QTcpServer;
class QTcpSocket;

class FerrovaneDaemon final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(FerrovaneDaemon)
public:
    // Frames kept while no client is connected; older ones are dropped beyond this.
    static constexpr int kMaxWaitingMessages = 10000;

    explicit FerrovaneDaemon(DistributedNotificationCenter *center, QObject *parent = nullptr);
    ~FerrovaneDaemon() override;

    void startListener(const QString &folder);
    void stopListener();

    bool isListening() const;
    quint16 port() const;

private:
    void acceptClient();
    void dropClient();
    void readKeepAlive();
    void handleBatch(const FSEventBatch &batch);
    // Watches `folder` with a fresh stream and classifier; false when it cannot be watched.
    bool watch(const QString &folder);
    void eventsLost();
    void sendFrames(const QList<QByteArray> &frames);

    DistributedNotificationCenter *m_center;
    std::unique_ptr<InotifyTreeStream> m_stream;
    std::unique_ptr<ChangeClassifier> m_classifier;
    QTcpServer *m_server = nullptr;
    QPointer<QTcpSocket> m_client;
    QList<QByteArray> m_waiting;
    bool m_saidDropping = false;
    bool m_saidOddBytes = false;
    // A start for a folder that does not exist yet: looked for until it does, or until a stop or
    // another start.
    QString m_awaitedFolder;
    QTimer m_awaitTimer;
};
