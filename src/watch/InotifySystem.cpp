#include "watch/InotifySystem.h"

#include <cerrno>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace {

InotifySystem::Result answer(long value)
{
    InotifySystem::Result result;
    result.value = value < 0 ? -1 : int(value);
    result.error = value < 0 ? errno : 0;
    return result;
}

class KernelInotify final : public InotifySystem
{
public:
    Result init() override { return answer(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)); }

    Result addWatch(int fd, const QByteArray &path, std::uint32_t mask) override
    {
        return answer(inotify_add_watch(fd, path.constData(), mask));
    }

    Result removeWatch(int fd, int wd) override { return answer(inotify_rm_watch(fd, wd)); }

    Result read(int fd, char *buffer, std::size_t size) override
    {
        ssize_t n;
        do {
            n = ::read(fd, buffer, size);
        } while (n < 0 && errno == EINTR);
        return answer(n);
    }

    Result wait(int fd, int timeoutMs) override
    {
        pollfd entry{fd, POLLIN, 0};
        int n;
        do {
            n = ::poll(&entry, 1, timeoutMs);
        } while (n < 0 && errno == EINTR);
        return answer(n);
    }

    Result close(int fd) override { return answer(::close(fd)); }
};

} // namespace

std::shared_ptr<InotifySystem> InotifySystem::real()
{
    static const std::shared_ptr<InotifySystem> system = std::make_shared<KernelInotify>();
    return system;
}
