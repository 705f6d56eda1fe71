// HandlerList: all handlers from construction to destruction.
#include "Core/handle/HandlerList.h"

#include <time.h>

#include <atomic>

#include <Infra/Atomic.h>

namespace Orvex::Reticor {

HandlerList::Shard HandlerList::sm_shards[SHARDS];

uint32_t HandlerList::NowMs() {
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<uint32_t>(static_cast<uint64_t>(now.tv_sec) * 1000 +
                                 static_cast<uint64_t>(now.tv_nsec) / 1000000);
}

/// `after` is null for the front of the list.
void HandlerList::Shard::link(HandlerLink& link, HandlerLink* after) {
    link.m_prev = after;
    link.m_next = after != nullptr ? after->m_next : first;
    (after != nullptr ? after->m_next : first) = &link;
    if (link.m_next != nullptr) {
        link.m_next->m_prev = &link;
    }
}

void HandlerList::Shard::unlink(HandlerLink& link) {
    (link.m_prev != nullptr ? link.m_prev->m_next : first) = link.m_next;
    if (link.m_next != nullptr) {
        link.m_next->m_prev = link.m_prev;
    }
}

void HandlerList::Enter(HandlerNode& handler) {
    // Objects lie at multiples of 16, and neighbours should not share a list.
    const uintptr_t place = reinterpret_cast<uintptr_t>(&handler);
    handler.m_shard = static_cast<uint8_t>((place >> 4 ^ place >> 8) % SHARDS);
    handler.m_born_ms = NowMs();
    Shard& shard = sm_shards[handler.m_shard];
    Infra::CGuard guard(shard.mutex);
    shard.link(handler.m_link, nullptr);
}

void HandlerList::Leave(HandlerNode& handler) {
    Shard& shard = sm_shards[handler.m_shard];
    Infra::CGuard guard(shard.mutex);
    shard.unlink(handler.m_link);
}

void HandlerList::SetClass(HandlerNode& handler, const void* vtable, uint32_t row_offset) {
    // Under the lock, so that of two threads that see different classes one sets both words last.
    Infra::CGuard guard(sm_shards[handler.m_shard].mutex);
    handler.m_row_offset.store(row_offset, std::memory_order_relaxed);
    handler.m_vtable.store(vtable, std::memory_order_release);
}

HandlerFacts HandlerList::facts_of(const HandlerNode& handler) {
    HandlerFacts facts{};
    facts.id = Infra::relaxedLoad(handler.m_entry.m_id);
    facts.row = ThreadCounts::row_at(handler.m_row_offset.load(std::memory_order_relaxed));
    facts.references = handler.m_ref.load(std::memory_order_relaxed);
    facts.sockets = handler.m_sock.load(std::memory_order_relaxed);
    facts.born_ms = handler.m_born_ms;
    facts.dropped_soon = Infra::relaxedLoad(handler.m_drop_listed);
    facts.holders = HolderNotesPin(handler.m_holders);
    if (handler.m_close_called.load(std::memory_order_relaxed) != 0) {
        facts.state = HandlerState::RELEASED;
    } else if (handler.m_detached.load(std::memory_order_relaxed)) {
        facts.state = HandlerState::DETACHED;
    } else {
        facts.state = handler.IsOpen() ? HandlerState::OPEN : HandlerState::CLOSING;
    }
    return facts;
}

HandlerList::Walker::Walker(Shard& shard) : m_shard(shard) {
    Infra::CGuard guard(m_shard.mutex);
    m_shard.link(m_link, nullptr);
}

HandlerList::Walker::~Walker() {
    Infra::CGuard guard(m_shard.mutex);
    m_shard.unlink(m_link);
}

size_t HandlerList::Walker::Next(HandlerFacts* facts) {
    size_t count = 0;
    Infra::CGuard guard(m_shard.mutex);
    HandlerLink* last = &m_link;
    while (count < BATCH && last->m_next != nullptr) {
        last = last->m_next;
        if (last->m_handler != nullptr) {
            facts[count++] = facts_of(*last->m_handler);
        }
    }
    if (last != &m_link) {
        m_shard.unlink(m_link);
        m_shard.link(m_link, last);
    }
    return count;
}

}  // namespace Orvex::Reticor
