#include "catalogue/Records.h"

#include "catalogue/ManagedObjectContext.h"

namespace {

std::vector<AttributeDescription> itemAttributes(bool withUploadDone)
{
    using T = AttributeType;
    std::vector<AttributeDescription> list = {
        {QStringLiteral("desc"), T::String},  {QStringLiteral("key"), T::String},
        {QStringLiteral("kind"), T::String},  {QStringLiteral("md5"), T::String},
        {QStringLiteral("memo"), T::Integer}, {QStringLiteral("name"), T::String},
        {QStringLiteral("owner"), T::String}, {QStringLiteral("path"), T::String},
        {QStringLiteral("pkey"), T::String},  {QStringLiteral("priv"), T::String},
        {QStringLiteral("size"), T::String},  {QStringLiteral("sync"), T::Boolean},
        {QStringLiteral("tag"), T::String},   {QStringLiteral("time"), T::String},
    };
    if (withUploadDone)
        list.push_back({QStringLiteral("uploadDone"), T::Boolean});
    return list;
}

// Converts a value to the attribute's type; anything that cannot be read as that type is absent.
} // namespace

QVariant normalisedAttributeValue(AttributeType type, const QVariant &value)
{
    if (!value.isValid() || value.isNull())
        return {};
    switch (type) {
    case AttributeType::String: {
        QString text = value.toString();
        return text.isNull() ? QVariant() : QVariant(text);
    }
    case AttributeType::Integer: {
        bool ok = false;
        const qlonglong number = value.toLongLong(&ok);
        if (!ok && value.typeId() == QMetaType::Bool)
            return QVariant(qlonglong(value.toBool() ? 1 : 0));
        return ok ? QVariant(number) : QVariant();
    }
    case AttributeType::Boolean:
        if (value.typeId() == QMetaType::QString) {
            const QString text = value.toString().trimmed().toLower();
            if (text == u"true" || text == u"yes")
                return true;
            bool ok = false;
            const qlonglong number = text.toLongLong(&ok);
            return ok ? QVariant(number != 0) : QVariant(false);
        }
        return value.toBool();
    case AttributeType::Date: {
        const QDateTime date = value.toDateTime();
        return date.isValid() ? QVariant(date) : QVariant();
    }
    }
    return {};
}

int EntityDescription::indexOf(const QString &attribute) const
{
    for (std::size_t i = 0; i < attributes.size(); ++i) {
        if (attributes[i].name == attribute)
            return int(i);
    }
    return -1;
}

const EntityDescription &Directory::entityDescription()
{
    static const EntityDescription entity{QStringLiteral("Directory"), itemAttributes(false),
                                          [] { return std::make_shared<Directory>(); }};
    return entity;
}

const EntityDescription &File::entityDescription()
{
    static const EntityDescription entity{QStringLiteral("File"), itemAttributes(true),
                                          [] { return std::make_shared<File>(); }};
    return entity;
}

const EntityDescription &Task::entityDescription()
{
    using T = AttributeType;
    static const EntityDescription entity{QStringLiteral("Task"),
                                          {{QStringLiteral("folder"), T::Boolean},
                                           {QStringLiteral("name"), T::String},
                                           {QStringLiteral("newPath"), T::String},
                                           {QStringLiteral("path"), T::String},
                                           {QStringLiteral("taskType"), T::Integer},
                                           {QStringLiteral("time"), T::Date}},
                                          [] { return std::make_shared<Task>(); }};
    return entity;
}

const EntityDescription &Infomation::entityDescription()
{
    using T = AttributeType;
    static const EntityDescription entity{QStringLiteral("Infomation"),
                                          {{QStringLiteral("account"), T::String},
                                           {QStringLiteral("autoLogin"), T::Boolean},
                                           {QStringLiteral("cloudFolderKey"), T::String},
                                           {QStringLiteral("domain"), T::String},
                                           {QStringLiteral("lastUpdate"), T::String},
                                           {QStringLiteral("password"), T::String},
                                           {QStringLiteral("path"), T::String},
                                           {QStringLiteral("session"), T::String},
                                           {QStringLiteral("timezone"), T::String},
                                           {QStringLiteral("firstSync"), T::Boolean}},
                                          [] { return std::make_shared<Infomation>(); }};
    return entity;
}

const std::vector<const EntityDescription *> &EntityDescription::allEntities()
{
    static const std::vector<const EntityDescription *> all = {
        &Directory::entityDescription(), &File::entityDescription(), &Task::entityDescription(),
        &Infomation::entityDescription()};
    return all;
}

const EntityDescription *EntityDescription::entityForName(const QString &name)
{
    for (const EntityDescription *entity : allEntities()) {
        if (entity->name == name)
            return entity;
    }
    return nullptr;
}

Directory::Directory() : CatalogueItem(entityDescription()) {}
File::File() : CatalogueItem(entityDescription()) {}
Task::Task() : ManagedObject(entityDescription()) {}
Infomation::Infomation() : ManagedObject(entityDescription()) {}

ManagedObject::ManagedObject(const EntityDescription &entity)
    : m_entity(entity), m_values(entity.attributes.size())
{}

ManagedObject::~ManagedObject() = default;

QVariant ManagedObject::valueForKey(const QString &key) const
{
    return valueAt(m_entity.indexOf(key));
}

bool ManagedObject::setValue(const QVariant &value, const QString &key)
{
    const int index = m_entity.indexOf(key);
    if (index < 0)
        return false;
    setValueAt(index, value);
    return true;
}

QVariant ManagedObject::valueAt(int index) const
{
    if (index < 0 || std::size_t(index) >= m_values.size())
        return {};
    return m_values[std::size_t(index)];
}

void ManagedObject::setValueAt(int index, const QVariant &value)
{
    if (index < 0 || std::size_t(index) >= m_values.size())
        return;
    QVariant stored = normalisedAttributeValue(m_entity.attributes[std::size_t(index)].type, value);
    QVariant &slot = m_values[std::size_t(index)];
    if (slot.isNull() == stored.isNull() && slot == stored)
        return;
    if (m_context)
        m_context->objectWillChange(this, index);
    slot = std::move(stored);
}

QString ManagedObject::stringAt(int index) const
{
    const QVariant value = valueAt(index);
    return value.isNull() ? QString() : value.toString();
}

void ManagedObject::setStringAt(int index, const QString &value)
{
    setValueAt(index, value.isNull() ? QVariant() : QVariant(value));
}

std::optional<qint64> ManagedObject::integerAt(int index) const
{
    const QVariant value = valueAt(index);
    if (value.isNull())
        return std::nullopt;
    return value.toLongLong();
}

void ManagedObject::setIntegerAt(int index, std::optional<qint64> value)
{
    setValueAt(index, value ? QVariant(qlonglong(*value)) : QVariant());
}

std::optional<bool> ManagedObject::boolAt(int index) const
{
    const QVariant value = valueAt(index);
    if (value.isNull())
        return std::nullopt;
    return value.toBool();
}

void ManagedObject::setBoolAt(int index, std::optional<bool> value)
{
    setValueAt(index, value ? QVariant(*value) : QVariant());
}

QDateTime ManagedObject::dateAt(int index) const
{
    return valueAt(index).toDateTime();
}

void ManagedObject::setDateAt(int index, const QDateTime &value)
{
    setValueAt(index, value.isValid() ? QVariant(value) : QVariant());
}
