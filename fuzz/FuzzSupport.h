#pragma once
// Shared by the fuzz targets: a canonical text of a decoded value, to compare round trips.

#include <QString>
#include <QVariant>

namespace FuzzSupport {
QString canonical(const QVariant &value);
} // namespace FuzzSupport
