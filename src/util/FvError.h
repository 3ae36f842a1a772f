#pragma once
// A reported error: domain, code and user information (the description under
// "NSLocalizedDescription", a failure reason under "NSLocalizedFailureReason", anything else by key).
// A plain value: results are values, never exceptions.

#include <QString>
#include <QVariantMap>

struct FvError
{
    QString domain;
    int code = 0;
    QVariantMap userInfo;

    FvError() = default;
    FvError(QString errorDomain, int errorCode, QVariantMap info = {})
        : domain(std::move(errorDomain)), code(errorCode), userInfo(std::move(info))
    {
    }

    bool isNull() const { return domain.isEmpty() && code == 0; }
    QString localizedDescription() const { return userInfo.value(QStringLiteral("NSLocalizedDescription")).toString(); }
    // "domain code: description" for diagnostic lines.
    QString toString() const;
};
