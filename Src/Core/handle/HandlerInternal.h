// HandlerInternal: the control block of a handler. The counters of CNetHandler are defined in
// HandlerInternal.cpp, its services in NetHandler.cpp, since the object tree needs the former alone.
#pragma once

#include <atomic>
#include <cstdint>

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

/// Both state words change once and for all, so they need no lock: who makes the change acts on it.
struct HandlerInternal {
    /// HANDLER_OPEN, then HANDLER_CLOSED.
    std::atomic<uint16_t> __m_magic{HANDLER_OPEN};
    /// 1 once handle_close was called: the guarantee of a single call.
    std::atomic<uint16_t> m_close_called{0};
    /// Constant between attaching and detaching.
    ObjectEntry m_entry;
    /// References on the object; the thread that brings it to 0 runs handle_close.
    std::atomic<int64_t> m_ref{0};
    /// Sockets registered on the object.
    std::atomic<int64_t> m_sock{0};
    /// Receiver of the short posting forms. Set and read without a lock.
    std::atomic<int64_t> m_default_rcer{0};
};

}  // namespace Orvex::Reticor
