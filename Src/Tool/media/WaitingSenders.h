// WaitingSenders: what a step of a buffer does about the senders that wait for room.
#pragma once

#include <cstdint>

#include "Tool/media/FrameLine.h"
#include "Tool/media/SenderLine.h"

namespace Orvex::Reticor {

/// A sender whose socket was full has no turns until the socket has room: a step neither tries it nor comes
/// by, however many there are. What is to be done all the same is done here, at the beginning of a step,
/// and costs nothing while there is nothing to do:
///
/// - whoever has lost his place goes on trying at each step, as senders do that do not wait;
/// - whoever stands at the beginning of a frame that has become too old for its resume policy is stepped
///   ahead without a write, and so is whoever begins anew there when a newer key frame comes. A step looks at
///   the frames that are late, and at a sender once when its frame becomes late, and once for each new key
///   frame, or when channels begin or cease to follow others;
/// - whoever lost his frame to the bounds of memory is offered the next ones again.
class WaitingSenders {
public:
    WaitingSenders(MediaCore& core, SenderLine& senders, FrameLine& frames)
        : m_core(core), m_senders(senders), m_frames(frames) {}
    WaitingSenders(const WaitingSenders&) = delete;
    WaitingSenders& operator=(const WaitingSenders&) = delete;

    /// The sender's turn is over; `before` is the one before it on the list. True if it waits now apart from
    /// the others.
    bool park_if_full(SenderRecord* before, SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX);
    /// A sender that was parked has gone on.
    void settle(SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX);

    /// The beginning of a step.
    void look_after() INFRA_REQUIRES(CORE_MUTEX);
    /// A sender among those that are parked does not wait any more, or stands at no frame: the next step
    /// has it among the others.
    void note_idle() INFRA_REQUIRES(CORE_MUTEX) { m_core.note_idle(); }
    /// A frame is on offer. Those that are late may step ahead to a key frame, or because their channel does
    /// not follow another one any more.
    void note_offer(bool key, unsigned roles) INFRA_REQUIRES(CORE_MUTEX) {
        m_news += key || roles != m_roles ? 1 : 0;
        m_roles = roles;
    }

private:
    void give_up_lost() INFRA_REQUIRES(CORE_MUTEX);
    void unpark_idle() INFRA_REQUIRES(CORE_MUTEX);
    void step_late_ahead(uint64_t least_age_us) INFRA_REQUIRES(CORE_MUTEX);
    void look_at(CFrame& frame) INFRA_REQUIRES(CORE_MUTEX);
    static uint64_t late_from(const SenderRecord& record, const CFrame& frame) INFRA_REQUIRES(CORE_MUTEX);
    static bool begins_anew(const SenderRecord& record, const CFrame& frame) INFRA_REQUIRES(CORE_MUTEX);
    void expect_late(SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX);

    static constexpr uint64_t NEVER = ~uint64_t{0};

    MediaCore& m_core;
    SenderLine& m_senders;
    FrameLine& m_frames;
    uint32_t m_losses INFRA_GUARDED_BY(CORE_MUTEX) = RoomLosses::count();  ///< As of the last look.
    uint64_t m_news INFRA_GUARDED_BY(CORE_MUTEX) = 0;         ///< Offers that can change what is late.
    uint64_t m_looked_news INFRA_GUARDED_BY(CORE_MUTEX) = 0;  ///< As of the last look.
    /// Some that are parked may stand at a key frame with which they begin anew.
    bool m_some_begin INFRA_GUARDED_BY(CORE_MUTEX) = false;
    unsigned m_roles INFRA_GUARDED_BY(CORE_MUTEX) = 0;  ///< As of the last offer.
    /// The least age at which a frame is late for one of those that are parked; NEVER while there is none.
    uint64_t m_least_lag_us INFRA_GUARDED_BY(CORE_MUTEX) = NEVER;
};

}  // namespace Orvex::Reticor
