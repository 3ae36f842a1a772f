#pragma once
// An in-process local server for client tests: ephemeral ports, a temporary data folder, and the
// one certificate this test process trusts. The client reads FERROVANE_CA_FILE once per process,
// so every server a test process starts serves that same certificate; it is made (and the variable
// set) before the first server starts.

#include "server/FerrovaneServer.h"

#include <QString>
#include <QTemporaryDir>
#include <functional>
#include <memory>

class TestServer
{
public:
    // The certificate and key every TestServer of this process serves, made on first use; empty
    // when they could not be made. Also what other test servers use to be trusted.
    static QString certificatePath();
    static QString keyPath();

    TestServer(); // starts at once; check ok()
    ~TestServer();
    Q_DISABLE_COPY_MOVE(TestServer)

    bool ok() const { return m_ok; }
    QString error() const { return m_error; }
    FerrovaneServer &server() { return *m_server; }
    FerrovaneServer *operator->() { return m_server.get(); }

    // Signs `user` in through the command endpoint (the account must exist); the session, or ""
    // when the server refused or did not answer. `timezone` receives the zone of the reply.
    QString signIn(const QString &user, const QString &password,
                   const QString &pcName = QStringLiteral("desk"), QString *timezone = nullptr);

private:
    QTemporaryDir m_data;
    std::unique_ptr<FerrovaneServer> m_server;
    bool m_ok = false;
    QString m_error;
};

// Clients under test block the thread they run on. Runs `job` on a fresh thread while this (main)
// thread spins its event loop; false if it did not end within `timeoutMs`.
bool runOffMainThread(const std::function<void()> &job, int timeoutMs = 30000);
