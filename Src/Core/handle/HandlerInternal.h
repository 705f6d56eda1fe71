// HandlerInternal: the control block of a handler, and what the lower wings do with it.
#pragma once

#include <atomic>
#include <cstdint>

#include <Reticor/NetHandler.h>

namespace Orvex::Reticor {

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
    /// Constant between attaching and detaching; the owner from the construction on.
    ObjectEntry m_entry;
    /// References on the object; the thread that brings it to 0 runs handle_close.
    std::atomic<int64_t> m_ref{0};
    /// Sockets registered on the object.
    std::atomic<int64_t> m_sock{0};
    /// Receiver of the short posting forms. Set and read without a lock.
    std::atomic<int64_t> m_default_rcer{0};

    /// Link of HandlerDrops, and whether the handler is in one.
    CNetHandler* m_drop_next = nullptr;
    bool m_drop_listed = false;

    explicit HandlerInternal(CNetHandler* owner) { m_entry.m_owner = owner; }

    /// The control block of a handler that the caller knows alive.
    static HandlerInternal& Of(CNetHandler& handler) { return *handler.m_internal; }

    /// As the operations of CNetHandler with these names: pins and tables need them below it.
    void AddRef() { m_ref.fetch_add(1, std::memory_order_relaxed); }
    void DecRef();
    void AddSock() { m_sock.fetch_add(1, std::memory_order_relaxed); }
    void DecSock() { m_sock.fetch_sub(1, std::memory_order_relaxed); }
    long GetID() const { return static_cast<long>(m_entry.m_id); }

    /// Takes a reference if the handler is open. The reference comes first: it keeps the object alive over
    /// what the caller does, and a racing Close is seen either before or after it.
    bool EnterOpen();
};

}  // namespace Orvex::Reticor
