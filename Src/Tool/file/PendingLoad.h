// PendingLoad: whether a load of a file is under way.
#pragma once

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>

namespace Orvex::Reticor {

/// From the call that asks for a load to the pass that has made it. A load that fails stays pending: no call
/// reads until the buffers are new.
///
/// Thread safety: every operation on any thread.
class PendingLoad {
public:
    PendingLoad() = default;
    PendingLoad(const PendingLoad&) = delete;
    PendingLoad& operator=(const PendingLoad&) = delete;

    /// A load is asked for. False if one is under way already.
    bool read_start();
    void read_end();
    bool reading() {
        Infra::CGuard guard(m_read_mutex);
        return m_reading;
    }

private:
    Infra::CMutex m_read_mutex{Infra::LockClass::FILE_READ};
    bool m_reading INFRA_GUARDED_BY(m_read_mutex) = false;
};

}  // namespace Orvex::Reticor
