// HandlerInternal: the control block of a handler, and what the lower wings do with it.
#pragma once

#include <atomic>
#include <cstdint>

#include <Reticor/NetHandler.h>

#include "Core/count/ThreadCounts.h"
#include "Core/handle/HandlerList.h"

namespace Orvex::Reticor {

struct CEvent;

/// The control block of a handler: what is seen of it in lists, and what the operations need beside that.
struct HandlerInternal : HandlerNode {
    /// Receiver of the short posting forms. Set and read without a lock.
    std::atomic<int64_t> m_default_rcer{0};

    /// Link of HandlerDrops.
    CNetHandler* m_drop_next = nullptr;

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
    /// The same for the product, from `place`.
    void AddRefFrom(const void* place) {
        if (__builtin_expect(m_holders != nullptr, 0)) {
            add_ref_noted(place);
            return;
        }
        AddRef();
    }
    void DecRefFrom(const void* place) {
        if (__builtin_expect(m_holders != nullptr, 0)) {
            dec_ref_noted(place);
            return;
        }
        DecRef();
    }
    void AddSock() { m_sock.fetch_add(1, std::memory_order_relaxed); }
    void DecSock() { m_sock.fetch_sub(1, std::memory_order_relaxed); }
    long GetID() const { return static_cast<long>(m_entry.m_id); }

    /// Where calls of the handler are counted, by its class at this moment. `handler` is this one's, alive.
    uint32_t RowOffset(const CNetHandler& handler) {
        const void* const vtable = vtable_of(handler);
        if (__builtin_expect(m_vtable.load(std::memory_order_acquire) != vtable, 0)) {
            note_class(handler, vtable);
        }
        return m_row_offset.load(std::memory_order_relaxed);
    }

    /// Takes a reference if the handler is open. The reference comes first: it keeps the object alive over
    /// what the caller does, and a racing Close is seen either before or after it.
    bool EnterOpen();

private:
    HandlerInternal(CNetHandler* owner, CEvent* close_event) : m_close_event(close_event) {
        m_entry.m_owner = owner;
    }
    constexpr HandlerInternal() : HandlerNode(HANDLER_CLOSED, 1), m_close_event(nullptr) {}

    /// The first word of every object with virtual operations.
    static const void* vtable_of(const CNetHandler& handler) {
        return *reinterpret_cast<const void* const*>(&handler);
    }
    void note_class(const CNetHandler& handler, const void* vtable);
    // Out of the way, so that a reference without notes costs no more than the question.
    void add_ref_noted(const void* place);
    void dec_ref_noted(const void* place);

    static HandlerInternal sm_none;         ///< Of handlers that are still to be closed.
    static HandlerInternal sm_none_closed;  ///< Of those that were.
};

}  // namespace Orvex::Reticor
