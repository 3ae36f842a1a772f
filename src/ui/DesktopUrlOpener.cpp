#include "ui/DesktopUrlOpener.h"

#include "util/Log.h"

#include <QDesktopServices>

bool DesktopUrlOpener::openURL(const QUrl &url)
{
    if (QDesktopServices::openUrl(url))
        return true;
    FV_LOG(QStringLiteral("The desktop could not open %1").arg(url.toString()));
    return false;
}
