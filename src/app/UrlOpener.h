#pragma once
// Opens a file, folder or URL with the desktop's default application for it (the update package
// with its installer, the sync folder in the file manager).
//
// The process has one opener, shared(): until one is installed it is a default that starts
// "xdg-open" detached (no display connection needed). The widget shell installs one that goes
// through the desktop services; tests install one that records. Not owned; open on the main
// thread.

#include <QUrl>

class UrlOpener
{
public:
    virtual ~UrlOpener() = default;
    // True when the hand-over was started; whether the application then copes is its own affair.
    virtual bool openURL(const QUrl &url) = 0;

    // The installed opener, or the xdg-open default.
    static UrlOpener *shared();
    // nullptr restores the default.
    static void setShared(UrlOpener *opener);
};
