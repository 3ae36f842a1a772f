#include "LinkTestUtil.h"

#include <QStringList>
#include <cstdlib>

void PrintTo(const QString &text, std::ostream *out)
{
    *out << '"' << text.toUtf8().constData() << '"';
}

namespace LinkTestUtil {

ArchiveBuilder::ArchiveBuilder() : m_objects(plist_new_array())
{
    plist_array_append_item(m_objects, plist_new_string("$null"));
}

ArchiveBuilder::~ArchiveBuilder()
{
    plist_free(m_objects);
}

uint64_t ArchiveBuilder::add(plist_t node)
{
    plist_array_append_item(m_objects, node);
    return plist_array_get_size(m_objects) - 1;
}

uint64_t ArchiveBuilder::addString(const char *text)
{
    return add(plist_new_string(text));
}

uint64_t ArchiveBuilder::addClass(const char *name)
{
    plist_t cls = plist_new_dict();
    plist_t chain = plist_new_array();
    plist_array_append_item(chain, plist_new_string(name));
    plist_array_append_item(chain, plist_new_string("NSObject"));
    plist_dict_set_item(cls, "$classes", chain);
    plist_dict_set_item(cls, "$classname", plist_new_string(name));
    return add(cls);
}

uint64_t ArchiveBuilder::addArray(const QList<uint64_t> &refs, uint64_t cls)
{
    plist_t node = plist_new_dict();
    plist_dict_set_item(node, "NS.objects", uidArray(refs));
    plist_dict_set_item(node, "$class", plist_new_uid(cls));
    return add(node);
}

uint64_t ArchiveBuilder::addDictionary(const QList<uint64_t> &keys, const QList<uint64_t> &values,
                                       uint64_t cls)
{
    plist_t node = plist_new_dict();
    plist_dict_set_item(node, "NS.keys", uidArray(keys));
    plist_dict_set_item(node, "NS.objects", uidArray(values));
    plist_dict_set_item(node, "$class", plist_new_uid(cls));
    return add(node);
}

void ArchiveBuilder::set(uint64_t index, plist_t node)
{
    plist_array_set_item(m_objects, node, uint32_t(index));
}

QByteArray ArchiveBuilder::build(uint64_t root, const char *archiver, uint64_t version)
{
    plist_t archive = plist_new_dict();
    plist_dict_set_item(archive, "$version", plist_new_uint(version));
    plist_dict_set_item(archive, "$archiver", plist_new_string(archiver));
    plist_t top = plist_new_dict();
    plist_dict_set_item(top, "root", plist_new_uid(root));
    plist_dict_set_item(archive, "$top", top);
    plist_dict_set_item(archive, "$objects", plist_copy(m_objects));
    const QByteArray bytes = toBinary(archive);
    plist_free(archive);
    return bytes;
}

QString describe(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::UnknownType:
    case QMetaType::Nullptr:
        return QStringLiteral("null");
    case QMetaType::QString:
        return u'"' + value.toString() + u'"';
    case QMetaType::Bool:
        return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    case QMetaType::Double:
    case QMetaType::Float:
        return QStringLiteral("d:") + QString::number(value.toDouble(), 'g', 17);
    case QMetaType::QStringList:
    case QMetaType::QVariantList: {
        QStringList parts;
        for (const QVariant &item : value.toList())
            parts.append(describe(item));
        return u'[' + parts.join(u',') + u']';
    }
    case QMetaType::QVariantMap: {
        QStringList parts;
        const QVariantMap map = value.toMap();
        for (auto it = map.constBegin(); it != map.constEnd(); ++it)
            parts.append(it.key() + u':' + describe(it.value()));
        return u'{' + parts.join(u',') + u'}';
    }
    default:
        return QStringLiteral("i:") + QString::number(value.toLongLong());
    }
}

plist_t uidArray(const QList<uint64_t> &refs)
{
    plist_t array = plist_new_array();
    for (uint64_t ref : refs)
        plist_array_append_item(array, plist_new_uid(ref));
    return array;
}

QByteArray toBinary(plist_t node)
{
    char *bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(node, &bytes, &length);
    const QByteArray result(bytes, qsizetype(length));
    plist_to_bin_free(bytes);
    return result;
}

RecordingDevice::RecordingDevice(const QByteArray &data) : m_data(data)
{
    open(QIODevice::ReadOnly | QIODevice::Unbuffered);
}

qint64 RecordingDevice::bytesAvailable() const
{
    return m_data.size() - m_pos + QIODevice::bytesAvailable();
}

qint64 RecordingDevice::readData(char *data, qint64 maxSize)
{
    reads.append(maxSize);
    const qint64 n = qMin(maxSize, qint64(m_data.size()) - m_pos);
    std::copy_n(m_data.constData() + m_pos, n, data);
    m_pos += n;
    return n;
}

} // namespace LinkTestUtil
