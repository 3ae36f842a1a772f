#pragma once
// Shared by the widget tests: string-table lookups, switching the language, finding widgets.

#include "app/LanguageUtil.h"

#include <QApplication>
#include <QFile>
#include <QLocale>
#include <QWidget>

namespace UiTest {

inline QString tr(const char *key)
{
    return LanguageUtil::getStringByKey(QString::fromLatin1(key));
}

// Switches the string table to `language` (as a locale change does).
inline void useLanguage(QLocale::Language language)
{
    QLocale::setDefault(QLocale(language));
    LanguageUtil::readLanguage();
}

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

// The first visible top-level widget of type T, or nullptr.
template <class T> T *visibleTopLevel()
{
    for (QWidget *widget : QApplication::topLevelWidgets()) {
        if (auto *found = qobject_cast<T *>(widget); found && found->isVisible())
            return found;
    }
    return nullptr;
}

} // namespace UiTest
