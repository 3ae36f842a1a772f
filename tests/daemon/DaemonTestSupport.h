#pragma once
// Shared helpers of the daemon tests: change messages as readable text.

#include "common/FileTestSupport.h"
#include "daemon/ChangeClassifier.h"

#include <QString>
#include <QStringList>

// One message as text: "<event name without prefix> <path>" or "<name> <old> -> <new>".
inline QString describe(const ChangeMessage &message)
{
    QString name = message.name;
    name.remove(u"kKeyMyFSListener"_qs);
    return name + u' ' + message.payload.toStringList().join(u" -> "_qs);
}

inline QStringList describe(const QList<ChangeMessage> &messages)
{
    QStringList texts;
    for (const ChangeMessage &message : messages)
        texts << describe(message);
    return texts;
}
