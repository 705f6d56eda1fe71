// RoomWait: how a sender waits until its socket has room.
#pragma once

#include <Reticor/MediaStreamSender.h>

#include <cstdint>

#include <Infra/Atomic.h>

#include "Core/service/RoomWatch.h"
#include "Tool/step/MediaStep.h"

namespace Orvex::Reticor {

class CSock;

/// The part of a SenderRecord that is touched when its socket is full. A sender whose socket was full
/// (SenderHotState::m_full) is not tried again until it has room, or until its place turns out to be lost; if
/// it stands at a frame it is off the list of those that have turns (SenderLine::park).
///
/// Thread safety: guarded by the core's mutex but for what says otherwise.
class RoomWait {
public:
    static constexpr uint64_t NO_DEADLINE = ~uint64_t{0};
    static constexpr uint64_t TIMER_MOST_US = uint64_t{24} * 60 * 60 * 1000000;

    RoomWait(SenderRecord& record, CNetHandler& sender) : m_mark(record, sender) {}
    RoomWait(const RoomWait&) = delete;
    RoomWait& operator=(const RoomWait&) = delete;

    /// Who is to be called when there is room; 0: nobody, and the sender does not wait. No lock.
    long owner() const { return Infra::relaxedLoad(m_owner); }
    void set_owner(long owner) { Infra::relaxedStore(m_owner, owner); }

    /// The socket was full: takes a place, and has the deadline kept. False, and nothing is waited for, if
    /// there is no place.
    bool begin(CSock* stream, uint64_t due_us, uint64_t now_us) INFRA_REQUIRES(CORE_MUTEX);
    /// Instead of room, this time is waited for: `begin` has a timer for it then.
    void begin_pause(uint64_t until_us) INFRA_REQUIRES(CORE_MUTEX) { m_pause_until_us = until_us; }
    /// A timer has run out. False if it was not that of a pause.
    bool ends_pause(long timer) INFRA_REQUIRES(CORE_MUTEX);
    /// Nothing is waited for any more. Every way off the list ends with it.
    void end() INFRA_REQUIRES(CORE_MUTEX) {
        RoomWatch::end(m_place);
        drop_pause();
    }
    /// The reactor has called, and the place is given back.
    void note_room() INFRA_REQUIRES(CORE_MUTEX) {
        m_place = {};
        ++m_stats.resumes;
    }
    bool has_place() const INFRA_REQUIRES(CORE_MUTEX) { return m_place.is_taken(); }
    bool stands() const INFRA_REQUIRES(CORE_MUTEX) {
        return m_pause_timer != 0 || RoomWatch::stands(m_place);
    }
    /// The place turned out to be lost: the sender tries at each step again.
    void count_lost() INFRA_REQUIRES(CORE_MUTEX) { ++m_stats.without_place; }

    /// The limit for stalls has changed.
    void change_deadline(uint64_t due_us, uint64_t now_us) INFRA_REQUIRES(CORE_MUTEX);
    /// What the timer's tick finds: nothing to be kept, and the timer ends; time that is left; or a stall.
    enum class Tick { OVER, EARLY, STALLED };
    Tick tick(long timer, uint64_t due_us, uint64_t now_us) INFRA_REQUIRES(CORE_MUTEX);
    void drop_timer() INFRA_REQUIRES(CORE_MUTEX);

    void count_full_try() INFRA_REQUIRES(CORE_MUTEX) { ++m_stats.full_tries; }
    void count_write(uint64_t frames) INFRA_REQUIRES(CORE_MUTEX) {
        ++m_stats.gathers;
        m_stats.gathered_frames += frames;
    }
    void count_step_ahead() INFRA_REQUIRES(CORE_MUTEX) { ++m_stats.steps_ahead; }
    const MediaRoomStats& stats() const INFRA_REQUIRES(CORE_MUTEX) { return m_stats; }

    /// For a worker that finds the lock taken. No lock.
    RoomMark m_mark;
    /// The deadline's; 0: none.
    long timer() const INFRA_REQUIRES(CORE_MUTEX) { return m_timer; }
    /// A pause's; 0: none.
    long pause_timer() const INFRA_REQUIRES(CORE_MUTEX) { return m_pause_timer; }
    // Of SenderLine.
    bool m_parked = false;
    bool m_counted_plain = false;            ///< It was parked without a resume policy.
    SenderRecord** m_parked_link = nullptr;  ///< What points at it among those that are parked.

private:
    bool keep_deadline(uint64_t due_us, uint64_t now_us) INFRA_REQUIRES(CORE_MUTEX);
    void drop_pause() INFRA_REQUIRES(CORE_MUTEX);
    /// 0 if it cannot be had.
    long set_timer(uint64_t left_us) INFRA_REQUIRES(CORE_MUTEX);

    long m_owner = 0;
    long m_timer = 0;  ///< Runs until it finds that nothing is waited for; 0: none.
    RoomPlace m_place;
    uint64_t m_pause_until_us = 0;  ///< Until `begin`: the pause that it is to have a timer for; 0: none.
    long m_pause_timer = 0;         ///< 0: none.
    MediaRoomStats m_stats;
};

}  // namespace Orvex::Reticor
