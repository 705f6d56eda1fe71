// Many datagrams with one system call.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>

#include "Socket/socket/DgramBatch.h"

namespace Orvex::Reticor {

struct SockAddrRecord;

/// Cuts what the pieces of a list hold, put together, into datagrams of one size and sends them: as one
/// message that the kernel cuts (UDP_SEGMENT), or where it does not as a list of messages (sendmmsg).
///
/// Thread safety: none; like the socket, it is its user's.
class DgramSegments {
public:
    static constexpr size_t MOST_DATAGRAMS = MOST_MESSAGES;  ///< Of one message; the kernel's bound too.
    static constexpr size_t MOST_BYTES = 65000;  ///< Of one message; no more than both families take.

    /// Sends on the socket `handle` to `to`, or with null on the connected one to its peer. Returns the bytes
    /// that went, which end where a datagram ends: fewer than there are if one call takes no more. -1 with
    /// errno on an error, also on one that came after some had gone.
    ssize_t send(int handle, const SockAddrRecord* to, const iovec* vector, size_t count, size_t segment);

    /// The next socket may be another one.
    void forget() { m_cuts = Cuts::UNKNOWN; }

private:
    enum class Cuts { UNKNOWN, YES, NO };

    bool kernel_cuts(int handle);

    Cuts m_cuts = Cuts::UNKNOWN;  ///< Whether the kernel cuts messages of this socket.
};

}  // namespace Orvex::Reticor
