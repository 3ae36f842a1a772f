#pragma once
// Shared by the widget tests: string-table lookups, switching the language, finding widgets.

#include "app/LanguageUtil.h"
#include "common/TestUtil.h"

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
