// SenderLook: readings, and verdicts from them.
#include "Tool/media/SenderLook.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <new>

#include <Reticor/Sock.h>

#include "Tool/judge/VerdictText.h"

namespace Orvex::Reticor {

uint64_t SenderLook::sm_window_us = WINDOW_US;

namespace {

uint32_t percent(uint64_t part, uint64_t whole) {
    return whole != 0 ? static_cast<uint32_t>(std::min<uint64_t>(part * 100 / whole, 100)) : 0;
}

uint64_t lag_frames(const SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX) {
    const CFrame* const first = record.m_frame;
    if (first == nullptr || first == record.m_tail) {
        return first != nullptr ? 1 : 0;
    }
    if (record.m_keeps) {
        return record.m_list->m_kept_number - first->m_kept_number;
    }
    uint64_t frames = 0;
    for (const CFrame* frame = first; frame != nullptr && frame->m_frame_len >= 1 && !frame->is_filling();
         frame = frame->m_next) {
        ++frames;
    }
    return frames;
}

void add_rates(const SenderJudge& judge, uint64_t window_us, SenderVerdict& verdict) {
    const SenderJudge::Sums held = judge.held();
    verdict.over_us = held.time_us;
    verdict.stream_rate = SenderJudge::Sums::rate(held.produced * 8, held.time_us);
    verdict.taken_rate = SenderJudge::Sums::rate(held.taken * 8, held.time_us);
    verdict.blocked_us = judge.newest(window_us).blocked_us;
    verdict.closed_percent = percent(held.closed_us, held.time_us);
    verdict.busy_percent = percent(held.busy_us, held.time_us);
    verdict.segments = static_cast<uint32_t>(held.segments);
    verdict.retransmitted = static_cast<uint32_t>(held.retransmitted);
}

// What the kernel has unsent is late by the time that it takes to get there; if nothing gets there, by the
// time for which that has been so.
void add_tcp(const TcpFigures& tcp, SenderVerdict& verdict) {
    if (!tcp.known) {
        return;
    }
    verdict.is_tcp = 1;
    verdict.unsent_bytes = tcp.unsent;
    verdict.lag_bytes += tcp.unsent;
    verdict.unacked = tcp.unacked;
    verdict.rtt_us = tcp.rtt_us;
    verdict.congestion_window = tcp.congestion_window;
    if (tcp.unsent != 0) {
        verdict.lag_us += verdict.taken_rate != 0 ? uint64_t{tcp.unsent} * 8 * 1000000 / verdict.taken_rate
                                                  : verdict.quiet_us;
    }
}

void add_figures(SenderRecord& record, SenderVerdict& verdict) INFRA_REQUIRES(CORE_MUTEX) {
    const MediaSenderStats stats = record.stats();
    verdict.hole_frames = stats.hole_frames;
    verdict.skipped_frames = stats.skipped_frames;
    verdict.thinned_frames = stats.thinned_frames;
    verdict.too_old = record.m_drops.drops(DropCause::TOO_OLD);
    verdict.stepped = record.m_drops.drops(DropCause::STEPPED);
    verdict.no_key = record.m_drops.drops(DropCause::NO_KEY);
    verdict.not_chosen = record.m_drops.drops(DropCause::NOT_CHOSEN);
    verdict.filtered = record.m_drops.drops(DropCause::FILTERED);
    verdict.disposable = record.m_drops.drops(DropCause::DISPOSABLE);
    verdict.lag_us = stats.lag_us;
    verdict.lag_bytes = stats.backlog_bytes;
    verdict.lag_frames = lag_frames(record);
    verdict.quiet_us = stats.blocked_us;
    verdict.left_us = RoomWait::NO_DEADLINE;
    const uint64_t due_us = record.deadline_us();
    if (due_us != RoomWait::NO_DEADLINE && stats.blocked_us != 0) {
        const uint64_t now_us = Infra::CTime::getCurrentMicroSecond();
        verdict.left_us = due_us > now_us ? due_us - now_us : 0;
    }
}

}  // namespace

SenderVerdict SenderLook::unknown(int64_t sender) {
    SenderVerdict verdict;
    verdict.sender = sender;
    VerdictText::write(verdict);
    return verdict;
}

SenderVerdict SenderLook::tell_absent(const SenderRecord& record) {
    const SenderWatch* const watch = record.m_watch.get();
    return watch != nullptr && watch->has_left ? watch->last : unknown(record.m_owner->GetID());
}

SenderVerdict SenderLook::tell(SenderRecord& record) {
    look(record);
    return record.m_watch != nullptr ? describe(record) : unknown(record.m_owner->GetID());
}

void SenderLook::leave(SenderRecord& record) {
    SenderWatch& watch = *record.m_watch;
    const uint64_t now_us = Infra::CTime::getCurrentMicroSecond();
    if (now_us - watch.judge.last().now_us > Infra::relaxedLoad(sm_window_us)) {
        return;
    }
    look(record);
    watch.last = describe(record);
    watch.last.listed = 0;
    VerdictText::write(watch.last);
    watch.has_left = true;
}

void SenderLook::look(SenderRecord& record) {
    if (record.m_watch == nullptr) {
        record.m_watch.reset(new (std::nothrow) SenderWatch);
        if (record.m_watch == nullptr) {
            return;
        }
        record.m_watch->sender = record.m_owner->GetID();
    }
    SenderWatch& watch = *record.m_watch;
    const uint64_t now_us = Infra::CTime::getCurrentMicroSecond();
    const uint64_t window_us = Infra::relaxedLoad(sm_window_us);
    m_bursts.watch(now_us);
    if (watch.judge.is_due(now_us, window_us)) {
        watch.judge.add(read(record, now_us), window_us);
    }
}

SenderReading SenderLook::read(SenderRecord& record, uint64_t now_us) const {
    SenderReading reading;
    const MediaSenderStats stats = record.stats();
    reading.now_us = now_us;
    reading.produced = m_frames.bytes_of(Infra::relaxedLoad(record.m_channel_mask));
    reading.written = stats.bytes;
    reading.blocked_us = record.m_watch->blocked_us + stats.blocked_us;
    reading.backlog = stats.backlog_bytes;
    reading.joined = record.m_joined;
    CSock* const stream = Infra::relaxedLoad(record.m_stream);
    if (stream != nullptr &&
        (stream->GetType() == SOCK_TYPE_STREAM || stream->GetType() == SOCK_TYPE_SSL_STREAM)) {
        reading.tcp = TcpFigures::ask(stream->GetHandle());
    }
    return reading;
}

SenderVerdict SenderLook::describe(SenderRecord& record) const {
    const SenderWatch& watch = *record.m_watch;
    const SenderJudge& judge = watch.judge;
    SenderVerdict verdict;
    verdict.kind = judge.kind();
    verdict.listed = 1;
    verdict.sender = watch.sender;
    verdict.buffer = m_buffer;
    add_figures(record, verdict);
    const uint64_t quiet_us = judge.quiet_us(Infra::CTime::getCurrentMicroSecond());
    // One whose socket is full has stalled since then: that is the time after which it is hung up on.
    verdict.quiet_us =
        verdict.kind == SenderVerdictKind::STALLED ? std::max(verdict.quiet_us, quiet_us) : quiet_us;
    const BurstBook::Burst burst = m_bursts.largest();
    verdict.burst_bytes = burst.bytes;
    verdict.burst_us = burst.took_us;
    add_rates(judge, Infra::relaxedLoad(sm_window_us), verdict);
    add_tcp(judge.last().tcp, verdict);
    VerdictText::write(verdict);
    return verdict;
}

bool SenderLook::hand_out(const SenderVerdict& from, SenderVerdict& to) {
    constexpr size_t HEAD = offsetof(SenderVerdict, version) + sizeof(SenderVerdict::version);
    const size_t size = to.size;
    if (size < HEAD) {
        return false;
    }
    char* const room = reinterpret_cast<char*>(&to);
    const size_t known = std::min(size, sizeof(SenderVerdict));
    std::memcpy(room + HEAD, reinterpret_cast<const char*>(&from) + HEAD, known - HEAD);
    std::memset(room + known, 0, size - known);
    return true;
}

}  // namespace Orvex::Reticor
