// Lists of datagrams: many with one system call.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>

namespace Orvex::Reticor {

struct SockReceived;

/// The most of one call.
constexpr size_t MOST_MESSAGES = 64;

/// Sends up to MOST_MESSAGES on the socket `handle`. Returns how many went, fewer if the socket took no more;
/// -1 with errno on an error, also on one that came after some had gone: a call that took fewer than it was
/// given hides why, and may hide it for ever, so the next one goes alone.
ssize_t send_messages(int handle, mmsghdr* messages, size_t count);

/// Receives up to MOST_MESSAGES into `list`, without the senders' addresses, which `from` gets, one for each.
/// Waits for the first one alone, if the socket blocks. Returns how many there were, or -1 with errno.
ssize_t receive_messages(int handle, SockReceived* list, sockaddr_in6* from, size_t count);

/// Whether the kernel may hand over several datagrams of one sender and length as one (UDP_GRO). 0, or -1
/// with errno.
int set_joining(int handle, bool on);

}  // namespace Orvex::Reticor
