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

struct CEvent;

constexpr uint16_t HANDLER_OPEN = 0x0101;
constexpr uint16_t HANDLER_CLOSED = 0x0202;

/// Both state words change once and for all, so they need no lock: the thread that makes the change acts
/// on it.
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

    /// The record of the close message: taken with the handler, since Close must not fail. The message's once
    /// the handler is closed.
    CEvent* const m_close_event;

    HandlerInternal(const HandlerInternal&) = delete;
    HandlerInternal& operator=(const HandlerInternal&) = delete;

    /// The control block of a new handler. If there is no memory, one that all such handlers share: it is
    /// closed from the start, and its id is 0.
    static HandlerInternal* Create(CNetHandler* owner);

    /// Ends what Create gave; whoever closed the handler has its record.
    static void Destroy(HandlerInternal* internal);

    /// The shared one.
    static HandlerInternal* None() { return &sm_none; }
    bool IsNone() const { return this == &sm_none || this == &sm_none_closed; }

    /// The Close of a handler with the shared one, whose `internal` this is. True once for each handler: its
    /// handle_close is to be called. False also for all other handlers.
    static bool CloseNone(HandlerInternal*& internal);

    /// The control block of a handler that the caller knows alive.
    static HandlerInternal& Of(CNetHandler& handler) { return *handler.m_internal; }

    /// Ends a handler that nobody knows yet, for want of memory for what belongs to it. Also under locks.
    static void Discard(CNetHandler* handler) {
        if (Of(*handler).IsNone()) {
            delete handler;
        } else {
            handler->CNetHandler::Close();
        }
    }

    /// As the operations of CNetHandler with these names: pins and tables need them below it.
    void AddRef() { m_ref.fetch_add(1, std::memory_order_relaxed); }
    void DecRef();
    void AddSock() { m_sock.fetch_add(1, std::memory_order_relaxed); }
    void DecSock() { m_sock.fetch_sub(1, std::memory_order_relaxed); }
    long GetID() const { return static_cast<long>(m_entry.m_id); }

    bool IsOpen() const { return __m_magic.load(std::memory_order_acquire) == HANDLER_OPEN; }

    /// Takes a reference if the handler is open. The reference comes first: it keeps the object alive over
    /// what the caller does, and a racing Close is seen either before or after it.
    bool EnterOpen();

private:
    HandlerInternal(CNetHandler* owner, CEvent* close_event) : m_close_event(close_event) {
        m_entry.m_owner = owner;
    }
    constexpr HandlerInternal() : __m_magic(HANDLER_CLOSED), m_close_called(1), m_close_event(nullptr) {}

    static HandlerInternal sm_none;         ///< Of handlers that are still to be closed.
    static HandlerInternal sm_none_closed;  ///< Of those that were.
};

}  // namespace Orvex::Reticor
