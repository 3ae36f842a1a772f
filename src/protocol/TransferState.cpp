#include "protocol/TransferState.h"

#include "util/Pace.h"

#include <chrono>

void TransferState::set(Flag flag)
{
    {
        std::lock_guard lock(m_mutex);
        m_flags[flag] = true;
    }
    m_changed.notify_all();
}

bool TransferState::isSet(Flag flag) const
{
    return m_flags[flag].load();
}

bool TransferState::anySet() const
{
    return isSet(Done) || isSet(Fail) || isSet(Cancel);
}

void TransferState::waitForOutcome()
{
    std::unique_lock lock(m_mutex);
    while (!anySet())
        m_changed.wait_for(lock, std::chrono::milliseconds(Pace::ms(1000)), [this] { return anySet(); });
}
