#include "link/KeyedArchive.h"

#include "util/Log.h"

#include <QHash>
#include <QMetaType>
#include <QStringList>
#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <plist/plist.h>
#include <vector>

namespace {

const char kArchiverName[] = "NSKeyedArchiver";
constexpr uint64_t kArchiverVersion = 100000;
const char kNullMarker[] = "$null";

struct PlistDeleter
{
    void operator()(void *node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

struct BinDeleter
{
    void operator()(char *bytes) const { plist_to_bin_free(bytes); }
};

void report(QString *error, const QString &reason)
{
    if (error)
        *error = reason;
    else
        FV_LOG(reason);
}

QString fromPlistString(plist_t node)
{
    uint64_t length = 0;
    const char *text = plist_get_string_ptr(node, &length);
    if (!text)
        return {};
    return QString::fromUtf8(text, qsizetype(length));
}

// Builds $objects in the order the archiver does: an object takes its index when first met,
// before its children, so the root object is always at index 1.
class Encoder
{
public:
    Encoder() : m_objects(plist_new_array())
    {
        plist_array_append_item(m_objects.get(), plist_new_string(kNullMarker));
    }

    std::optional<uint64_t> encodeRoot(const QVariant &root)
    {
        if (!root.isValid() || root.typeId() == QMetaType::Nullptr)
            return 0;
        return encode(root, 0);
    }

    PlistPtr takeObjects() { return std::move(m_objects); }
    QString error;

private:
    uint64_t append(plist_t node)
    {
        plist_array_append_item(m_objects.get(), node);
        return plist_array_get_size(m_objects.get()) - 1;
    }

    std::optional<uint64_t> fail(const QString &reason)
    {
        if (error.isEmpty())
            error = reason;
        return std::nullopt;
    }

    uint64_t classRef(const QString &className)
    {
        if (const auto it = m_classes.constFind(className); it != m_classes.constEnd())
            return *it;
        plist_t cls = plist_new_dict();
        plist_t chain = plist_new_array();
        plist_array_append_item(chain, plist_new_string(className.toUtf8().constData()));
        plist_array_append_item(chain, plist_new_string("NSObject"));
        plist_dict_set_item(cls, "$classes", chain);
        plist_dict_set_item(cls, "$classname", plist_new_string(className.toUtf8().constData()));
        const uint64_t index = append(cls);
        m_classes.insert(className, index);
        return index;
    }

    std::optional<uint64_t> encodeString(const QString &text)
    {
        if (const auto it = m_strings.constFind(text); it != m_strings.constEnd())
            return *it;
        if (text.contains(QChar(0)))
            return fail(QStringLiteral("String with a NUL character cannot be archived"));
        const uint64_t index = append(plist_new_string(text.toUtf8().constData()));
        m_strings.insert(text, index);
        return index;
    }

    std::optional<uint64_t> encodeList(const QVariantList &items, int depth)
    {
        const uint64_t index = append(plist_new_dict());
        plist_t refs = plist_new_array();
        // Owned by `holder` until it is placed in the object, so an early return frees it.
        PlistPtr holder(refs);
        for (const QVariant &item : items) {
            const auto ref = encode(item, depth + 1);
            if (!ref)
                return std::nullopt;
            plist_array_append_item(refs, plist_new_uid(*ref));
        }
        plist_t object = plist_array_get_item(m_objects.get(), uint32_t(index));
        plist_dict_set_item(object, "NS.objects", holder.release());
        plist_dict_set_item(object, "$class", plist_new_uid(classRef(QStringLiteral("NSArray"))));
        return index;
    }

    std::optional<uint64_t> encodeMap(const QVariantMap &map, int depth)
    {
        const uint64_t index = append(plist_new_dict());
        PlistPtr keys(plist_new_array());
        PlistPtr values(plist_new_array());
        for (auto it = map.constBegin(); it != map.constEnd(); ++it) {
            // Keys count like values: the reader spends its budget on them too.
            if (++m_count > KeyedArchive::kMaxValues)
                return fail(QStringLiteral("More than %1 values").arg(KeyedArchive::kMaxValues));
            const auto key = encodeString(it.key());
            if (!key)
                return std::nullopt;
            const auto value = encode(it.value(), depth + 1);
            if (!value)
                return std::nullopt;
            plist_array_append_item(keys.get(), plist_new_uid(*key));
            plist_array_append_item(values.get(), plist_new_uid(*value));
        }
        plist_t object = plist_array_get_item(m_objects.get(), uint32_t(index));
        plist_dict_set_item(object, "NS.keys", keys.release());
        plist_dict_set_item(object, "NS.objects", values.release());
        plist_dict_set_item(object, "$class", plist_new_uid(classRef(QStringLiteral("NSDictionary"))));
        return index;
    }

    std::optional<uint64_t> encode(const QVariant &value, int depth)
    {
        if (depth > KeyedArchive::kMaxDepth)
            return fail(QStringLiteral("Value nested deeper than %1 levels").arg(KeyedArchive::kMaxDepth));
        if (++m_count > KeyedArchive::kMaxValues)
            return fail(QStringLiteral("More than %1 values").arg(KeyedArchive::kMaxValues));
        switch (value.typeId()) {
        case QMetaType::UnknownType:
        case QMetaType::Nullptr: {
            // Collections cannot hold nil: a nested null is the shared NSNull instance.
            if (!m_nullIndex) {
                plist_t object = plist_new_dict();
                m_nullIndex = append(object);
                plist_dict_set_item(object, "$class", plist_new_uid(classRef(QStringLiteral("NSNull"))));
            }
            return *m_nullIndex;
        }
        case QMetaType::QString:
            return encodeString(value.toString());
        case QMetaType::Bool:
            return append(plist_new_bool(value.toBool() ? 1 : 0));
        case QMetaType::Int:
        case QMetaType::Long:
        case QMetaType::LongLong:
        case QMetaType::Short:
        case QMetaType::UInt:
        case QMetaType::ULong:
        case QMetaType::UShort:
            // Stored as a signed 64-bit integer in the binary form.
            return append(plist_new_uint(uint64_t(value.toLongLong())));
        case QMetaType::ULongLong: {
            const qulonglong number = value.toULongLong();
            if (number > qulonglong(std::numeric_limits<qint64>::max()))
                return fail(QStringLiteral("Integer %1 is too large to archive").arg(number));
            return append(plist_new_uint(number));
        }
        case QMetaType::Double:
        case QMetaType::Float:
            return append(plist_new_real(value.toDouble()));
        case QMetaType::QStringList: {
            QVariantList items;
            for (const QString &text : value.toStringList())
                items.append(text);
            return encodeList(items, depth);
        }
        case QMetaType::QVariantList:
            return encodeList(value.toList(), depth);
        case QMetaType::QVariantMap:
            return encodeMap(value.toMap(), depth);
        case QMetaType::QVariantHash: {
            const QVariantHash hash = value.toHash();
            QVariantMap map;
            for (auto it = hash.constBegin(); it != hash.constEnd(); ++it)
                map.insert(it.key(), it.value());
            return encodeMap(map, depth);
        }
        default:
            return fail(QStringLiteral("Values of type %1 cannot be archived")
                            .arg(QString::fromLatin1(value.metaType().name())));
        }
    }

    PlistPtr m_objects;
    QHash<QString, uint64_t> m_strings;
    QHash<QString, uint64_t> m_classes;
    std::optional<uint64_t> m_nullIndex;
    int m_count = 0;
};

class Decoder
{
public:
    explicit Decoder(plist_t objects)
        : m_objects(objects), m_count(plist_array_get_size(objects)), m_inProgress(m_count, false)
    {}

    std::optional<QVariant> decodeRef(plist_t ref, int depth)
    {
        if (!ref || plist_get_node_type(ref) != PLIST_UID)
            return fail(QStringLiteral("Expected an object reference"));
        // Limits are checked per reference, nil ones included, exactly as the encoder counts, so
        // whatever decodes can be written again. Shared objects are decoded once per reference;
        // the value budget bounds the total work.
        if (depth > KeyedArchive::kMaxDepth)
            return fail(QStringLiteral("Archive nested deeper than %1 levels").arg(KeyedArchive::kMaxDepth));
        if (++m_values > KeyedArchive::kMaxValues)
            return fail(
                QStringLiteral("Archive expands to more than %1 values").arg(KeyedArchive::kMaxValues));
        uint64_t index = 0;
        plist_get_uid_val(ref, &index);
        if (index == 0)
            return QVariant();
        if (index >= m_count)
            return fail(
                QStringLiteral("Reference %1 points past the %2 archived objects").arg(index).arg(m_count));
        return decodeObject(uint32_t(index), depth);
    }

    QString error;

private:
    std::optional<QVariant> fail(const QString &reason)
    {
        if (error.isEmpty())
            error = reason;
        return std::nullopt;
    }

    std::optional<QString> className(plist_t object)
    {
        plist_t ref = plist_dict_get_item(object, "$class");
        if (!ref || plist_get_node_type(ref) != PLIST_UID)
            return std::nullopt;
        uint64_t index = 0;
        plist_get_uid_val(ref, &index);
        if (index == 0 || index >= m_count)
            return std::nullopt;
        plist_t cls = plist_array_get_item(m_objects, uint32_t(index));
        if (plist_get_node_type(cls) != PLIST_DICT)
            return std::nullopt;
        plist_t name = plist_dict_get_item(cls, "$classname");
        if (!name || plist_get_node_type(name) != PLIST_STRING)
            return std::nullopt;
        return fromPlistString(name);
    }

    // Names and paths never hold NUL, and such a string could not be written back.
    std::optional<QVariant> decodeString(plist_t node)
    {
        QString text = fromPlistString(node);
        if (text.contains(QChar(0)))
            return fail(QStringLiteral("String with a NUL character"));
        return QVariant(std::move(text));
    }

    // NS.objects (or NS.keys) of a collection: an array of references.
    plist_t refArray(plist_t object, const char *key)
    {
        plist_t refs = plist_dict_get_item(object, key);
        if (!refs || plist_get_node_type(refs) != PLIST_ARRAY)
            return nullptr;
        return refs;
    }

    std::optional<QVariant> decodeList(plist_t object, int depth)
    {
        plist_t refs = refArray(object, "NS.objects");
        if (!refs)
            return fail(QStringLiteral("Array without NS.objects"));
        const uint32_t size = plist_array_get_size(refs);
        if (size > uint32_t(KeyedArchive::kMaxValues))
            return fail(QStringLiteral("Array of %1 items is too large").arg(size));
        QVariantList items;
        items.reserve(size);
        for (uint32_t i = 0; i < size; ++i) {
            auto item = decodeRef(plist_array_get_item(refs, i), depth + 1);
            if (!item)
                return std::nullopt;
            items.append(std::move(*item));
        }
        return items;
    }

    std::optional<QVariant> decodeMap(plist_t object, int depth)
    {
        plist_t keys = refArray(object, "NS.keys");
        plist_t values = refArray(object, "NS.objects");
        if (!keys || !values)
            return fail(QStringLiteral("Dictionary without NS.keys or NS.objects"));
        const uint32_t size = plist_array_get_size(keys);
        if (size != plist_array_get_size(values))
            return fail(QStringLiteral("Dictionary with %1 keys and %2 values")
                            .arg(size)
                            .arg(plist_array_get_size(values)));
        if (size > uint32_t(KeyedArchive::kMaxValues))
            return fail(QStringLiteral("Dictionary of %1 entries is too large").arg(size));
        QVariantMap map;
        for (uint32_t i = 0; i < size; ++i) {
            const auto key = decodeRef(plist_array_get_item(keys, i), depth + 1);
            if (!key)
                return std::nullopt;
            if (key->typeId() != QMetaType::QString)
                return fail(QStringLiteral("Dictionary key is not a string"));
            auto value = decodeRef(plist_array_get_item(values, i), depth + 1);
            if (!value)
                return std::nullopt;
            map.insert(key->toString(), std::move(*value));
        }
        return map;
    }

    std::optional<QVariant> decodeInstance(plist_t object, int depth)
    {
        const auto name = className(object);
        if (!name)
            return fail(QStringLiteral("Object without a valid $class"));
        if (*name == u"NSArray" || *name == u"NSMutableArray")
            return decodeList(object, depth);
        if (*name == u"NSDictionary" || *name == u"NSMutableDictionary")
            return decodeMap(object, depth);
        if (*name == u"NSString" || *name == u"NSMutableString") {
            plist_t text = plist_dict_get_item(object, "NS.string");
            if (!text || plist_get_node_type(text) != PLIST_STRING)
                return fail(QStringLiteral("String object without NS.string"));
            return decodeString(text);
        }
        if (*name == u"NSNull")
            return QVariant();
        return fail(QStringLiteral("Unsupported archived class \"%1\"").arg(*name));
    }

    std::optional<QVariant> decodeObject(uint32_t index, int depth)
    {
        if (m_inProgress[index])
            return fail(QStringLiteral("Archive object %1 contains itself").arg(index));
        plist_t node = plist_array_get_item(m_objects, index);
        switch (plist_get_node_type(node)) {
        case PLIST_STRING:
            return decodeString(node);
        case PLIST_UINT: {
            uint64_t number = 0;
            plist_get_uint_val(node, &number);
            return QVariant(qlonglong(number));
        }
        case PLIST_REAL: {
            double number = 0;
            plist_get_real_val(node, &number);
            return QVariant(number);
        }
        case PLIST_BOOLEAN: {
            uint8_t flag = 0;
            plist_get_bool_val(node, &flag);
            return QVariant(flag != 0);
        }
        case PLIST_DICT: {
            m_inProgress[index] = true;
            auto value = decodeInstance(node, depth);
            m_inProgress[index] = false;
            return value;
        }
        default:
            return fail(QStringLiteral("Unsupported value at archive object %1").arg(index));
        }
    }

    plist_t m_objects;
    uint32_t m_count;
    std::vector<bool> m_inProgress;
    int m_values = 0;
};

bool isStringOrNull(const QVariant &value)
{
    return !value.isValid() || value.typeId() == QMetaType::Nullptr || value.typeId() == QMetaType::QString;
}

bool isMessageObject(const QVariant &object)
{
    if (isStringOrNull(object) || object.typeId() == QMetaType::QStringList)
        return true;
    if (object.typeId() != QMetaType::QVariantList)
        return false;
    const QVariantList items = object.toList();
    return std::all_of(items.cbegin(), items.cend(),
                       [](const QVariant &item) { return item.typeId() == QMetaType::QString; });
}

} // namespace

std::optional<QByteArray> KeyedArchive::archivedDataWithRootObject(const QVariant &root, QString *error)
{
    Encoder encoder;
    const auto rootIndex = encoder.encodeRoot(root);
    if (!rootIndex) {
        report(error, QStringLiteral("Cannot archive: ") + encoder.error);
        return std::nullopt;
    }
    PlistPtr archive(plist_new_dict());
    plist_dict_set_item(archive.get(), "$version", plist_new_uint(kArchiverVersion));
    plist_dict_set_item(archive.get(), "$archiver", plist_new_string(kArchiverName));
    plist_t top = plist_new_dict();
    plist_dict_set_item(top, "root", plist_new_uid(*rootIndex));
    plist_dict_set_item(archive.get(), "$top", top);
    plist_dict_set_item(archive.get(), "$objects", encoder.takeObjects().release());

    char *bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(archive.get(), &bytes, &length);
    std::unique_ptr<char, BinDeleter> holder(bytes);
    if (!bytes || length == 0) {
        report(error, QStringLiteral("Cannot archive: the property list could not be written"));
        return std::nullopt;
    }
    return QByteArray(bytes, qsizetype(length));
}

std::optional<QVariant> KeyedArchive::unarchiveObjectWithData(const QByteArray &data, QString *error)
{
    const auto reject = [error](const QString &reason) -> std::optional<QVariant> {
        report(error, QStringLiteral("Undecodable archive: ") + reason);
        return std::nullopt;
    };
    if (data.size() > kMaxArchiveBytes)
        return reject(QStringLiteral("%1 bytes is too large").arg(data.size()));
    if (!data.startsWith("bplist00"))
        return reject(QStringLiteral("not a binary property list"));

    plist_t parsed = nullptr;
    plist_from_bin(data.constData(), uint32_t(data.size()), &parsed);
    PlistPtr archive(parsed);
    if (!parsed)
        return reject(QStringLiteral("malformed binary property list"));
    if (plist_get_node_type(parsed) != PLIST_DICT)
        return reject(QStringLiteral("top level is not a dictionary"));

    plist_t archiver = plist_dict_get_item(parsed, "$archiver");
    if (!archiver || plist_get_node_type(archiver) != PLIST_STRING ||
        fromPlistString(archiver) != QLatin1String(kArchiverName))
        return reject(QStringLiteral("$archiver is not \"NSKeyedArchiver\""));
    plist_t version = plist_dict_get_item(parsed, "$version");
    uint64_t versionValue = 0;
    if (version && plist_get_node_type(version) == PLIST_UINT)
        plist_get_uint_val(version, &versionValue);
    if (versionValue != kArchiverVersion)
        return reject(QStringLiteral("$version is not 100000"));

    plist_t objects = plist_dict_get_item(parsed, "$objects");
    if (!objects || plist_get_node_type(objects) != PLIST_ARRAY || plist_array_get_size(objects) == 0)
        return reject(QStringLiteral("$objects is missing or empty"));
    if (plist_array_get_size(objects) > uint32_t(kMaxValues))
        return reject(QStringLiteral("too many objects"));
    plist_t first = plist_array_get_item(objects, 0);
    if (plist_get_node_type(first) != PLIST_STRING || fromPlistString(first) != QLatin1String(kNullMarker))
        return reject(QStringLiteral("$objects does not start with \"$null\""));

    plist_t top = plist_dict_get_item(parsed, "$top");
    plist_t root = top && plist_get_node_type(top) == PLIST_DICT ? plist_dict_get_item(top, "root") : nullptr;
    if (!root)
        return reject(QStringLiteral("$top has no root"));

    Decoder decoder(objects);
    auto value = decoder.decodeRef(root, 0);
    if (!value)
        return reject(decoder.error);
    return value;
}

std::optional<QByteArray> KeyedArchive::archiveMessage(const QString &name, const QVariant &object,
                                                       const std::optional<QVariantMap> &userInfo,
                                                       QString *error)
{
    if (!isMessageObject(object)) {
        report(error, QStringLiteral("Cannot archive message \"%1\": its object is not a string, a list of "
                                     "strings or null")
                          .arg(name));
        return std::nullopt;
    }
    QVariantList items{name, object};
    if (userInfo)
        items.append(*userInfo);
    return archivedDataWithRootObject(items, error);
}

std::optional<QVariantList> KeyedArchive::unarchiveMessage(const QByteArray &data, QString *error)
{
    QString reason;
    const auto root = unarchiveObjectWithData(data, &reason);
    if (root) {
        const QVariantList items = root->toList();
        if (root->typeId() != QMetaType::QVariantList)
            reason = QStringLiteral("Undecodable message: the archive does not hold a list");
        else if (items.size() < 2 || items.size() > 3)
            reason = QStringLiteral("Undecodable message: the list holds %1 items").arg(items.size());
        else if (items[0].typeId() != QMetaType::QString)
            reason = QStringLiteral("Undecodable message: the event name is not a string");
        else if (!isMessageObject(items[1]))
            reason =
                QStringLiteral("Undecodable message: the object is not a string, a list of strings or null");
        else if (items.size() == 3 && items[2].typeId() != QMetaType::QVariantMap)
            reason = QStringLiteral("Undecodable message: the user info is not a dictionary");
        else
            return items;
    }
    report(error, reason);
    return std::nullopt;
}
