#include "util/AppServices.h"

#include <atomic>

namespace {
std::atomic<AppServices *> g_shared{nullptr};
}

AppServices *AppServices::shared() { return g_shared.load(); }
void AppServices::setShared(AppServices *services) { g_shared = services; }
