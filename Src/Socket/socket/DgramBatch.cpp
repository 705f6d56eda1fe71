// sendmmsg(2) and recvmmsg(2).
#include "Socket/socket/DgramBatch.h"

#include <netinet/udp.h>

#include <array>
#include <cerrno>
#include <cstring>

#include <Reticor/SockDgram.h>

#include "Socket/address/SockError.h"

namespace Orvex::Reticor {

ssize_t send_messages(int handle, mmsghdr* messages, size_t count) {
    const int taken = ::sendmmsg(handle, messages, static_cast<unsigned>(count), MSG_NOSIGNAL);
    if (taken < 0) {
        return -1;
    }
    auto sent = static_cast<size_t>(taken);
    for (; sent < count; ++sent) {
        if (::sendmsg(handle, &messages[sent].msg_hdr, MSG_NOSIGNAL) >= 0) {
            continue;
        }
        if (is_try_again(errno)) {
            break;
        }
        return -1;
    }
    return static_cast<ssize_t>(sent);
}

namespace {

using Control = std::array<char, CMSG_SPACE(sizeof(int))>;

/// The length of the datagrams that came as one; 0 if it is one.
unsigned joined_length(msghdr& message) {
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
         header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level == IPPROTO_UDP && header->cmsg_type == UDP_GRO) {
            int length = 0;
            std::memcpy(&length, CMSG_DATA(header), sizeof length);
            return static_cast<unsigned>(length);
        }
    }
    return 0;
}

}  // namespace

ssize_t receive_messages(int handle, SockReceived* list, sockaddr_in6* from, size_t count) {
    std::array<mmsghdr, MOST_MESSAGES> messages;
    std::array<iovec, MOST_MESSAGES> pieces;
    alignas(cmsghdr) std::array<Control, MOST_MESSAGES> controls;
    for (size_t i = 0; i < count; ++i) {
        pieces[i] = {list[i].buf, list[i].size};
        messages[i] = {};
        msghdr& message = messages[i].msg_hdr;
        message.msg_name = &from[i];
        message.msg_namelen = sizeof from[i];
        message.msg_iov = &pieces[i];
        message.msg_iovlen = 1;
        message.msg_control = controls[i].data();
        message.msg_controllen = controls[i].size();
    }
    const int taken =
        ::recvmmsg(handle, messages.data(), static_cast<unsigned>(count), MSG_WAITFORONE, nullptr);
    for (int i = 0; i < taken; ++i) {
        mmsghdr& message = messages[static_cast<size_t>(i)];
        list[i].length = message.msg_len;
        list[i].truncated = (message.msg_hdr.msg_flags & MSG_TRUNC) != 0;
        const unsigned joined = joined_length(message.msg_hdr);
        list[i].segment = joined != 0 ? joined : message.msg_len;
    }
    return taken;
}

int set_joining(int handle, bool on) {
    const int value = on ? 1 : 0;
    return ::setsockopt(handle, IPPROTO_UDP, UDP_GRO, &value, sizeof value);
}

}  // namespace Orvex::Reticor
