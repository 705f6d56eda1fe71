// MediaSnapshot: buffers and senders, one after another.
#include "Tool/verdict/MediaSnapshot.h"

#include <sched.h>

#include <algorithm>

#include "Tool/judge/EndedVerdicts.h"
#include "Tool/judge/VerdictText.h"
#include "Tool/media/MediaBufferState.h"
#include "Tool/step/CoreRoll.h"
#include "Tool/verdict/HeldSenders.h"

namespace Orvex::Reticor {

namespace {

constexpr uint64_t PATIENCE_US = 20000;

bool enter_soon(MediaCore& core) INFRA_NO_THREAD_SAFETY_ANALYSIS {  // for a MediaStep
    const uint64_t until_us = Infra::CTime::getCurrentMicroSecond() + PATIENCE_US;
    while (!core.m_mutex.tryEnter()) {
        if (Infra::CTime::getCurrentMicroSecond() >= until_us) {
            return false;
        }
        ::sched_yield();
    }
    return true;
}

void add_sender(const std::shared_ptr<MediaCore>& core, SenderRecord& record, MediaRows& rows)
    INFRA_REQUIRES(CORE_MUTEX) {
    MediaBufferState* const state = MediaBufferState::find(*core);
    if (state != nullptr && record.m_list == core.get()) {
        rows.senders.push_back(state->verdict_on(record));
    }
}

/// False if the buffer is not to be had.
bool add_row(const std::shared_ptr<MediaCore>& core, HeldSenders& senders,
             MediaRows& rows) INFRA_NO_THREAD_SAFETY_ANALYSIS {
    if (!enter_soon(*core)) {
        return false;
    }
    const MediaStep step(core, MediaStep::ENTERED);
    MediaBufferState* const state = MediaBufferState::find(*core);
    if (state == nullptr) {
        return false;
    }
    MediaBufferStats stats;
    state->m_frames.add_stats(stats);
    state->m_senders.add_stats(stats, state->m_frames.byte_discard());
    senders.add_all(*state);
    const FrameLine::Held held = state->m_frames.held();
    BufferStats row{};
    row.buffer = state->m_roll.number();
    row.senders = senders.all().size();
    row.frames = stats.frames;
    row.bytes = stats.bytes;
    row.put_bytes = state->m_frames.bytes_of(SenderHotState::ALL_CHANNELS);
    row.held_frames = held.frames;
    row.held_bytes = held.bytes;
    row.expired_frames = stats.expired_frames;
    row.expired_bytes = stats.expired_bytes;
    row.debt_bytes = stats.debt_bytes;
    row.pinned_frames = stats.pinned_frames;
    row.pinned_bytes = stats.pinned_bytes;
    row.kept_frames = stats.kept_frames;
    row.kept_bytes = stats.kept_bytes;
    rows.buffers.push_back(row);
    return true;
}

void add_buffer(const std::shared_ptr<MediaCore>& core, MediaRows& rows) INFRA_NO_THREAD_SAFETY_ANALYSIS {
    HeldSenders senders;
    if (!add_row(core, senders, rows)) {
        return;
    }
    for (CMediaStreamSender* const sender : senders.all()) {
        if (!enter_soon(*core)) {
            return;
        }
        const MediaStep step(core, MediaStep::ENTERED);
        add_sender(core, SenderRecord::of(*sender), rows);
    }
}

}  // namespace

void MediaSnapshot::gather(MediaRows& rows) {
    std::vector<std::shared_ptr<MediaCore>> cores;
    CoreRoll::list(cores);
    for (const std::shared_ptr<MediaCore>& core : cores) {
        add_buffer(core, rows);
    }
    std::sort(rows.buffers.begin(), rows.buffers.end(),
              [](const BufferStats& a, const BufferStats& b) { return a.buffer < b.buffer; });
    std::sort(rows.senders.begin(), rows.senders.end(), &VerdictText::suffers_more);
    rows.ended.resize(EndedVerdicts::MOST);
    rows.ended.resize(EndedVerdicts::copy(rows.ended.data(), &rows.ended_ever));
}

}  // namespace Orvex::Reticor
