// WaitingSenders: places that were lost, frames that became late.
#include "Tool/media/WaitingSenders.h"

#include <algorithm>

#include "Tool/media/MediaSending.h"

namespace Orvex::Reticor {

bool WaitingSenders::park_if_full(SenderRecord* before, SenderRecord& record) {
    if (!record.m_full || record.m_leaving || !record.begin_room() || record.m_frame == nullptr) {
        return false;
    }
    m_senders.park(before, record);
    expect_late(record);
    return true;
}

void WaitingSenders::settle(SenderRecord& record) {
    const bool waits = record.m_full && !record.m_leaving && record.begin_room() && record.m_frame != nullptr;
    if (record.m_room.m_parked && !waits) {
        m_senders.unpark(record);
    } else if (record.m_room.m_parked) {
        expect_late(record);
    }
}

void WaitingSenders::look_after() {
    if (m_losses != RoomLosses::count()) {
        m_losses = RoomLosses::count();
        give_up_lost();
    }
    if (m_core.m_some_idle) {
        unpark_idle();
    }
    if (m_senders.first_parked() == nullptr) {
        m_least_lag_us = NEVER;
        m_some_begin = false;
    } else {
        // Whoever is to begin anew begins at the newest key frame, late or not.
        const bool all = m_some_begin && m_looked_news != m_news;
        m_looked_news = m_news;
        if (all || m_least_lag_us != NEVER) {
            step_late_ahead(all ? 0 : m_least_lag_us);
        }
    }
}

void WaitingSenders::give_up_lost() {
    for (SenderRecord* record = m_senders.first(); record != nullptr; record = record->m_next) {
        if (record->m_full && !record->m_room.stands()) {
            record->end_room();
            record->m_room.count_lost();
        }
    }
    for (SenderRecord* record = m_senders.first_parked(); record != nullptr;) {
        SenderRecord* const next = record->m_next;
        if (!record->m_room.stands()) {
            record->end_room();
            record->m_room.count_lost();
            m_senders.unpark(*record);
        }
        record = next;
    }
}

void WaitingSenders::unpark_idle() {
    m_core.m_some_idle = false;
    for (SenderRecord* record = m_senders.first_parked(); record != nullptr;) {
        SenderRecord* const next = record->m_next;
        if (record->m_frame == nullptr || !record->m_full) {
            m_senders.unpark(*record);
        }
        record = next;
    }
}

// Late senders.

// From when on the decision about the frame may be another one: frames that others can do without are left
// out early, and beyond a hard bound nothing is begun.
uint64_t WaitingSenders::late_from(const SenderRecord& record, const CFrame& frame) {
    const uint64_t lag_us = frame.m_disposable ? record.max_lag_us() / 2 : record.max_lag_us();
    return frame.m_complete_us + lag_us;
}

void WaitingSenders::expect_late(SenderRecord& record) {
    if (record.has_policy() && record.m_frame != nullptr && record.at_boundary()) {
        record.m_frame->look_late_again();
        uint64_t least_us = record.max_lag_us() / 2;
        if (record.hard_lag_us() != 0) {
            least_us = std::min(least_us, record.hard_lag_us());
        }
        m_least_lag_us = std::min(m_least_lag_us, least_us);
        m_some_begin = m_some_begin || begins_anew(record, *record.m_frame);
    }
}

bool WaitingSenders::begins_anew(const SenderRecord& record, const CFrame& frame) {
    return frame.is_key() && record.m_courses.misses_needed(frame);
}

// Frames are in the order of their time, so the walks end at the first one that is young.
void WaitingSenders::step_late_ahead(uint64_t least_age_us) {
    const uint64_t now_us = m_core.now();
    for (CFrame* frame = m_frames.head(); frame != nullptr && frame->m_frame_len >= 1;
         frame = frame->m_next) {
        if (frame->is_filling() || now_us < frame->m_complete_us + least_age_us) {
            break;
        }
        look_at(*frame);
    }
    for (CFrame* frame = m_frames.first_kept(); frame != nullptr; frame = frame->m_kept_next) {
        if (now_us < frame->m_complete_us + least_age_us) {
            break;
        }
        look_at(*frame);
    }
}

// What is found is good until the next one becomes late, or such an offer comes.
void WaitingSenders::look_at(CFrame& frame) {
    const uint64_t now_us = m_core.now();
    if (frame.m_standing == nullptr || !frame.is_to_be_looked_at(now_us, m_news)) {
        return;
    }
    uint64_t again_us = NEVER;
    for (SenderRecord* record = frame.m_standing; record != nullptr;) {
        SenderRecord* const next = record->m_standing_next;
        const bool looks = record->m_room.m_parked && record->m_list == &m_core && record->at_boundary() &&
                           record->has_policy();
        if (looks && record->m_other.waits()) {
            again_us = now_us;  // That goes first, and no frame is chosen before it has.
        } else if (looks) {
            const uint64_t late_us = late_from(*record, frame);
            const uint64_t hard_us =
                record->hard_lag_us() != 0 ? frame.m_complete_us + record->hard_lag_us() : NEVER;
            const bool late = now_us > late_us || now_us > hard_us || begins_anew(*record, frame);
            if (late && MediaSending(*record).step_ahead()) {
                record->m_room.count_step_ahead();
                if (record->m_frame == nullptr) {
                    m_senders.unpark(*record);
                } else {
                    expect_late(*record);
                }
            } else {
                // From when on a frame that others can do without is left out, changes with what key frames
                // take.
                const uint64_t later_us = frame.m_disposable ? now_us : NEVER;
                again_us = std::min(
                    {again_us, now_us > late_us ? later_us : late_us, now_us > hard_us ? NEVER : hard_us});
            }
        }
        record = next;
    }
    frame.looked_late(again_us, m_news);
}

}  // namespace Orvex::Reticor
