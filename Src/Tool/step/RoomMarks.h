// RoomMarks: senders whose sockets have room, left to whoever holds the buffer's lock.
#pragma once

#include <atomic>
#include <cstdint>

namespace Orvex::Reticor {

class CNetHandler;
struct SenderRecord;

/// A sender's own link. While it is noted, it holds a reference on the sender.
struct RoomMark {
    RoomMark(SenderRecord& record, CNetHandler& sender) : m_record(record), m_sender(sender) {}
    RoomMark(const RoomMark&) = delete;
    RoomMark& operator=(const RoomMark&) = delete;

    SenderRecord& m_record;
    CNetHandler& m_sender;
    std::atomic<uint32_t> m_times{0};  ///< How many times it was noted since it was last done; 0: not noted.
    uint32_t m_seen = 0;               ///< Of these, those before it was served. Of whoever serves it.
    RoomMark* m_next = nullptr;        ///< Of whoever has it.
};

/// A worker that finds the buffer's lock taken notes the sender here and goes. Whoever leaves the lock looks
/// after it, and so does the worker once more after it has noted: one of them finds the lock free.
///
/// Thread safety: any thread; what was taken is the taker's.
class RoomMarks {
public:
    /// Once more if it was noted before: then it is served once more, should that have begun already.
    void note(RoomMark& mark);
    /// All that was noted, linked.
    RoomMark* take() { return m_first.exchange(nullptr, std::memory_order_acq_rel); }
    /// Writes, so that it is in one order with the notes: a note that is not seen here sees what the caller
    /// did before.
    bool any() {
        RoomMark* none = nullptr;
        return !m_first.compare_exchange_strong(none, nullptr, std::memory_order_acq_rel);
    }
    /// Those taken were served. With no lock held: it may drop a sender's last reference.
    void finish(RoomMark* served);

private:
    void push(RoomMark& mark);

    std::atomic<RoomMark*> m_first{nullptr};
};

}  // namespace Orvex::Reticor
