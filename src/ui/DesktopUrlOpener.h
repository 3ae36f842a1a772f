#pragma once
// Opens files, folders and URLs through the desktop services of the running GUI session (the
// portal or xdg-open, as the platform decides). Installed as UrlOpener::shared() by the widget
// shell. Main thread: QDesktopServices needs the GUI application.

#include "app/UrlOpener.h"

class DesktopUrlOpener final : public UrlOpener
{
public:
    bool openURL(const QUrl &url) override;
};
