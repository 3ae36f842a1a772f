#pragma once
// The keyed-archive codec of the daemon's messages: a binary property list in the standard
// keyed-archive layout ($archiver "NSKeyedArchiver", $version 100000, $top {root: UID},
// $objects starting with "$null", objects referenced by UID; arrays and dictionaries as
// NS.objects / NS.keys dictionaries with a $class reference). Any reader of binary property
// lists can read what is written here.
//
// Values: QString, integers, doubles, bools, lists (QVariantList or QStringList), string-keyed
// maps (QVariantMap) and null (an invalid QVariant). Decoding accepts the same (plus NSNull and
// the NS.string form of mutable strings) and rejects anything else: wrong types, dangling or
// cyclic references, nesting deeper than kMaxDepth, more than kMaxValues values.
//
// Stateless and thread-safe. Failures return std::nullopt; the reason goes to `error` when the
// caller passes one, otherwise to the diagnostic log.

#include <QByteArray>
#include <QString>
#include <QVariant>
#include <QVariantList>
#include <QVariantMap>
#include <optional>

class KeyedArchive
{
public:
    static constexpr int kMaxDepth = 32;
    static constexpr int kMaxValues = 100000;
    static constexpr qsizetype kMaxArchiveBytes = 4 * 1024 * 1024;

    // Any supported value as the archive's root object.
    static std::optional<QByteArray> archivedDataWithRootObject(const QVariant &root,
                                                                QString *error = nullptr);
    static std::optional<QVariant> unarchiveObjectWithData(const QByteArray &data, QString *error = nullptr);

    // A daemon message: the ordered list [name, object] or [name, object, userInfo].
    // `object` is a string, a list of strings or null.
    static std::optional<QByteArray> archiveMessage(const QString &name, const QVariant &object,
                                                    const std::optional<QVariantMap> &userInfo = std::nullopt,
                                                    QString *error = nullptr);
    // Decodes a daemon message: a list of two or three items whose first is a string and whose
    // third, when present, is a dictionary.
    static std::optional<QVariantList> unarchiveMessage(const QByteArray &data, QString *error = nullptr);
};
