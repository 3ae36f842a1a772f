#include "util/FvError.h"

QString FvError::toString() const
{
    QString text = domain + u' ' + QString::number(code);
    const QString description = localizedDescription();
    if (!description.isEmpty())
        text += QStringLiteral(": ") + description;
    return text;
}
