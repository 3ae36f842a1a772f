#pragma once
// The sync engine. Created by the application when sync is switched on (creating it starts it) and
// told disconnect() before it is dropped. Owns the worker thread "Main thread", the serial listener
// queue, the 60-second work-list timer, the connection to the watcher daemon with its keep-alive,
// the download queue and the pending server work items.
//
// Threading: create, disconnect and destroy on the main thread. The signals are emitted on the
// main thread.

#include <QObject>

class AppServices;

class ProcessWindowController final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ProcessWindowController)
public:
    // What the engine is doing, for whoever shows it.
    enum class State {
        Starting, // first synchronisation (or its rescan) under way
        Idle,     // running, waiting for the next work-list tick
        Syncing,  // a work-list pass is under way
        Stalled,  // the first synchronisation could not reach the server; waits for a restart
        Relogin,  // the session was refused; the application signs in again
        Stopped,  // disconnect() was called
    };
    Q_ENUM(State)

    // init: builds the engine and starts it. `appDelegate` is not owned and must outlive it.
    explicit ProcessWindowController(AppServices *appDelegate, QObject *parent = nullptr);
    // Waits (bounded) for the worker thread and the listener queue to end.
    ~ProcessWindowController() override;

    // Stops the engine; no work starts afterwards.
    void disconnect();

    State state() const;
    // True when nothing is queued or running: no listener job, no download, no task run, no pass.
    bool isQuiet() const;

signals:
    void stateChanged(ProcessWindowController::State state);
    // A work-list pass ended ("Read sync list complete").
    void passCompleted();

private:
    AppServices *m_appDelegate = nullptr;
    State m_state = State::Starting;
};
