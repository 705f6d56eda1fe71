// Lane: one of the buffers among which the clients of a stream are spread.
#pragma once

#include <Reticor/MediaBuffer.h>

#include <atomic>
#include <cstdint>
#include <memory>

#include <Infra/Semaphore.h>

#include "Tool/lane/LaneInbox.h"
#include "Tool/step/TargetStepMark.h"

namespace Orvex::Reticor {

struct MediaBufferState;

/// A media buffer, and the inbox from which a worker of the lane's pool fills it. It is told of what waits by
/// a message to a handler on that pool, one at a time. Once that pool has gone, what waits stays until it is
/// lost to newer frames, or emptied.
///
/// Thread safety: any thread. Whoever moves frames from the inbox to the buffer has the turn; that is a
/// semaphore and not a lock, since senders may end, and so handlers be called, before it is given back.
class Lane {
public:
    Lane() = default;
    Lane(const Lane&) = delete;
    Lane& operator=(const Lane&) = delete;

    /// Takes what memory it needs for good. False if there is none.
    bool open() { return m_inbox.open() && find_state(); }
    /// The handler that is told; 0: nobody, from now on.
    void set_handler(long id) { m_handler.store(id, std::memory_order_relaxed); }
    long handler() const { return m_handler.load(std::memory_order_relaxed); }

    CMediaBuffer& buffer() { return m_buffer; }
    MediaBufferState& state() { return *m_state; }
    LaneInbox& inbox() { return m_inbox; }

    /// The lane shares this frame from now on. Frames that are lost for it are let go. No lock of the lane's
    /// is waited for but the inbox's.
    void put(LanePacket& frame);
    /// The same for one that nobody has.
    void put_lost(int level_word, uint64_t bytes);
    void put_tick();

    /// Fills the buffer with up to that many frames. True if there may be more.
    bool serve(uint32_t most);
    /// Lets everything go, and all senders.
    void clear();
    /// Frames for which the buffer had no memory, since the last call.
    uint32_t take_failures() { return m_failures.exchange(0, std::memory_order_relaxed); }

    /// Takes a sender of this lane off. Inside a call-back of another buffer, where nobody may wait for this
    /// lane, it is done when the thread is out of all call-backs.
    enum class Left { NOW, LATER, NO_MEMORY };
    static Left leave(const std::shared_ptr<Lane>& lane, CMediaStreamSender& sender);

private:
    bool find_state();
    void ring();
    void hand_over(const LaneInbox::Taken& taken);
    void hand_over(LanePacket& frame, int level_word, uint64_t bytes);
    void lose(int level_word, uint64_t bytes, uint64_t frames);
    void send(uint32_t ticks);

    std::atomic<long> m_handler{0};
    std::atomic<uint32_t> m_failures{0};
    LaneInbox m_inbox;
    Infra::CSemaphore m_turn{1};
    CMediaBuffer m_buffer;
    MediaBufferState* m_state = nullptr;  ///< The buffer's.
};

}  // namespace Orvex::Reticor
