// CMediaStreamSender: its operations.
#include <Reticor/MediaStreamSender.h>

#include <algorithm>
#include <cassert>
#include <cstring>
#include <new>
#include <optional>

#include <Infra/Log.h>

#include "Core/handle/HandlerInternal.h"
#include "Core/pool/PoolTable.h"
#include "Tool/media/MediaBufferState.h"
#include "Tool/media/MediaSending.h"
#include "Tool/media/SenderLook.h"

namespace Orvex::Reticor {

namespace {

/// The timer of a sender that waits for room. Gives the time to its next tick, -1 for none, in microseconds.
int64_t tick(SenderRecord& record, long timer) INFRA_REQUIRES(CORE_MUTEX) {
    const uint64_t due_us = record.deadline_us();
    const uint64_t now_us = record.now();
    switch (record.m_room.tick(timer, due_us, now_us)) {
        case RoomWait::Tick::OVER:
            return -1;
        case RoomWait::Tick::EARLY:
            return static_cast<int64_t>(std::min(due_us - now_us, RoomWait::TIMER_MOST_US));
        default:
            if (record.m_block_time != 0 && record.has_stalled()) {
                MediaSending(record).report_stall();
            }
            return static_cast<int64_t>(
                std::clamp(due_us - record.m_block_time, SenderRecord::SECOND_US, RoomWait::TIMER_MOST_US));
    }
}

/// As much as the caller has room for. 0; -1 if that is less than the first two fields.
template <typename Stats>
int give_stats(Stats& found, Stats* stats, unsigned int size) {
    constexpr unsigned int LEAST = 2 * sizeof(uint32_t);
    if (stats == nullptr || size < LEAST) {
        return -1;
    }
    found.size = std::min(size, static_cast<unsigned int>(sizeof found));
    std::memcpy(static_cast<void*>(stats), &found, found.size);
    return 0;
}

// False if the sender has moved to another buffer meanwhile.
bool go_on(SenderRecord& record) INFRA_NO_THREAD_SAFETY_ANALYSIS {
    const std::shared_ptr<MediaCore> core = record.m_seat.get();
    if (!core) {
        return true;
    }
    if (core->m_mutex.tryEnter()) {
        const MediaStep step(core, MediaStep::ENTERED);
        if (step.nested()) {
            core->m_marks.note(record.m_room.m_mark);
        } else if (core->m_end != nullptr) {
            core->m_end->go_on(record);
        }
    } else {
        core->m_marks.note(record.m_room.m_mark);
        MediaStep::serve_marks(*core);
    }
    return record.m_seat.get() == core;
}

/// Under the buffer's lock. False if `change` says so, or there is no memory.
template <typename Change>
bool change_datagrams(SenderRecord& record, const Change& change) INFRA_NO_THREAD_SAFETY_ANALYSIS {
    const std::shared_ptr<MediaCore> core = record.m_seat.enter();
    std::optional<MediaStep> step;
    if (core) {
        step.emplace(core, MediaStep::ENTERED);
    }
    if (record.m_datagrams == nullptr) {
        record.m_datagrams.reset(new (std::nothrow) FrameCut);
    }
    if (record.m_datagrams == nullptr) {
        INFRA_LOG_STATIC(2, "CMediaStreamSender, no memory for datagrams, sender:%p\n",
                         static_cast<void*>(record.m_owner));
        return false;
    }
    record.set_wish(SenderRecord::WISH_DATAGRAMS, true);  // for good: a frame may be half on its way
    return change(*record.m_datagrams);
}

}  // namespace

CMediaStreamSender* CMediaStreamSender::Create() {
    auto* const sender = new (std::nothrow) CMediaStreamSender;
    if (sender != nullptr && sender->m_state != nullptr) {
        return sender;
    }
    if (sender == nullptr || sender->GetID() != 0) {  // else the handler has told of itself
        INFRA_LOG_STATIC(2, "CMediaStreamSender::Create no memory!\n");
    }
    if (sender != nullptr) {
        HandlerInternal::Discard(sender);
    }
    return nullptr;
}

CMediaStreamSender::CMediaStreamSender()
    : m_state(GetID() != 0 ? new (std::nothrow) SenderRecord(*this) : nullptr) {}

CMediaStreamSender::~CMediaStreamSender() {
    if (m_state == nullptr) {
        return;
    }
    if (const std::shared_ptr<MediaCore> core = m_state->m_seat.get()) {
        const CoreGuard guard(*core);
        m_state->leave_frame();
    }
    delete m_state;
}

int CMediaStreamSender::handle_close(CNetHandler*) {
    delete this;
    return 0;
}

int CMediaStreamSender::Attach(CSock* stream) {
    m_state->attach(stream);
    return 0;
}

CSock* CMediaStreamSender::Detach() {
    return m_state->detach();
}

// A sender that has never been on a list has no core, and is its caller's alone.
long long CMediaStreamSender::Send(CFrame* frame, unsigned long long) INFRA_NO_THREAD_SAFETY_ANALYSIS {
    const std::shared_ptr<MediaCore> core = m_state->m_seat.enter();
    std::optional<MediaStep> step;
    if (core) {
        step.emplace(core, MediaStep::ENTERED);
    }
    if (m_state->m_full) {
        return static_cast<long long>(m_state->m_send_total);
    }
    MediaSending turn(*m_state);
    const TurnEnd end = turn.run(frame);
    turn.report();
    m_state->end_room();  // only the buffer's own turns wait
    return is_failure(end) ? -1 : static_cast<long long>(m_state->m_send_total);
}

int CMediaStreamSender::GetTailPacket(char* buffer, int len) {
    const std::shared_ptr<MediaCore> core = m_state->m_seat.enter();
    if (!core) {
        return 0;
    }
    const MediaStep step(core, MediaStep::ENTERED);
    return MediaSending(*m_state).take_tail(buffer, len);
}

MediaSenderStats CMediaStreamSender::GetStats() {
    const std::shared_ptr<MediaCore> core = m_state->m_seat.enter();
    if (!core) {
        return MediaSenderStats();
    }
    const MediaStep step(core, MediaStep::ENTERED);
    return m_state->stats();
}

void CMediaStreamSender::SendOtherData(const char* data, int len) {
    if (!m_state->m_other.add(data, len)) {
        INFRA_LOG(2, "CMediaStreamSender::SendOtherData no memory!\n");
    }
}

bool CMediaStreamSender::AttachSendProc(Infra::TFunction3<void, CMediaPacket*, int, int> proc) {
    if (!m_state->m_procedure.set(proc)) {
        INFRA_LOG(2, "CMediaStreamSender::AttachSendProc no memory!\n");
        return false;
    }
    return true;
}

bool CMediaStreamSender::DetachSendProc() {
    m_state->m_procedure.drop();
    return true;
}

bool CMediaStreamSender::AttachFilter(Infra::TFunction1<MediaVerdict, const MediaOffer&> filter) {
    const bool set = m_state->m_filter.set(filter);
    m_state->set_wish(SenderRecord::WISH_FILTER, set);
    if (!set) {
        INFRA_LOG(2, "CMediaStreamSender::AttachFilter no memory!\n");
    }
    return set;
}

bool CMediaStreamSender::DetachFilter() {
    m_state->set_wish(SenderRecord::WISH_FILTER, false);
    m_state->m_filter.drop();
    return true;
}

int CMediaStreamSender::GetFilterStats(MediaFilterStats* stats, unsigned int size) {
    MediaFilterStats found;
    if (const std::shared_ptr<MediaCore> core = m_state->m_seat.enter()) {
        const MediaStep step(core, MediaStep::ENTERED);
        found = m_state->m_filter.stats();
    }
    return give_stats(found, stats, size);
}

void CMediaStreamSender::SetSendTimeout(unsigned int seconds) {
    m_state->set_send_timeout(seconds);
    if (!m_state->wishes(SenderRecord::WISH_ROOM)) {
        return;
    }
    if (const std::shared_ptr<MediaCore> core = m_state->m_seat.enter()) {
        const MediaStep step(core, MediaStep::ENTERED);
        m_state->m_room.change_deadline(m_state->deadline_us(), m_state->now());
    }
}

void CMediaStreamSender::SetSendChannel(int channel) {
    assert(channel <= 7);
    m_state->choose_channel(channel);
}

void CMediaStreamSender::DisableSendChannel(int channel) {
    assert(channel <= 7 && channel >= 0);
    m_state->give_up_channel(channel);
}

void CMediaStreamSender::WaitException(long id) {
    m_state->m_notices.wait_failure(id);
}

// Waiting for room.

int CMediaStreamSender::WaitRoom(long owner) {
    CSock* const stream = Infra::relaxedLoad(m_state->m_stream);
    const bool simulated = stream != nullptr && stream->GetType() == SOCK_TYPE_SIMULATOR;
    if (owner != 0 && (simulated || !PoolTable::IsOpen(owner))) {
        return -1;
    }
    if (const std::shared_ptr<MediaCore> core = m_state->m_seat.enter()) {
        const MediaStep step(core, MediaStep::ENTERED);
        if (m_state->m_list != nullptr && m_state->m_full) {
            core->m_end->stop_waiting(*m_state);
        }
        m_state->wait_room(owner);
    } else {
        m_state->wait_room(owner);
    }
    return 0;
}

// The interest ends first: if another thread has the lock, it may have served the sender, and begun anew, as
// soon as that is noted.
int CMediaStreamSender::handle_output(int handle) {
    const long owner = m_state->m_room.owner();
    if (owner == 0) {
        return -1;
    }
    RoomWatch::end_all(owner, handle);
    while (!go_on(*m_state)) {
    }
    return 0;
}

int64_t CMediaStreamSender::handle_timeout(long id) INFRA_NO_THREAD_SAFETY_ANALYSIS {
    constexpr int64_t SOON_US = 5000;
    const std::shared_ptr<MediaCore> core = m_state->m_seat.get();
    if (!core) {
        return -1;
    }
    if (!core->m_mutex.tryEnter()) {
        return SOON_US;
    }
    const MediaStep step(core, MediaStep::ENTERED);
    if (m_state->m_seat.get() != core) {
        return SOON_US;
    }
    if (!m_state->m_room.ends_pause(id)) {
        return tick(*m_state, id);
    }
    if (core->m_end != nullptr) {
        core->m_end->go_on(*m_state);
    }
    return -1;
}

// Datagrams.

int CMediaStreamSender::SetRemote(const CSockAddr* remote) {
    return change_datagrams(*m_state, [remote](FrameCut& cut) { return cut.set_remote(remote); }) ? 0 : -1;
}

int CMediaStreamSender::SetDatagrams(unsigned int payload, unsigned int header_bytes,
                                     Infra::TFunction2<void, const MediaDatagram&, char*> header,
                                     bool paced) {
    const bool fits =
        header_bytes <= FrameCut::MOST_HEADER && uint64_t{payload} + header_bytes <= FrameCut::LONGEST;
    if (!fits || (header_bytes != 0 && (payload == 0 || header.empty()))) {
        return -1;
    }
    const auto set = [&](FrameCut& cut) {
        cut.set_size(payload, header_bytes, header, paced);
        return true;
    };
    return change_datagrams(*m_state, set) ? 0 : -1;
}

int CMediaStreamSender::GetDatagramStats(MediaDatagramStats* stats, unsigned int size) {
    MediaDatagramStats found;
    if (const std::shared_ptr<MediaCore> core = m_state->m_seat.enter()) {
        const MediaStep step(core, MediaStep::ENTERED);
        if (m_state->m_datagrams != nullptr) {
            found = m_state->m_datagrams->stats();
        }
    }
    return give_stats(found, stats, size);
}

void CMediaStreamSender::SetGather(bool gathers) {
    m_state->set_wish(SenderRecord::WISH_GATHER, gathers);
}

int CMediaStreamSender::GetRoomStats(MediaRoomStats* stats, unsigned int size) {
    MediaRoomStats found;
    if (const std::shared_ptr<MediaCore> core = m_state->m_seat.enter()) {
        const MediaStep step(core, MediaStep::ENTERED);
        found = m_state->m_room.stats();
        found.waiting = m_state->m_full && m_state->m_room.has_place() ? 1 : 0;
    }
    return give_stats(found, stats, size);
}

int CMediaStreamSender::GetVerdict(SenderVerdict& verdict) {
    SenderVerdict found = SenderLook::unknown(GetID());
    if (const std::shared_ptr<MediaCore> core = m_state->m_seat.enter()) {
        const MediaStep step(core, MediaStep::ENTERED);
        MediaBufferState* const state = MediaBufferState::find(*core);
        found = m_state->m_list != nullptr && state != nullptr ? state->verdict_on(*m_state)
                                                               : SenderLook::tell_absent(*m_state);
    }
    return SenderLook::hand_out(found, verdict) ? 0 : -1;
}

void CMediaStreamSender::SetResumePolicy(unsigned max_lag_ms, MediaResume mode, unsigned hard_lag_ms) {
    m_state->set_policy(max_lag_ms, mode, hard_lag_ms);
}

void CMediaStreamSender::SetKernelLag(unsigned int limit_ms) {
    m_state->set_kernel_lag(limit_ms);
}

void CMediaStreamSender::SetStallFloor(unsigned int bytes) {
    m_state->set_stall_floor(bytes);
}

void CMediaStreamSender::SetStartMode(MediaStart mode) {
    m_state->start_at_key(mode == MediaStart::NEXT_KEY);
}

void CMediaStreamSender::WaitSkip(long id, unsigned int msg) {
    m_state->m_notices.wait_skip(id, msg);
}

}  // namespace Orvex::Reticor
