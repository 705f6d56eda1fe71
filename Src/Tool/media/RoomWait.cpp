// RoomWait: places and deadlines.
#include "Tool/media/RoomWait.h"

#include <algorithm>
#include <utility>

#include <Reticor/Sock.h>

#include "Core/pool/PoolTable.h"
#include "Core/service/NetTimer.h"

namespace Orvex::Reticor {

// The simulator's socket is a real one that always has room.
bool RoomWait::begin(CSock* stream, uint64_t due_us, uint64_t now_us) {
    if (m_place.is_taken() || m_pause_timer != 0) {
        return true;
    }
    if (const uint64_t until_us = std::exchange(m_pause_until_us, 0)) {
        m_pause_timer = set_timer(until_us > now_us ? until_us - now_us : 0);
        return m_pause_timer != 0;  // Without a timer the next step has it go on.
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

// A timer that runs is left alone: when it is due it is looked how much is left.
bool RoomWait::keep_deadline(uint64_t due_us, uint64_t now_us) {
    if (due_us == NO_DEADLINE || m_timer != 0) {
        return true;
    }
    m_timer = set_timer(due_us > now_us ? due_us - now_us : 0);
    return m_timer != 0;
}

// No tick would find a sender that was closed while it is on a list.
long RoomWait::set_timer(uint64_t left_us) {
    const long sender = m_mark.m_sender.GetID();
    const long timer =
        PoolTable::IsOpen(sender)
            ? CNetTimer::SetTimer(sender, static_cast<int64_t>(std::min(left_us, TIMER_MOST_US)))
            : -1;
    return timer != -1 ? timer : 0;
}

void RoomWait::drop_pause() {
    m_pause_until_us = 0;
    if (m_pause_timer != 0) {
        CNetTimer::DestroyTimer(m_pause_timer);
        m_pause_timer = 0;
    }
}

bool RoomWait::ends_pause(long timer) {
    if (timer != m_pause_timer) {
        return false;
    }
    m_pause_timer = 0;
    return true;
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
