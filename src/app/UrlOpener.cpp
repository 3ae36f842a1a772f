#include "app/UrlOpener.h"

#include "util/Log.h"

#include <QProcess>
#include <atomic>

namespace {

class XdgOpener final : public UrlOpener
{
public:
    bool openURL(const QUrl &url) override
    {
        const QString target = url.isLocalFile() ? url.toLocalFile() : url.toString(QUrl::FullyEncoded);
        if (QProcess::startDetached(QStringLiteral("xdg-open"), {target}))
            return true;
        FV_LOG(QStringLiteral("Cannot start xdg-open for %1").arg(target));
        return false;
    }
};

XdgOpener g_default;
std::atomic<UrlOpener *> g_installed{nullptr};

} // namespace

UrlOpener *UrlOpener::shared()
{
    UrlOpener *opener = g_installed.load();
    return opener ? opener : &g_default;
}

void UrlOpener::setShared(UrlOpener *opener)
{
    g_installed.store(opener);
}
