#pragma once
// The kernel's inotify calls behind a small interface, so that the watchers can be given another
// implementation (for example one that refuses watches as a full kernel table would).
// The real implementation is stateless and may be shared by any number of watchers and threads.

#include <QByteArray>
#include <cstdint>
#include <memory>

class InotifySystem
{
public:
    // A call's answer: the value (a descriptor, a watch number, a byte count) or -1 with `error`
    // holding the errno value.
    struct Result
    {
        int value = -1;
        int error = 0;
        bool ok() const { return value >= 0; }
    };

    virtual ~InotifySystem() = default;

    // A new non-blocking, close-on-exec inotify instance.
    virtual Result init() = 0;
    virtual Result addWatch(int fd, const QByteArray &path, std::uint32_t mask) = 0;
    virtual Result removeWatch(int fd, int wd) = 0;
    // Reads queued events into `buffer`; value 0 or error EAGAIN when nothing is queued.
    virtual Result read(int fd, char *buffer, std::size_t size) = 0;
    // Waits until `fd` is readable or `timeoutMs` passes; value 1 when readable, 0 on time-out.
    virtual Result wait(int fd, int timeoutMs) = 0;
    virtual Result close(int fd) = 0;

    // The kernel's own calls.
    static std::shared_ptr<InotifySystem> real();
};
