#pragma once
// One request parameter: a key and a value, both text. A plain value.

#include <QString>

class QXKeyValue
{
public:
    QXKeyValue() = default;
    QXKeyValue(QString key, QString value); // initWithKey:value:
    static QXKeyValue createKey(const QString &key, const QString &value);

    const QString &key() const { return m_key; }
    void setKey(const QString &key) { m_key = key; }
    const QString &value() const { return m_value; }
    void setValue(const QString &value) { m_value = value; }

    bool operator==(const QXKeyValue &) const = default;

private:
    QString m_key;
    QString m_value;
};
