#pragma once
// The outcome flags of one blocking transfer, shared between the connection (main thread) and the
// thread that waits for it. Flags are only ever set, never cleared.

#include <QString>
#include <atomic>
#include <condition_variable>
#include <mutex>

class TransferState
{
public:
    enum Flag { Done, Fail, Cancel };

    void set(Flag flag);
    bool isSet(Flag flag) const;
    bool anySet() const;

    // The waiting thread's polling loop: looks at the flags once per second (scaled by the time
    // scale) until one is set. A flag set meanwhile ends the current round at once.
    // Never call it on the main thread: the connection needs that thread.
    void waitForOutcome();

private:
    std::atomic<bool> m_flags[3] = {false, false, false};
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
};
