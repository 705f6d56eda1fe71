// MediaBufferState: what a packet or a tick sets off.
#include "Tool/media/MediaBufferState.h"

#include <algorithm>
#include <new>
#include <utility>

#include "Tool/frame/MediaTrace.h"
#include "Tool/media/SenderLook.h"

namespace Orvex::Reticor {

namespace {

int clamp_level(int level_word) {
    const int level = std::clamp(level_of(level_word), FrameLine::LEVEL_MOST, FrameLine::LEVEL_LEAST);
    return static_cast<int>((static_cast<uint32_t>(level_word) & 0xFF000000U) | static_cast<uint32_t>(level));
}

}  // namespace

MediaBufferState::MediaBufferState(CMediaBuffer& owner)
    : m_owner(owner),
      m_frames(*m_core, &owner),
      m_senders(*m_core),
      m_auto_send(*this),
      m_waiting(*m_core, m_senders, m_frames) {
    const CoreGuard guard(*m_core);
    m_core->open(*this);
}

MediaBufferState::~MediaBufferState() = default;

// Senders.

SenderEntry MediaBufferState::add_sender(SenderRecord& record) {
    const std::shared_ptr<MediaCore> before = record.m_seat.get();
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
        first_turn(record);
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
        record.end_room();
        m_core->note_leaving();
    }
}

void MediaBufferState::drop_leaving() {
    for (SenderRecord* first : {m_senders.first(), m_senders.first_parked()}) {
        for (SenderRecord* record = first; record != nullptr;) {
            SenderRecord* const next = record->m_next;
            if (record->m_leaving) {
                del_sender(*record);
            }
            record = next;
        }
    }
}

void MediaBufferState::del_sender(SenderRecord& record) {
    m_senders.remove(record);
    if (m_senders.ran_empty()) {
        m_frames.drop_complete();
    }
}

void MediaBufferState::take_back(CMediaStreamSender& sender) {
    TargetStepMark::enter();
    SenderRecord::of(sender).m_coming.take_back(*m_core);
    TargetStepMark::leave();
}

bool MediaBufferState::go(CMediaStreamSender& sender) {
    SenderRecord& record = SenderRecord::of(sender);
    if (record.m_list != m_core.get()) {
        return false;
    }
    del_sender(record);
    return true;
}

bool MediaBufferState::move(SenderRecord& record, const MediaBufferState& to, bool at_key) {
    const bool can_wait = to.m_core->m_has_starts.load(std::memory_order_relaxed) && record.has_policy();
    if (&to == this || (at_key && !can_wait)) {
        return false;
    }
    TargetStepMark::enter();
    record.m_coming.note_move(m_core, to.m_core, !at_key && goes_with_this_step(record), at_key);
    TargetStepMark::leave();
    return true;
}

// Inside a call-back of this buffer, where it can be its own sending: it begins no other frame, and is taken
// off when the operation ends.
bool MediaBufferState::goes_with_this_step(SenderRecord& record) INFRA_NO_THREAD_SAFETY_ANALYSIS {
    if (!m_core->steps_on_this_thread() || !m_senders.holds(record)) {
        return false;
    }
    record.set_leaving();
    m_core->note_leaving();
    return true;
}

// Room.

// Between two steps there is no frame on offer: it goes on with what it has not got yet. One that catches up
// when the bytes until the next step are used up has its turn there.
void MediaBufferState::go_on(SenderRecord& record) {
    if (record.m_list != m_core.get() || !record.m_full || record.m_leaving) {
        return;
    }
    if (record.m_room.has_place()) {
        record.m_room.note_room();
    }
    record.set_full(false);
    const bool catches_up = record.catches_up();
    if (catches_up && !m_shares.any_between()) {
        m_waiting.settle(record);
        return;
    }
    if (record.wants_keep() != record.m_keeps) {
        change_mode(record);
    }
    const bool rest = record.has_rest();
    const uint64_t bytes_before = record.m_stats.bytes;
    MediaSending turn(record);
    const TurnEnd end = turn.run(nullptr);
    m_shares.count_between(catches_up ? record.m_stats.bytes - bytes_before : 0);
    if (end != TurnEnd::DONE) {
        turn.report();
    }
    if (rest) {
        record.stay_out();
    }
    if (is_failure(end)) {
        fail(record);
    } else {
        end_share(record);
    }
}

void MediaBufferState::stop_waiting(SenderRecord& record) {
    record.end_room();
    if (record.m_room.m_parked) {
        m_waiting.note_idle();
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
    if (m_bursts.on()) {
        m_bursts.note(m_core->now(), static_cast<uint64_t>(m_frames.current()->m_frame_len));
    }
    if (!m_senders.has_sender()) {
        m_frames.hold_for_starts();
        call_movers();
        m_frames.drop_complete();
        return;
    }
    m_send_ready = true;
    m_frames.offer();
    m_waiting.note_offer(m_frames.current()->is_key(), m_core->m_channels.roles());
    call_movers();
}

void MediaBufferState::lose(int level_word, uint64_t bytes) {
    m_frames.lose(clamp_level(level_word), bytes);
}

// A key frame at which one can begin is complete: those that wait for it come when this thread has left the
// lock.
void MediaBufferState::call_movers() {
    const CFrame& frame = *m_frames.current();
    if (!m_core->m_moves.empty() && frame.m_kept &&
        m_frames.starts().start_at(frame, SenderRecord::ALL_CHANNELS, m_core->m_channels) != nullptr) {
        m_core->m_moves.call_all(*m_core);
    }
}

// Without a start cache nobody waits for its next key frame.
void MediaBufferState::set_start_cache(uint64_t keep_us, uint64_t most_bytes) {
    m_frames.set_start_bounds(keep_us, most_bytes);
    m_core->m_has_starts.store(m_frames.starts().on(), std::memory_order_relaxed);
    if (!m_frames.starts().on()) {
        m_core->m_moves.call_all(*m_core);
    }
}

uint64_t MediaBufferState::send_packet(bool has_packet, bool ages) {
    m_frames.begin_if_empty();
    m_waiting.look_after();
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
    bool policy_only = m_senders.any() != nullptr && !m_senders.has_plain_parked();
    if (m_senders.first_parked() != nullptr) {
        should_discard = min_discard;  // what they stand on stays in any case
    }
    m_shares.begin_step();
    bool some_catch_up = false;
    CFrame* const offered = m_frames.current();
    const bool batches = m_batch.on() && !m_holds && !printing;
    if (batches) {
        m_batch.begin(m_senders.first(), offered);
    }
    for (SenderRecord *record = m_senders.first(), *before = nullptr; record != nullptr;) {
        record->fetch_next();
        policy_only = policy_only && record->has_policy();
        if (record->wants_keep() != record->m_keeps) {
            change_mode(*record);
        }
        int answer = 0;
        const bool written = batches && m_batch.take(*record, answer);
        const Place place = written ? Place::HERE : place_of(*record);
        if (place == Place::NONE) {
            before = record;
            record = record->m_next;
            continue;
        }
        bool waits = place == Place::ELSEWHERE;
        if (record->catches_up()) {
            some_catch_up = true;
            waits = true;
        }
        const TurnEnd end = written ? give_written(*record, *offered, answer)
                            : waits ? TurnEnd::DONE
                                    : give_turn(*record, offered);
        if (place == Place::REST) {
            record->stay_out();
        }
        const uint64_t total = waits || place == Place::REST ? m_core->m_byte_total : record->m_send_total;
        SenderRecord* const next = record->m_next;
        if (is_failure(end)) {
            if (printing) {
                MediaTrace::sender_failed(&m_owner, next != nullptr ? next->m_owner : nullptr);
            }
            fail(*record);
            if (!m_senders.has_sender()) {
                m_frames.set_policy_only(policy_only);
                return std::nullopt;
            }
        } else {
            if (total <= min_discard) {
                min_discard = total;
                should_discard = total;
            }
            before = m_waiting.park_if_full(before, *record) ? before : record;
        }
        record = next;
    }
    m_frames.set_policy_only(policy_only);
    m_held = m_holds;
    if (some_catch_up && !give_shares(offered)) {
        return std::nullopt;
    }
    return should_discard;
}

// They need nothing of the list: what is let go is known without them. False if the last sender has gone.
bool MediaBufferState::give_shares(CFrame* offered) {
    for (SenderRecord* record = m_senders.first(); record != nullptr;) {
        TurnEnd end = TurnEnd::DONE;
        if (!record->m_leaving && record->catches_up() && m_shares.admit(*record)) {
            end = give_share(*record, offered);
        }
        SenderRecord* const next = record->m_next;
        if (is_failure(end)) {
            fail(*record);
        }
        record = next;
    }
    return m_senders.has_sender();
}

TurnEnd MediaBufferState::give_share(SenderRecord& record, CFrame* offered) {
    const uint64_t bytes_before = record.m_stats.bytes;
    const TurnEnd end = give_turn(record, offered);
    m_shares.count(record.m_stats.bytes - bytes_before);
    if (!is_failure(end)) {
        end_share(record);
    }
    return end;
}

// One that has more to catch up with goes on between the steps, if it waits for room: whoever has the lock is
// not held up by it.
void MediaBufferState::end_share(SenderRecord& record) {
    if (record.catches_up() && m_shares.any_between()) {
        record.begin_stall();
    }
    m_waiting.settle(record);
}

TurnEnd MediaBufferState::give_turn(SenderRecord& record, CFrame* offered) {
    const bool printing = MediaTrace::on();
    if (printing) {
        MediaTrace::sender_begins(&m_owner, record.m_owner, offered);
    }
    MediaSending turn(record);
    if (m_holds || record.m_full) {
        turn.take_offer(offered, record.m_full);
        return TurnEnd::DONE;
    }
    const TurnEnd end = turn.run(offered);
    if (end != TurnEnd::DONE) {
        turn.report();
    }
    if (printing) {
        MediaTrace::sender_ends(&m_owner, record.m_owner,
                                is_failure(end) ? -1 : static_cast<long long>(record.m_send_total));
    }
    return end;
}

TurnEnd MediaBufferState::give_written(SenderRecord& record, CFrame& offered, int answer) {
    MediaSending turn(record);
    const TurnEnd end = turn.run_written(offered, answer);
    if (end != TurnEnd::DONE) {
        turn.report();
    }
    return end;
}

void MediaBufferState::fail(SenderRecord& record) {
    record.set_failed();
    del_sender(record);
}

// A sender that begins with what is held for it does so on the thread that adds it: neither the next frame
// nor the end of one that is being filled is waited for.
void MediaBufferState::first_turn(SenderRecord& record) {
    if (!m_frames.starts().on() || !record.has_policy()) {
        return;
    }
    record.begin_anew(record.m_start.m_moved);
    if (record.wants_keep() != record.m_keeps) {
        change_mode(record);
    }
    TurnEnd end = TurnEnd::DONE;
    if (record.has_rest()) {
        end = give_turn(record, nullptr);
        record.stay_out();
    }
    if (!is_failure(end) && !record.m_leaving && !record.has_rest() && place_of(record) == Place::HERE) {
        end = give_turn(record, nullptr);
    }
    if (is_failure(end)) {
        fail(record);
    } else {
        end_share(record);
    }
    m_frames.trim_kept();
}

// A sender's own choice of a mode holds from its next turn on.
// One that began with the cache keeps frames until it has caught up.
void MediaBufferState::change_mode(SenderRecord& record) {
    if (record.m_keeps && record.m_start.m_runs && record.has_policy()) {
        return;
    }
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

// Gives a sender that has no place in the stream yet its place: out of the start cache, or at the frame on
// offer, if that is a key frame of its channel. Between two frames the frame on offer is the empty one, which
// looks like a key frame of channel 0; the resume policy does not take it for one.
MediaBufferState::Place MediaBufferState::join(SenderRecord& record) {
    if (record.has_rest()) {
        return Place::REST;
    }
    if (record.m_frame != nullptr || !record.at_boundary()) {
        record.leave_frame();
    }
    if (m_frames.starts().on() && record.has_policy()) {
        CFrame* const from = start_of(record);
        if (from == nullptr) {
            return Place::ELSEWHERE;
        }
        if (!record.m_keeps) {
            m_frames.begin_keeping(record);
        }
        record.start(*from);
        ++m_started;
        return Place::HERE;
    }
    CFrame& frame = *m_frames.current();
    const bool whole = record.has_policy() || record.m_start.m_waits;
    if (frame.level() > m_frames.min_level(frame.channel()) || (whole && frame.m_valid == 0) ||
        (record.m_keeps && !frame.m_kept)) {
        return Place::NONE;
    }
    record.join(frame, m_core->m_byte_total - static_cast<uint64_t>(frame.m_frame_len));
    return Place::HERE;
}

// Null if there is nothing, or nothing yet, for it.
CFrame* MediaBufferState::start_of(const SenderRecord& record) const {
    const uint8_t mask = Infra::relaxedLoad(record.m_channel_mask);
    if (record.m_start.m_moved || !record.starts_at_key()) {
        return m_frames.starts().start(mask, m_core->m_channels);
    }
    const CFrame* const offered = m_frames.current();
    return offered != nullptr && offered->m_kept
               ? m_frames.starts().start_at(*offered, mask, m_core->m_channels)
               : nullptr;
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

SenderVerdict MediaBufferState::verdict_on(SenderRecord& record) {
    return SenderLook(m_frames, m_bursts, m_roll.number()).tell(record);
}

void MediaBufferState::look_last(SenderRecord& record) {
    SenderLook(m_frames, m_bursts, m_roll.number()).leave(record);
}

MediaBufferStats MediaBufferState::stats() {
    const CoreGuard guard(*m_core);
    MediaBufferStats stats;
    m_frames.add_stats(stats);
    m_senders.add_stats(stats, m_frames.byte_discard());
    return stats;
}

MediaStartStats MediaBufferState::start_stats() {
    const CoreGuard guard(*m_core);
    MediaStartStats stats;
    m_frames.add_stats(stats);
    stats.starts = m_started;
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
    m_core->m_moves.call_all(*m_core, true);
}

}  // namespace Orvex::Reticor
