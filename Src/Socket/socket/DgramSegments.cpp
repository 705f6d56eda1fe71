// DgramSegments: the kernel cuts, or the list does.
#include "Socket/socket/DgramSegments.h"

#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "Socket/address/SockAddrRecord.h"
#include "Socket/address/SockError.h"
#include "Socket/socket/DgramBatch.h"
#include "Socket/socket/DgramGather.h"

namespace Orvex::Reticor {

namespace {

/// The pieces of the first datagrams, cut where one datagram ends and the next one begins.
class CutList {
public:
    CutList(const iovec* vector, size_t count, size_t segment) {
        for (size_t i = 0; i < count && !m_full; ++i) {
            add(vector[i], segment);
        }
        if (!m_full && m_used > m_ends[m_datagrams]) {
            end_datagram();  // the last one may be shorter
        }
    }

    size_t datagrams() const { return m_datagrams; }
    size_t bytes(size_t datagrams) const { return m_bytes_to[datagrams]; }
    msghdr message(size_t first, size_t datagrams, const SockAddrRecord* to) {
        msghdr message{};
        if (to != nullptr) {
            message.msg_name = const_cast<sockaddr*>(to->get());
            message.msg_namelen = to->length;
        }
        message.msg_iov = m_parts.data() + m_ends[first];
        message.msg_iovlen = m_ends[first + datagrams] - m_ends[first];
        return message;
    }

private:
    void add(iovec piece, size_t segment) {
        while (piece.iov_len != 0 && !m_full) {
            const size_t room = std::min(segment - m_in_datagram, DgramSegments::MOST_BYTES - m_bytes);
            if (m_used == m_parts.size() || room == 0) {
                m_full = true;
                return;
            }
            const size_t taken = std::min(piece.iov_len, room);
            m_parts[m_used++] = {piece.iov_base, taken};
            piece = {static_cast<char*>(piece.iov_base) + taken, piece.iov_len - taken};
            m_in_datagram += taken;
            m_bytes += taken;
            if (m_in_datagram == segment) {
                end_datagram();
                m_full = m_datagrams == DgramSegments::MOST_DATAGRAMS;
            }
        }
    }
    void end_datagram() {
        m_bytes_to[m_datagrams + 1] = m_bytes;
        m_ends[++m_datagrams] = m_used;
        m_in_datagram = 0;
    }

    std::array<iovec, IOV_MAX> m_parts;
    std::array<size_t, DgramSegments::MOST_DATAGRAMS + 1> m_ends{};      ///< Parts up to there.
    std::array<size_t, DgramSegments::MOST_DATAGRAMS + 1> m_bytes_to{};  ///< Their bytes.
    size_t m_used = 0;
    size_t m_datagrams = 0;
    size_t m_in_datagram = 0;
    size_t m_bytes = 0;
    bool m_full = false;
};

// One datagram of more pieces than a message takes, or of more bytes than a list here has.
ssize_t send_alone(int handle, const SockAddrRecord* to, const iovec* vector, size_t count, size_t segment) {
    size_t used = 0;
    size_t bytes = 0;
    while (used < count && bytes < segment) {
        bytes += vector[used++].iov_len;
    }
    const std::unique_ptr<iovec[]> pieces(new (std::nothrow) iovec[used]);
    if (!pieces) {
        return fail_with(ENOMEM);
    }
    std::copy(vector, vector + used, pieces.get());
    if (bytes > segment) {
        pieces[used - 1].iov_len -= bytes - segment;
    }
    return send_gathered(handle, pieces.get(), static_cast<int>(used), to);
}

ssize_t send_cut_by_kernel(int handle, msghdr message, size_t segment) {
    const auto size = static_cast<uint16_t>(segment);
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof size)> control{};
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = IPPROTO_UDP;
    header->cmsg_type = UDP_SEGMENT;
    header->cmsg_len = CMSG_LEN(sizeof size);
    std::memcpy(CMSG_DATA(header), &size, sizeof size);
    return ::sendmsg(handle, &message, MSG_NOSIGNAL);
}

// What a device or a path that cannot be cut for answers; so does what no way of sending heals.
bool may_be_for_cutting(int error) {
    return error == EINVAL || error == EIO || error == EMSGSIZE || error == EOPNOTSUPP ||
           error == ENOPROTOOPT;
}

ssize_t send_list(int handle, const SockAddrRecord* to, CutList& list) {
    std::array<mmsghdr, DgramSegments::MOST_DATAGRAMS> messages{};
    for (size_t i = 0; i < list.datagrams(); ++i) {
        messages[i].msg_hdr = list.message(i, 1, to);
    }
    const ssize_t sent = send_messages(handle, messages.data(), list.datagrams());
    return sent < 0 ? -1 : static_cast<ssize_t>(list.bytes(static_cast<size_t>(sent)));
}

}  // namespace

// A kernel that does not know the request would not refuse it but send one long datagram.
bool DgramSegments::kernel_cuts(int handle) {
    if (m_cuts == Cuts::UNKNOWN) {
        int size = 0;
        socklen_t length = sizeof size;
        const int result = ::getsockopt(handle, IPPROTO_UDP, UDP_SEGMENT, &size, &length);
        m_cuts = result == 0 ? Cuts::YES : Cuts::NO;
    }
    return m_cuts == Cuts::YES;
}

ssize_t DgramSegments::send(int handle, const SockAddrRecord* to, const iovec* vector, size_t count,
                            size_t segment) {
    CutList list(vector, count, segment);
    if (list.datagrams() == 0) {
        return send_alone(handle, to, vector, count, segment);
    }
    if (list.datagrams() == 1) {
        const msghdr message = list.message(0, 1, to);
        return ::sendmsg(handle, &message, MSG_NOSIGNAL);
    }
    if (!kernel_cuts(handle)) {
        return send_list(handle, to, list);
    }
    const ssize_t sent = send_cut_by_kernel(handle, list.message(0, list.datagrams(), to), segment);
    if (sent >= 0 || !may_be_for_cutting(errno)) {
        return sent;
    }
    const ssize_t listed = send_list(handle, to, list);
    m_cuts = listed > 0 ? Cuts::NO : m_cuts;
    return listed;
}

}  // namespace Orvex::Reticor
