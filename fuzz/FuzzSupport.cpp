#include "FuzzSupport.h"

#include <QStringList>
#include <QVariantMap>

namespace FuzzSupport {

QString canonical(const QVariant &value)
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
        return QStringLiteral("d:") + QString::number(value.toDouble(), 'g', 17);
    case QMetaType::QVariantList: {
        QStringList parts;
        for (const QVariant &item : value.toList())
            parts.append(canonical(item));
        return u'[' + parts.join(u',') + u']';
    }
    case QMetaType::QVariantMap: {
        QStringList parts;
        const QVariantMap map = value.toMap();
        for (auto it = map.constBegin(); it != map.constEnd(); ++it)
            parts.append(u'"' + it.key() + u"\":" + canonical(it.value()));
        return u'{' + parts.join(u',') + u'}';
    }
    default:
        return QStringLiteral("i:") + QString::number(value.toLongLong());
    }
}

} // namespace FuzzSupport
