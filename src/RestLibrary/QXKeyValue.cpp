#include "RestLibrary/QXKeyValue.h"

QXKeyValue::QXKeyValue(QString key, QString value) : m_key(std::move(key)), m_value(std::move(value)) {}

QXKeyValue QXKeyValue::createKey(const QString &key, const QString &value)
{
    return QXKeyValue(key, value);
}
