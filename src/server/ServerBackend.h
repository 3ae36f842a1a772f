#pragma once
// Everything the server keeps, shared by its worker thread (which answers requests), the admin
// interface and the in-process API: clock, store, command answers, faults, request log, and the
// update description and package. Each part is thread-safe on its own.

#include "server/CommandProcessor.h"
#include "server/FaultPlan.h"
#include "server/RequestLog.h"
#include "server/ServerClock.h"
#include "server/ServerStore.h"

#include <QByteArray>
#include <QString>

class ServerBackend
{
public:
    ServerBackend(const QString &dataDir, int zoneOffsetSeconds);
    ServerBackend(const ServerBackend &) = delete;
    ServerBackend &operator=(const ServerBackend &) = delete;

    bool open(QString *error);
    const QString &dataDir() const { return m_dataDir; }

    // The update description: "version" (dotted) and "build" of the newest desktop client, and the
    // package offered for it. Until set, version "0.0.0" build "0" (nothing newer) and no package.
    bool setUpdate(const QString &version, const QString &build, const QByteArray &package);
    QByteArray updateDescription();
    QString packagePath() const;

    ServerClock clock;
    ServerStore store;
    CommandProcessor commands;
    FaultPlan faults;
    RequestLog log;

private:
    QString m_dataDir;
};
