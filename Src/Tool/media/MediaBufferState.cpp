// MediaBufferState: what a packet or a tick sets off.
#include "Tool/media/MediaBufferState.h"

#include <algorithm>
#include <new>
#include <utility>

#include "Tool/frame/MediaTrace.h"

namespace Orvex::Reticor {

namespace {

int clamp_level(int level_word) {
    const int level = std::clamp(level_of(level_word), FrameLine::LEVEL_MOST, FrameLine::LEVEL_LEAST);
    return static_cast<int>((static_cast<uint32_t>(level_word) & 0xFF000000U) | static_cast<uint32_t>(level));
}

}  // namespace

MediaBufferState::MediaBufferState(CMediaBuffer& owner)
    : m_owner(owner), m_frames(*m_core, &owner), m_senders(*m_core), m_auto_send(*this) {
    const CoreGuard guard(*m_core);
    m_core->open(*this);
}

MediaBufferState::~MediaBufferState() = default;

// Senders.

SenderEntry MediaBufferState::add_sender(SenderRecord& record) {
    const std::shared_ptr<MediaCore> before = record.core();
    const bool moves = before && before != m_core;
    if (m_core->steps_on_this_thread() || (moves && TargetStepMark::inside())) {
        return {nullptr, !record.m_coming.note(m_core), false};
    }
    std::unique_ptr<GoneSender> reference(new (std::nothrow) GoneSender{record.m_owner});
    if (reference == nullptr) {
        return {nullptr, false, true};
    }
    record.move_to(m_core);
    const MediaStep step(m_core);
    if (record.m_list == m_core.get()) {
        return {nullptr, true, false};
    }
    if (record.m_list == nullptr) {
        m_senders.add(record, std::move(reference));
        return {nullptr, false, false};
    }
    return {record.m_list, false, false};
}

// A call-back may be inside this sender's own sending, or in the walk over the list, so its wish waits; but
// as the socket may be closed as soon as the call returns, nothing is written to it any more.
void MediaBufferState::take_off(SenderRecord& record, bool inside_call_back) {
    record.m_coming.take_back(*m_core);
    if (!inside_call_back) {
        del_sender(record);
    } else if (m_senders.holds(record)) {
        record.set_leaving();
        m_core->note_leaving();
    }
}

void MediaBufferState::drop_leaving() {
    for (SenderRecord* record = m_senders.first(); record != nullptr;) {
        SenderRecord* const next = record->m_next;
        if (record->m_leaving) {
            del_sender(*record);
        }
        record = next;
    }
}

void MediaBufferState::del_sender(SenderRecord& record) {
    m_senders.remove(record);
    if (m_senders.ran_empty()) {
        m_frames.drop_complete();
    }
}

// Packets.

int MediaBufferState::accept(CMediaPacket* packet, int len, int mark, int level) {
    m_send_ready = false;
    m_taps.show(packet, len, mark, level);
    m_frames.begin_if_empty();
    if (MediaTrace::on()) {
        MediaTrace::packet_taken(&m_owner, packet, len, mark, level);
    }
    const int level_word = clamp_level(level);
    m_frames.append(packet, len, mark, level_word);
    return channel_of(level_word);
}

void MediaBufferState::complete() {
    m_frames.complete();
    if (!m_senders.has_sender()) {
        m_frames.drop_complete();
        return;
    }
    m_send_ready = true;
    m_frames.offer();
}

uint64_t MediaBufferState::send_packet(bool has_packet, bool ages) {
    m_frames.begin_if_empty();
    const std::optional<uint64_t> passed = give_turns();
    const uint64_t missing = passed ? m_frames.let_pass(*passed) : 0;
    after_sending(has_packet, ages);
    return missing;
}

std::optional<uint64_t> MediaBufferState::give_turns() {
    uint64_t should_discard = m_frames.byte_discard();
    uint64_t min_discard = m_core->m_byte_total;
    const bool printing = MediaTrace::on();
    if (printing) {
        MediaTrace::walk_begins(&m_owner, should_discard, min_discard);
    }
    bool policy_only = m_senders.first() != nullptr;
    CFrame* const offered = m_frames.current();
    for (SenderRecord* record = m_senders.first(); record != nullptr;) {
        record->fetch_next();
        policy_only = policy_only && record->has_policy();
        if (record->wants_keep() != record->m_keeps) {
            change_mode(*record);
        }
        if (record->m_leaving || !join(*record)) {
            record = record->m_next;
            continue;
        }
        if (printing) {
            MediaTrace::sender_begins(&m_owner, record->m_owner, offered);
        }
        MediaSending turn(*record);
        const TurnEnd end = turn.run(offered);
        if (end != TurnEnd::DONE) {
            turn.report();
        }
        const uint64_t total = record->m_send_total;
        if (printing) {
            MediaTrace::sender_ends(&m_owner, record->m_owner,
                                    is_failure(end) ? -1 : static_cast<long long>(total));
        }
        SenderRecord* const next = record->m_next;
        if (is_failure(end)) {
            if (printing) {
                MediaTrace::sender_failed(&m_owner, next != nullptr ? next->m_owner : nullptr);
            }
            record->set_failed();
            del_sender(*record);
            if (!m_senders.has_sender()) {
                m_frames.set_policy_only(policy_only);
                return std::nullopt;
            }
        } else if (total <= min_discard) {
            min_discard = total;
            should_discard = total;
        }
        record = next;
    }
    m_frames.set_policy_only(policy_only);
    return should_discard;
}

// A sender's own choice of a mode holds from its next turn on.
void MediaBufferState::change_mode(SenderRecord& record) {
    if (record.m_keeps) {
        record.end_keeping();
    } else {
        m_frames.begin_keeping(record);
    }
    if (record.m_failed) {  // There was no memory for what it had begun.
        record.set_leaving();
        m_core->note_leaving();
    }
}

// Gives a sender that has no place in the stream yet its place, at the frame on offer, if that is a key frame
// of its channel. False if it has to wait for another one. Between two frames the frame on offer is the empty
// one, which looks like a key frame of channel 0; the resume policy does not take it for one.
bool MediaBufferState::join(SenderRecord& record) {
    if (record.has_joined()) {
        return true;
    }
    CFrame& frame = *m_frames.current();
    if (record.m_frame != nullptr || !record.at_boundary()) {
        record.leave_frame();
    }
    if (frame.level() > m_frames.min_level(frame.channel()) || (record.has_policy() && frame.m_valid == 0) ||
        (record.m_keeps && !frame.m_kept)) {
        return false;
    }
    record.join(frame, m_core->m_byte_total - static_cast<uint64_t>(frame.m_frame_len));
    return true;
}

void MediaBufferState::after_sending(bool has_packet, bool ages) {
    if (ages) {
        m_frames.age();
    }
    if (m_frames.current() == nullptr) {
        m_frames.begin_if_empty();
    } else if (has_packet) {
        m_frames.open_next();
    }
    m_frames.count_valid();
}

MediaBufferStats MediaBufferState::stats() {
    const CoreGuard guard(*m_core);
    MediaBufferStats stats;
    m_frames.add_stats(stats);
    m_senders.add_stats(stats, m_frames.byte_discard());
    return stats;
}

void MediaBufferState::retire() {
    m_auto_send.disable();
    // Whatever calls raced before, after this no record of the timer's list names this buffer.
    CSenderHandler::Remove(0, this);
    const MediaStep step(m_core);
    m_frames.drop_all();
    m_senders.clear();  // What came inside the releases.
    m_taps.clear();
    m_core->close();
}

}  // namespace Orvex::Reticor
