// RoomWatch: a bit of a record's mask, and what comes with it.
#include "Core/service/RoomWatch.h"

#include "Core/pool/PoolLease.h"
#include "Core/pool/PoolTable.h"
#include "Core/pool/ThreadPool.h"

namespace Orvex::Reticor {

namespace {

/// The record of a registered socket with its mutex entered, or an empty pin.
RecordPin find(CThreadPool& pool, int fd) {
    return RecordPin::Adopt(static_cast<CEvent*>(pool.m_sock_tree.Find(fd)));
}

void take_off(CThreadPool& pool, CEvent* ev) {
    if (drop_room(ev) && !is_in_flight(ev)) {
        pool.m_mux.ModifyEvent(ev);  // else its worker watches it again, by the new mask
    }
}

}  // namespace

bool RoomWatch::is_placed(const CEvent* ev) {
    return is_in_flight(ev) || ((mux_book(ev) & SOCK_WRITE) != 0 && mux_form(ev) != MuxForm::gone &&
                                mux_form(ev) != MuxForm::refused && mux_form(ev) != MuxForm::parked);
}

RoomPlace RoomWatch::begin(int64_t owner, int fd) {
    if (fd < 0 || !PoolTable::IsOpen(owner)) {
        return {};
    }
    const PoolLease pool = PoolLease::OfId(owner);
    RecordPin ev = pool ? find(*pool, fd) : RecordPin();
    if (!ev || ev->m_obj_id != owner || (ev->m_event_mask & SOCK_READ) == 0 ||
        (ev->m_event_mask & (SOCK_WRITE | SOCK_ROOM | SOCK_REMOVED)) != 0) {
        return {};
    }
    ev->m_event_mask |= SOCK_WRITE | SOCK_ROOM;
    if (!is_in_flight(ev.get())) {
        pool->m_mux.ModifyEvent(ev.get());
        if (!is_placed(ev.get())) {
            take_off(*pool, ev.get());
            return {};
        }
    }
    sm_begun.fetch_add(1, std::memory_order_relaxed);
    return {owner, fd, ev->m_timer.m_sequence};
}

void RoomWatch::end(RoomPlace& place) {
    const RoomPlace former = place;
    place = {};
    if (!former.is_taken()) {
        return;
    }
    const PoolLease pool = PoolLease::OfId(former.m_owner);
    RecordPin ev = pool ? find(*pool, former.m_fd) : RecordPin();
    if (ev && ev->m_timer.m_sequence == former.m_sequence) {
        take_off(*pool, ev.get());
    }
}

void RoomWatch::end_all(int64_t owner, int fd) {
    const PoolLease pool = PoolLease::OfId(owner);
    RecordPin ev = pool && fd >= 0 ? find(*pool, fd) : RecordPin();
    if (ev && ev->m_obj_id == owner) {
        take_off(*pool, ev.get());
    }
}

bool RoomWatch::stands(const RoomPlace& place) {
    if (!place.is_taken() || !PoolTable::IsOpen(place.m_owner)) {
        return false;
    }
    const PoolLease pool = PoolLease::OfId(place.m_owner);
    RecordPin ev = pool ? find(*pool, place.m_fd) : RecordPin();
    return ev && ev->m_timer.m_sequence == place.m_sequence && (ev->m_event_mask & SOCK_ROOM) != 0 &&
           ev->m_obj_id == place.m_owner && !has_flag(ev.get(), MUX_ORPHAN) && is_placed(ev.get());
}

}  // namespace Orvex::Reticor
