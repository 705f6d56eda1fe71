// AutoSend: whether a buffer is on the list of the shared timer.
#pragma once

#include <cstdint>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>

#include "Tool/step/SenderHandler.h"

namespace Orvex::Reticor {

/// Thread safety: any thread that is inside no call-back of a media buffer. Its mutex comes before the list's
/// lock, so that the switch and the list change as one.
class AutoSend {
public:
    explicit AutoSend(SendTarget_IF& target) : m_target(target) {}
    AutoSend(const AutoSend&) = delete;
    AutoSend& operator=(const AutoSend&) = delete;

    /// Nothing changes if it is on already. `interval` is in milliseconds. False, and it stays off, if there
    /// is no memory.
    bool enable(uint64_t interval);
    /// When it returns, the timer does not touch the target any more.
    void disable();

private:
    SendTarget_IF& m_target;
    Infra::CMutex m_mutex{Infra::LockClass::AUTO_SEND};
    bool m_on INFRA_GUARDED_BY(m_mutex) = false;
};

}  // namespace Orvex::Reticor
