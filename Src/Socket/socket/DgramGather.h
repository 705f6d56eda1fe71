// Sends the pieces of a list as one datagram, however many they are.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

namespace Orvex::Reticor {

struct SockAddrRecord;

/// One sendmsg(2) on the socket `handle`, which is connected if `remote` is null. The kernel takes at most
/// IOV_MAX pieces, and a datagram cannot go out in parts, so of a longer list the end is copied into one
/// piece. Returns the bytes sent, or -1 with errno: EMSGSIZE for a negative `count` and for what no datagram
/// holds.
ssize_t send_gathered(int handle, const struct iovec* vector, int count,
                      const SockAddrRecord* remote = nullptr);

}  // namespace Orvex::Reticor
