// MediaLanesState: what is put goes to each lane, and nobody waits.
#include "Tool/lane/MediaLanesState.h"

#include <Reticor/MediaStreamSender.h>

#include <new>

#include <Infra/HeldLocks.h>
#include <Infra/Time.h>

#include "Core/handle/ObjectId.h"
#include "Tool/media/MediaBufferState.h"

namespace Orvex::Reticor {

// The pools end first: what their workers do needs the lanes.
MediaLanesState::~MediaLanesState() {
    m_auto_send.disable();
    for (unsigned int i = 0; i < m_count; ++i) {
        m_seats[i].handler->end();
        m_seats[i].pool.Destroy();
    }
    clear();
}

bool MediaLanesState::add(unsigned int threads) {
    Seat& seat = m_seats[m_count];
    try {
        seat.lane = std::make_shared<Lane>();
    } catch (const std::bad_alloc&) {
        return false;
    }
    if (!seat.lane->open() || seat.pool.Create(1, threads) != 0) {
        return false;
    }
    CPoolSet::Place reserved;
    seat.handler = seat.pool.Next(SOCK_READ, reserved) == 0
                       ? LaneHandler::begin(seat.lane, reserved.GetPool())
                       : nullptr;
    m_count += seat.handler != nullptr ? 1 : 0;
    return seat.handler != nullptr;
}

void MediaLanesState::open() {
    const MediaStep step(m_core);
    m_feed.open(m_count);
}

// A tap sees the packet before its bytes are asked for, as with a buffer.
MediaLanesState::Result MediaLanesState::put(const LanePacket::Parts& parts) {
    const MediaStep step(m_core);
    if (step.nested()) {
        return Result::NESTED;
    }
    if (!m_feed.make_room()) {
        return Result::NO_MEMORY;
    }
    m_taps.show(parts.packet, parts.len, parts.mark, parts.level);
    m_feed.add(parts);
    if (parts.mark == MEDIA_MARK_LAST) {
        deliver();
    }
    return Result::TAKEN;
}

void MediaLanesState::deliver() {
    LanePacket& frame = m_feed.complete(Infra::CTime::getCurrentMicroSecond());
    m_puts.fetch_add(1, std::memory_order_relaxed);
    for (unsigned int i = 0; i < m_count; ++i) {
        m_seats[i].lane->put(frame);
    }
}

// Nobody else knows of this holder, so it lets go what it cannot take; and then all of the frame, of which
// nobody must get a part.
int MediaLanesState::put_shown(const LanePacket::Parts& parts) {
    const MediaStep step(m_core);
    if (!m_feed.is_spoiled() && !step.nested() && m_feed.make_room()) {
        m_taps.show(parts.packet, parts.len, parts.mark, parts.level);
        m_feed.add(parts);
        if (parts.mark == MEDIA_MARK_LAST) {
            deliver();
        }
        return 0;
    }
    const uint64_t bytes = m_feed.bytes() + static_cast<uint64_t>(parts.len);
    if (!step.nested()) {
        m_feed.drop();
        m_feed.spoil();
    }
    INFRA_PROMISE(RELEASE);
    parts.packet->Release();
    if (!step.nested() && parts.mark == MEDIA_MARK_LAST) {
        m_feed.drop();
        for (unsigned int i = 0; i < m_count; ++i) {
            m_seats[i].lane->put_lost(parts.level, bytes);
        }
    }
    return 0;
}

MediaLanesState::Result MediaLanesState::put_info(CMediaPacket& packet, int arg) {
    const MediaStep step(m_core);
    if (!m_feed.make_room()) {
        return Result::NO_MEMORY;
    }
    m_feed.set_info(packet, arg);
    return Result::TAKEN;
}

// Between two frames alone: the lanes have whole ones, and cannot know.
void MediaLanesState::do_send() {
    const MediaStep step(m_core);
    if (m_feed.is_filling()) {
        return;
    }
    for (unsigned int i = 0; i < m_count; ++i) {
        m_seats[i].lane->put_tick();
    }
}

// No lane is waited for while the producer's lock is held: a call-back of the lane may want it.
void MediaLanesState::clear() {
    {
        const MediaStep step(m_core);
        m_taps.clear();
        m_feed.drop();
    }
    for (unsigned int i = 0; i < m_count; ++i) {
        m_seats[i].lane->clear();
    }
}

int MediaLanesState::find(CMediaStreamSender& sender) const {
    for (unsigned int i = 0; i < m_count; ++i) {
        if (m_seats[i].lane->state().has_seat(sender)) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

unsigned int MediaLanesState::least() const {
    unsigned int best = 0;
    int best_room = -1;
    for (unsigned int i = 0; i < m_count; ++i) {
        const int room = m_seats[i].pool.GetRoom(SOCK_READ) + m_seats[i].pool.GetRoom(SOCK_WRITE);
        if (room > best_room) {
            best = i;
            best_room = room;
        }
    }
    return best;
}

unsigned int MediaLanesState::for_sender(CMediaStreamSender& sender) {
    if (const int before = find(sender); before >= 0) {
        return static_cast<unsigned int>(before);
    }
    const long owner = MediaBufferState::owner_of(sender);
    for (unsigned int i = 0; owner != 0 && i < m_count; ++i) {
        if (INDEX_OF_ID(owner) == INDEX_OF_ID(m_seats[i].lane->handler())) {
            return i;
        }
    }
    return m_turn.fetch_add(1, std::memory_order_relaxed) % m_count;
}

int MediaLanesState::add_sender(CMediaStreamSender& sender, unsigned int lane) {
    Lane& chosen = *m_seats[lane].lane;
    if (TargetStepMark::inside()) {
        chosen.state().note_coming(sender);
        return 1;
    }
    chosen.buffer().AddSender(&sender);
    return 0;
}

// It can be on its way to any lane. Whoever brings it says where it is before that note goes: so it is either
// found on its way, or there.
Lane::Left MediaLanesState::del_sender(CMediaStreamSender& sender) {
    for_each([&sender](Lane& lane) { lane.state().take_back(sender); });
    const int lane = find(sender);
    return lane < 0 ? Lane::Left::NOW : Lane::leave(m_seats[static_cast<unsigned int>(lane)].lane, sender);
}

void MediaLanesState::add_stats(MediaLanesStats& stats, unsigned int lane) {
    const LaneInbox::Stats waiting = m_seats[lane].lane->inbox().stats();
    const MediaBufferStats held = m_seats[lane].lane->buffer().GetStats();
    ++stats.lanes;
    stats.senders += held.senders;
    stats.waiting_frames += waiting.frames;
    stats.waiting_bytes += waiting.bytes;
    stats.lost_frames += waiting.lost_frames;
    stats.lost_bytes += waiting.lost_bytes;
    stats.frames += held.frames;
    stats.bytes += held.bytes;
    stats.expired_frames += held.expired_frames;
    stats.expired_bytes += held.expired_bytes;
    stats.kept_frames += held.kept_frames;
    stats.kept_bytes += held.kept_bytes;
}

}  // namespace Orvex::Reticor
