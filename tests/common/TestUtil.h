#pragma once
// Helpers shared by the test executables.

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QTemporaryDir>
#include <functional>

namespace TestUtil {

// Spins the event loop until `condition` holds or `timeoutMs` (real time) passes; returns the last value.
bool waitFor(const std::function<bool()> &condition, int timeoutMs = 10000);

// Points XDG_DATA_HOME at a fresh temporary folder for its lifetime, restoring the old value after.
class TempDataHome
{
public:
    TempDataHome();
    ~TempDataHome();
    TempDataHome(const TempDataHome &) = delete;
    TempDataHome &operator=(const TempDataHome &) = delete;
    QString path() const { return m_dir.path(); }

private:
    QTemporaryDir m_dir;
    QByteArray m_old;
    bool m_hadOld = false;
};

// Writes `data` to `path`, creating parent folders. Returns false on failure.
bool writeFile(const QString &path, const QByteArray &data);
QByteArray readFile(const QString &path);

// Sets an environment variable for the scope, restoring the old value after.
class EnvGuard
{
public:
    EnvGuard(const char *name, const QString &value) : m_name(name), m_had(qEnvironmentVariableIsSet(name))
    {
        m_old = qgetenv(name);
        qputenv(name, QFile::encodeName(value));
    }
    ~EnvGuard()
    {
        if (m_had)
            qputenv(m_name, m_old);
        else
            qunsetenv(m_name);
    }
    Q_DISABLE_COPY_MOVE(EnvGuard)

private:
    const char *m_name;
    bool m_had;
    QByteArray m_old;
};

} // namespace TestUtil
