// RoomWait: places and deadlines.
#include "Tool/media/RoomWait.h"

#include <algorithm>

#include <Reticor/Sock.h>

#include "Core/pool/PoolTable.h"
#include "Core/service/NetTimer.h"

namespace Orvex::Reticor {

// The simulator's socket is a real one that always has room.
bool RoomWait::begin(CSock* stream, uint64_t due_us, uint64_t now_us) {
    if (m_place.is_taken()) {
        return true;
    }
    if (owner() != 0 && stream != nullptr && stream->GetType() != SOCK_TYPE_SIMULATOR) {
        m_place = RoomWatch::begin(owner(), stream->GetHandle());
    }
    if (m_place.is_taken() && keep_deadline(due_us, now_us)) {
        ++m_stats.waits;
        return true;
    }
    end();
    ++m_stats.without_place;
    return false;
}

// A timer that runs is left alone: when it is due it is looked how much is left. No tick would find a sender
// that was closed while it is on a list.
bool RoomWait::keep_deadline(uint64_t due_us, uint64_t now_us) {
    if (due_us == NO_DEADLINE || m_timer != 0) {
        return true;
    }
    const long sender = m_mark.m_sender.GetID();
    const uint64_t left_us = due_us > now_us ? due_us - now_us : 0;
    const long timer =
        PoolTable::IsOpen(sender)
            ? CNetTimer::SetTimer(sender, static_cast<int64_t>(std::min(left_us, TIMER_MOST_US)))
            : -1;
    m_timer = timer != -1 ? timer : 0;
    return timer != -1;
}

void RoomWait::change_deadline(uint64_t due_us, uint64_t now_us) {
    drop_timer();
    if (m_place.is_taken()) {
        keep_deadline(due_us, now_us);
    }
}

void RoomWait::drop_timer() {
    if (m_timer != 0) {
        CNetTimer::DestroyTimer(m_timer);
        m_timer = 0;
    }
}

RoomWait::Tick RoomWait::tick(long timer, uint64_t due_us, uint64_t now_us) {
    if (timer != m_timer) {
        return Tick::OVER;
    }
    if (!m_place.is_taken() || due_us == NO_DEADLINE) {
        m_timer = 0;
        return Tick::OVER;
    }
    return now_us < due_us ? Tick::EARLY : Tick::STALLED;
}

}  // namespace Orvex::Reticor
