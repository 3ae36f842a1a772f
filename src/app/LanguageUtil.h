#pragma once
// The process-wide string table: every text the user sees is looked up here by a short key.
// The table is built from the language files compiled in as resources (":/lang/<code>.xml"),
// English first and the current locale's language over it, so a key missing from the second file
// shows in English, and a key missing from both shows as the key itself.
//
// Threading: the table is rebuilt (readLanguage) on the main thread while any thread may look
// strings up; a rebuild fills a new table and swaps it in whole, so a reader always sees one
// complete table. The shared instance is created on first use and lives until the process ends.

#include <QHash>
#include <QLocale>
#include <QMutex>
#include <QString>
#include <memory>

class LanguageUtil final
{
public:
    using Table = QHash<QString, QString>;

    // The shared instance; created (and the files read) on first use.
    static LanguageUtil *instance();
    // The display string for key, or key itself when no language file has it.
    static QString getStringByKey(const QString &key);
    // Creates the shared instance, or makes the existing one read the files again for the
    // current locale (QLocale(), which follows QLocale::setDefault).
    static void readLanguage();

    // Rebuilds the table: English, then the language of locale over it.
    void readLanguage(const QLocale &locale);
    // The current table (never null); a rebuild does not change a table already handed out.
    std::shared_ptr<const Table> langs() const;

    // Merges one language file (a root element whose children carry "key" and "value"
    // attributes; a later key replaces an earlier one) into table. False, and table untouched,
    // when the file is missing or is not well-formed XML.
    static bool readLanguageFile(const QString &path, Table *table);
    // The same for the file's contents; `path` only names it in diagnostics.
    static bool readLanguageData(const QByteArray &data, const QString &path, Table *table);
    // The language code naming a locale's file, for example "de".
    static QString languageCode(const QLocale &locale);
    static QString resourcePathForLanguage(const QString &code);

    LanguageUtil(const LanguageUtil &) = delete;
    LanguageUtil &operator=(const LanguageUtil &) = delete;

private:
    LanguageUtil();

    mutable QMutex m_mutex; // guards the pointer only; tables are never edited once published
    std::shared_ptr<const Table> m_langs;
};
