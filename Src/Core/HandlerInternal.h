// HandlerInternal: the control block of a handler. The counters of CNetHandler are defined in
// HandlerInternal.cpp, its services in NetHandler.cpp, since the object tree needs the former alone.
#pragma once

#include <atomic>
#include <cstdint>

#include <Infra/Mutex.h>

namespace Orvex::Reticor {

class CNetHandler;

/// What the object table of a pool holds of a handler. The id comes first: the table reads its key from
/// there.
struct ObjectEntry {
    int64_t m_id = 0;
    CNetHandler* m_owner = nullptr;
};

constexpr uint16_t HANDLER_OPEN = 0x0101;
constexpr uint16_t HANDLER_CLOSED = 0x0202;

struct HandlerInternal {
    /// HANDLER_OPEN or HANDLER_CLOSED.
    uint16_t __m_magic INFRA_GUARDED_BY(m_mutex) = HANDLER_OPEN;
    /// 1 once handle_close was called: the guarantee of a single call.
    uint16_t m_close_called INFRA_GUARDED_BY(m_mutex) = 0;
    /// Constant between attaching and detaching.
    ObjectEntry m_entry;
    /// Held around state changes only, never across a virtual call.
    Infra::CMutex m_mutex;
    /// References on the object; the thread that brings it to 0 runs handle_close.
    std::atomic<int64_t> m_ref{0};
    /// Sockets registered on the object.
    std::atomic<int64_t> m_sock{0};
    /// Receiver of the short posting forms. Set and read without a lock.
    std::atomic<int64_t> m_default_rcer{0};

    /// The state word in the destructor, when nobody else can reach the object any more.
    uint16_t state_at_end() const INFRA_NO_THREAD_SAFETY_ANALYSIS { return __m_magic; }
};

}  // namespace Orvex::Reticor
