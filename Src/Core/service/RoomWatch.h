// RoomWatch: the write interest of a sender that waits until its socket has room.
#pragma once

#include <cstdint>

#include "Core/record/SockRecord.h"

namespace Orvex::Reticor {

/// A place in which a sender waits for room.
struct RoomPlace {
    int64_t m_owner = 0;  ///< Id of the handler that reads the socket, and is called.
    int m_fd = -1;        ///< Negative: there is no place.
    uint32_t m_sequence =
        0;  ///< Of the socket's registration, so that a later one under its number is told apart.

    bool is_taken() const { return m_fd >= 0; }
};

/// Adds the write direction to the registration with which a handler reads a socket, and takes it off
/// again. Whoever else asks for that direction meanwhile neither loses nor ends it, and an idle time-out
/// that runs on the socket runs on. All static; no handler is pinned, so any lock may be held, but none of
/// a socket's record.
///
/// A place can be lost: see RoomLosses.
///
/// Thread safety: any thread.
class RoomWatch {
public:
    RoomWatch() = delete;

    /// The owner's `handle_output` is called when the socket has room. An empty place, and nothing has
    /// changed, if that cannot be: the owner is not open or does not read the socket, another writer has
    /// its write direction, or the pool's write set is full.
    static RoomPlace begin(int64_t owner, int fd);

    /// The interest has ended when this returns, and the place is empty. Of a place that was lost, and may be
    /// another one's by now, nothing is taken.
    static void end(RoomPlace& place);

    /// The same for whatever sender waits on the socket.
    static void end_all(int64_t owner, int fd);

    /// Whether the owner is still there and will be called.
    static bool stands(const RoomPlace& place);

    /// Whether the kernel is asked for room, or will be when the worker that serves the record has finished.
    /// Under the record's mutex.
    static bool is_placed(const CEvent* ev);

    /// How many times the interest began, for the tests.
    static uint64_t begun() { return sm_begun.load(std::memory_order_relaxed); }

private:
    static inline std::atomic<uint64_t> sm_begun{0};
};

}  // namespace Orvex::Reticor
