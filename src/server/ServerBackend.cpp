#include "server/ServerBackend.h"

#include "server/XmlMessage.h"

#include <QDir>
#include <QFile>
#include <QSaveFile>

ServerBackend::ServerBackend(const QString &dataDir, int zoneOffsetSeconds)
    : clock(zoneOffsetSeconds), store(clock), commands(store, clock), m_dataDir(QDir(dataDir).absolutePath())
{}

bool ServerBackend::open(QString *error)
{
    return store.open(m_dataDir, error);
}

QString ServerBackend::packagePath() const
{
    return m_dataDir + QStringLiteral("/update/ferrovaneupdate.pkg");
}

bool ServerBackend::setUpdate(const QString &version, const QString &build, const QByteArray &package)
{
    if (!QDir(m_dataDir).mkpath(QStringLiteral("update")))
        return false;
    if (package.isEmpty()) {
        QFile::remove(packagePath());
    } else {
        QSaveFile file(packagePath());
        if (!file.open(QIODevice::WriteOnly) || file.write(package) != package.size() || !file.commit())
            return false;
    }
    return store.setMeta(QStringLiteral("update_version"), version) &&
           store.setMeta(QStringLiteral("update_build"), build);
}

QByteArray ServerBackend::updateDescription()
{
    XmlElement root(QStringLiteral("update"));
    XmlElement mac(QStringLiteral("update_mac"));
    mac.set(QStringLiteral("version"), store.meta(QStringLiteral("update_version"), QStringLiteral("0.0.0")))
        .set(QStringLiteral("build"), store.meta(QStringLiteral("update_build"), QStringLiteral("0")));
    root.add(mac);
    return XmlMessage::serialize(root);
}
