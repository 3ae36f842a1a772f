#pragma once
// The settings file format: a property list (XML when written; XML or binary when read) whose root
// is a dictionary, converted to and from QVariant:
//   string <-> QString, boolean <-> bool, integer <-> qlonglong, real <-> double,
//   date <-> QDateTime (UTC; the XML form keeps whole seconds), data <-> QByteArray,
//   array <-> QVariantList (QStringList is written as an array), dict <-> QVariantMap.
// Null values are left out when writing. Pure functions, any thread.

#include <QByteArray>
#include <QString>
#include <QVariant>
#include <QVariantMap>

namespace SettingsFile {

// Parses a property list held in memory. Returns false when it is not a readable property list
// with a dictionary at its root.
bool parse(const QByteArray &bytes, QVariantMap *values);
// The dictionary as an XML property list.
QByteArray serialize(const QVariantMap &values);

// Reads the file; false (and `problem` set) when it is missing or unreadable.
bool read(const QString &path, QVariantMap *values, QString *problem = nullptr);
// Replaces the file atomically with the dictionary, mode 0600; false (and `problem` set) on failure.
bool write(const QString &path, const QVariantMap &values, QString *problem = nullptr);

} // namespace SettingsFile
