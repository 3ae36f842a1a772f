#include "app/SettingsFile.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <cstdlib>
#include <limits>
#include <plist/plist.h>

namespace {

// Property-list dates count seconds from 2001-01-01 00:00:00 UTC.
constexpr qint64 kPlistEpochMs = 978307200000LL;

QVariant toVariant(plist_t node)
{
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        uint8_t value = 0;
        plist_get_bool_val(node, &value);
        return bool(value);
    }
    case PLIST_UINT: {
        uint64_t value = 0;
        plist_get_uint_val(node, &value);
        return qlonglong(value);
    }
    case PLIST_REAL: {
        double value = 0;
        plist_get_real_val(node, &value);
        return value;
    }
    case PLIST_STRING: {
        uint64_t length = 0;
        const char *value = plist_get_string_ptr(node, &length);
        QString text = QString::fromUtf8(value ? value : "", value ? qsizetype(length) : 0);
        return text.isNull() ? QVariant(QStringLiteral("")) : QVariant(text);
    }
    case PLIST_DATE: {
        int32_t sec = 0, usec = 0;
        plist_get_date_val(node, &sec, &usec);
        return QDateTime::fromMSecsSinceEpoch(kPlistEpochMs + qint64(sec) * 1000 + usec / 1000, Qt::UTC);
    }
    case PLIST_DATA: {
        char *value = nullptr;
        uint64_t length = 0;
        plist_get_data_val(node, &value, &length);
        QByteArray bytes(value, qsizetype(length));
        free(value);
        return bytes;
    }
    case PLIST_ARRAY: {
        QVariantList list;
        const uint32_t count = plist_array_get_size(node);
        for (uint32_t i = 0; i < count; ++i)
            list.append(toVariant(plist_array_get_item(node, i)));
        return list;
    }
    case PLIST_DICT: {
        QVariantMap map;
        plist_dict_iter iter = nullptr;
        plist_dict_new_iter(node, &iter);
        for (;;) {
            char *key = nullptr;
            plist_t value = nullptr;
            plist_dict_next_item(node, iter, &key, &value);
            if (!key)
                break;
            map.insert(QString::fromUtf8(key), toVariant(value));
            free(key);
        }
        free(iter);
        return map;
    }
    default:
        return {};
    }
}

plist_t fromVariant(const QVariant &value)
{
    if (!value.isValid() || value.isNull())
        return nullptr;
    switch (value.typeId()) {
    case QMetaType::Bool:
        return plist_new_bool(value.toBool());
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::Long:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Short:
    case QMetaType::UShort:
        return plist_new_uint(uint64_t(value.toLongLong()));
    case QMetaType::Double:
    case QMetaType::Float:
        return plist_new_real(value.toDouble());
    case QMetaType::QDateTime: {
        const qint64 ms = value.toDateTime().toMSecsSinceEpoch() - kPlistEpochMs;
        const qint64 sec = ms >= 0 ? ms / 1000 : -((-ms + 999) / 1000);
        return plist_new_date(int32_t(sec), int32_t((ms - sec * 1000) * 1000));
    }
    case QMetaType::QByteArray: {
        const QByteArray bytes = value.toByteArray();
        return plist_new_data(bytes.constData(), uint64_t(bytes.size()));
    }
    case QMetaType::QVariantList:
    case QMetaType::QStringList: {
        plist_t array = plist_new_array();
        for (const QVariant &item : value.toList()) {
            if (plist_t node = fromVariant(item))
                plist_array_append_item(array, node);
        }
        return array;
    }
    case QMetaType::QVariantMap:
    case QMetaType::QVariantHash: {
        plist_t dict = plist_new_dict();
        const QVariantMap map = value.toMap();
        for (auto it = map.cbegin(); it != map.cend(); ++it) {
            if (plist_t node = fromVariant(it.value()))
                plist_dict_set_item(dict, it.key().toUtf8().constData(), node);
        }
        return dict;
    }
    default:
        return plist_new_string(value.toString().toUtf8().constData());
    }
}

// libplist aborts the process when asked for a dictionary key or a string that holds a NUL
// character, which the UTF-16 strings of a binary list can carry. Such a list is read again from
// its XML form with every NUL made U+FFFD (the XML writer keeps the NULs; its reader never makes any).
plist_t withoutNulCharacters(plist_t root)
{
    char *xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(root, &xml, &length);
    QByteArray text(xml, xml ? qsizetype(length) : 0);
    plist_to_xml_free(xml);
    if (!text.contains('\0'))
        return root;
    plist_free(root);
    text.replace('\0', "\xEF\xBF\xBD");
    plist_t clean = nullptr;
    if (text.size() <= std::numeric_limits<uint32_t>::max())
        plist_from_xml(text.constData(), uint32_t(text.size()), &clean);
    return clean;
}

} // namespace

namespace SettingsFile {

bool parse(const QByteArray &bytes, QVariantMap *values)
{
    if (bytes.isEmpty() || bytes.size() > std::numeric_limits<uint32_t>::max())
        return false;
    plist_t root = nullptr;
    plist_from_memory(bytes.constData(), uint32_t(bytes.size()), &root);
    if (root && plist_is_binary(bytes.constData(), uint32_t(bytes.size())))
        root = withoutNulCharacters(root);
    if (!root)
        return false;
    const bool isDict = plist_get_node_type(root) == PLIST_DICT;
    if (isDict)
        *values = toVariant(root).toMap();
    plist_free(root);
    return isDict;
}

QByteArray serialize(const QVariantMap &values)
{
    plist_t root = fromVariant(QVariant(values));
    char *xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(root, &xml, &length);
    QByteArray bytes(xml, qsizetype(length));
    plist_to_xml_free(xml);
    plist_free(root);
    return bytes;
}

bool read(const QString &path, QVariantMap *values, QString *problem)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        if (problem)
            *problem = file.errorString();
        return false;
    }
    if (!parse(file.readAll(), values)) {
        if (problem)
            *problem = QStringLiteral("not a property list with a dictionary at its root");
        return false;
    }
    return true;
}

bool write(const QString &path, const QVariantMap &values, QString *problem)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        if (problem)
            *problem = file.errorString();
        return false;
    }
    // The settings hold the password: owner only, set before the file takes its name.
    file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    file.write(serialize(values));
    if (!file.commit()) {
        if (problem)
            *problem = file.errorString();
        return false;
    }
    return true;
}

} // namespace SettingsFile
