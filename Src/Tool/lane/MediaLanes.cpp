// CMediaLanes: its operations and its lines.
#include <Reticor/MediaLanes.h>

#include <sys/socket.h>

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include <Infra/Log.h>
#include <Reticor/Sock.h>

#include "Tool/frame/MediaFrame.h"
#include "Tool/lane/MediaLanesState.h"

namespace Orvex::Reticor {

// ---- places --------------------------------------------------------------------------------------------

int CMediaLanes::Place::GetPool() const {
    return m_place.GetPool();
}

int CMediaLanes::Place::GetLane() const {
    return m_place.GetPool() >= 0 ? m_lane : -1;
}

void CMediaLanes::Place::Release() {
    m_place.Release();
}

int CMediaLanes::Next(unsigned int mask, Place& place) {
    if (m_state == nullptr) {
        return -1;
    }
    const unsigned int best = m_state->least();
    for (unsigned int i = 0; i < m_state->m_count; ++i) {
        const unsigned int lane = (best + i) % m_state->m_count;
        if (m_state->m_seats[lane].pool.Next(mask, place.m_place) == 0) {
            place.m_lane = static_cast<int>(lane);
            return 0;
        }
    }
    return -1;
}

int CMediaLanes::Next(unsigned int mask, Place& place, const CSock& client) {
    int processor = -1;
    socklen_t size = sizeof processor;
    if (m_state == nullptr || client.GetHandle() < 0 ||
        getsockopt(client.GetHandle(), SOL_SOCKET, SO_INCOMING_CPU, &processor, &size) != 0 ||
        processor < 0) {
        return Next(mask, place);
    }
    const unsigned int lane = static_cast<unsigned int>(processor) % m_state->m_count;
    if (m_state->m_seats[lane].pool.Next(mask, place.m_place) != 0) {
        return Next(mask, place);
    }
    place.m_lane = static_cast<int>(lane);
    return 0;
}

// ---- lanes ---------------------------------------------------------------------------------------------

CMediaLanes::CMediaLanes() : m_state(nullptr) {}

CMediaLanes::~CMediaLanes() {
    TargetStepMark::assert_none();
    Destroy();
}

int CMediaLanes::Create(unsigned int lanes, unsigned int threads) {
    if (m_state != nullptr || lanes == 0 || lanes > MOST_LANES) {
        INFRA_LOG(2, "Can't create %u lanes, 1 to %u can be made, once!\n", lanes, MOST_LANES);
        return -1;
    }
    std::unique_ptr<MediaLanesState> state;
    try {
        state = std::make_unique<MediaLanesState>();
    } catch (const std::bad_alloc&) {
        INFRA_LOG(2, "Can't create %u lanes, there is no memory!\n", lanes);
        return -1;
    }
    while (state->m_count < lanes) {
        if (!state->add(threads)) {
            INFRA_LOG(2, "Can't create %u lanes, lane %u cannot be had!\n", lanes, state->m_count);
            return -1;
        }
    }
    state->open();
    m_state = state.release();
    return 0;
}

int CMediaLanes::Destroy() {
    if (TargetStepMark::inside()) {
        INFRA_LOG(2, "CMediaLanes, not inside a call-back\n");
        return -1;
    }
    if (m_state == nullptr) {
        return -1;
    }
    delete std::exchange(m_state, nullptr);
    return 0;
}

int CMediaLanes::Put(CMediaPacket* packet, int len, int mark, int level) {
    const bool last = mark == MEDIA_MARK_LAST;
    if (m_state == nullptr || packet == nullptr || len < 0 ||
        (last && (channel_of(level) < 0 || channel_of(level) > 7))) {
        INFRA_LOG(2, "CMediaLanes, packet:%p len:%d level:%d is not taken\n", static_cast<void*>(packet), len,
                  level);
        return -1;
    }
    const MediaLanesState::Result result = m_state->put({packet, len, mark, level});
    if (result != MediaLanesState::Result::TAKEN) {
        INFRA_LOG(2, "CMediaLanes, %s\n",
                  result == MediaLanesState::Result::NESTED ? "Put inside a tap of the same lanes"
                                                            : "no memory for a packet");
        return -1;
    }
    return 0;
}

int CMediaLanes::PutFrameInfo(CMediaPacket* packet, int arg) {
    if (m_state == nullptr) {
        INFRA_LOG(2, "CMediaLanes, no lanes\n");
        return -1;
    }
    if (packet != nullptr && m_state->put_info(*packet, arg) != MediaLanesState::Result::TAKEN) {
        INFRA_LOG(2, "CMediaLanes, no memory for a packet\n");
        return -1;
    }
    return 0;
}

void CMediaLanes::do_send() {
    if (m_state != nullptr) {
        m_state->do_send();
    }
}

int CMediaLanes::GetBacklog() {
    uint32_t most = 0;
    for (unsigned int i = 0; m_state != nullptr && i < m_state->m_count; ++i) {
        most = std::max(most, m_state->m_seats[i].lane->inbox().stats().frames);
    }
    return static_cast<int>(most);
}

int CMediaLanes::AddSender(CMediaStreamSender* sender, const Place& place) {
    const int lane = place.GetLane();
    if (m_state == nullptr || lane < 0 || lane >= static_cast<int>(m_state->m_count)) {
        INFRA_LOG(2, "CMediaLanes, no lane for sender:%p\n", static_cast<void*>(sender));
        return -1;
    }
    return m_state->add_sender(*sender, static_cast<unsigned int>(lane));
}

int CMediaLanes::AddSender(CMediaStreamSender* sender) {
    if (m_state == nullptr) {
        INFRA_LOG(2, "CMediaLanes, no lane for sender:%p\n", static_cast<void*>(sender));
        return -1;
    }
    return m_state->add_sender(*sender, m_state->for_sender(*sender));
}

int CMediaLanes::DelSender(CMediaStreamSender* sender) {
    if (m_state == nullptr) {
        INFRA_LOG(2, "CMediaLanes, no lane for sender:%p\n", static_cast<void*>(sender));
        return -1;
    }
    const Lane::Left left = m_state->del_sender(*sender);
    if (left == Lane::Left::NO_MEMORY) {
        INFRA_LOG(2, "CMediaLanes::DelSender, no memory for sender:%p\n", static_cast<void*>(sender));
        return -1;
    }
    return left == Lane::Left::LATER ? 1 : 0;
}

// ---- what concerns all lanes ---------------------------------------------------------------------------

namespace {

/// Whether the calling thread may wait for lanes.
bool may_wait(const void* lanes) {
    if (TargetStepMark::inside()) {
        INFRA_LOG_STATIC(2, "CMediaLanes:%p, not inside a call-back\n", lanes);
        return false;
    }
    return true;
}

}  // namespace

void CMediaLanes::AddLevel2Buffer(CLevel2Buffer_IF* tap) {
    if (m_state == nullptr) {
        return;
    }
    const MediaStep step(m_state->m_core);
    const auto [entered, here_already, no_memory] = m_state->m_taps.add(*tap);
    assert(entered && "a tap can be on the list of one buffer only");
    if (no_memory) {
        INFRA_LOG(2, "CMediaLanes::AddLevel2Buffer, no memory for tap:%p\n", static_cast<void*>(tap));
    }
    if (here_already) {
        INFRA_LOG(3, "CMediaLanes::AddLevel2Buffer, tap:%p is on the list already\n",
                  static_cast<void*>(tap));
    }
}

void CMediaLanes::DelLevel2Buffer(CLevel2Buffer_IF* tap) {
    if (m_state != nullptr) {
        const MediaStep step(m_state->m_core);
        m_state->m_taps.remove(tap);
    }
}

CLevel2Buffer_IF* CMediaLanes::GetTap() {
    return m_state != nullptr ? &m_state->m_tap : nullptr;
}

int CMediaLanes::Clear() {
    if (m_state == nullptr || !may_wait(this)) {
        return -1;
    }
    m_state->clear();
    return 0;
}

int CMediaLanes::EnableAutoSend(unsigned long long interval) {
    if (m_state == nullptr || !may_wait(this)) {
        return -1;
    }
    if (!m_state->m_auto_send.enable(interval)) {
        INFRA_LOG(2, "CMediaLanes::EnableAutoSend, no memory\n");
        return -1;
    }
    return 0;
}

int CMediaLanes::DisableAutoSend() {
    if (m_state == nullptr || !may_wait(this)) {
        return -1;
    }
    m_state->m_auto_send.disable();
    return 0;
}

int CMediaLanes::SetDisposableLevel(int level) {
    if (m_state == nullptr || !may_wait(this)) {
        return -1;
    }
    m_state->for_each([level](Lane& lane) { lane.buffer().SetDisposableLevel(level); });
    return 0;
}

int CMediaLanes::SetKeepLimits(unsigned keep_ms, unsigned long long most_bytes) {
    if (m_state == nullptr || !may_wait(this)) {
        return -1;
    }
    m_state->for_each([=](Lane& lane) { lane.buffer().SetKeepLimits(keep_ms, most_bytes); });
    return 0;
}

int CMediaLanes::SetStartCache(unsigned keep_ms, unsigned long long most_bytes) {
    if (m_state == nullptr || !may_wait(this)) {
        return -1;
    }
    m_state->for_each([=](Lane& lane) { lane.buffer().SetStartCache(keep_ms, most_bytes); });
    return 0;
}

int CMediaLanes::SetWriteBatch(unsigned least) {
    if (m_state == nullptr || !may_wait(this)) {
        return -1;
    }
    int result = 0;
    m_state->for_each([&](Lane& lane) {
        if (result == 0) {
            result = lane.buffer().SetWriteBatch(least);
        }
    });
    return result;
}

int CMediaLanes::SetInboxLimits(unsigned int frames, unsigned long long bytes) {
    if (m_state == nullptr || frames == 0 || frames > LaneInbox::MOST_FRAMES || bytes == 0) {
        INFRA_LOG(2, "CMediaLanes, an inbox has 1 to %u frames, not %u, and bytes\n", LaneInbox::MOST_FRAMES,
                  frames);
        return -1;
    }
    m_state->for_each([=](Lane& lane) { lane.inbox().set_bounds(frames, bytes); });
    return 0;
}

int CMediaLanes::GetStats(MediaLanesStats* stats, unsigned int size, int lane) {
    if (m_state == nullptr || stats == nullptr || size < offsetof(MediaLanesStats, lanes) ||
        lane >= static_cast<int>(m_state->m_count) || lane < -1 || !may_wait(this)) {
        return -1;
    }
    MediaLanesStats found;
    found.size = std::min(size, static_cast<unsigned int>(sizeof found));
    found.puts = m_state->m_puts.load(std::memory_order_relaxed);
    for (unsigned int i = 0; i < m_state->m_count; ++i) {
        if (lane < 0 || lane == static_cast<int>(i)) {
            m_state->add_stats(found, i);
        }
    }
    std::memcpy(static_cast<void*>(stats), &found, found.size);
    return 0;
}

}  // namespace Orvex::Reticor
