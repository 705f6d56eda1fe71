// FrameCut: headers and parts of packets in one list.
#include "Tool/datagram/FrameCut.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <memory>
#include <new>

#include <Infra/HeldLocks.h>
#include <Infra/Log.h>
#include <Reticor/SockDgram.h>

namespace Orvex::Reticor {

/// The pieces of the datagrams of one call.
class FrameCut::List {
public:
    static constexpr size_t MOST_DATAGRAMS = 64;
    static constexpr size_t MOST_BYTES = 65000;

    List(iovec* pieces, size_t room) : m_pieces(pieces), m_room(room) {}

    bool add(void* bytes, size_t length) {
        if (m_used == m_room) {
            return false;
        }
        m_pieces[m_used++] = {bytes, length};
        m_bytes += length;
        return true;
    }
    char* next_header(size_t length) {
        char* const header = m_headers.data() + m_header_bytes;
        m_header_bytes += length;
        return header;
    }
    size_t used() const { return m_used; }
    void shrink(size_t used, size_t bytes) {
        m_used = used;
        m_bytes = bytes;
    }
    const iovec* pieces() const { return m_pieces; }
    size_t bytes() const { return m_bytes; }

private:
    iovec* const m_pieces;
    const size_t m_room;
    size_t m_used = 0;
    size_t m_bytes = 0;
    size_t m_header_bytes = 0;
    std::array<char, MOST_DATAGRAMS * MOST_HEADER> m_headers;
};

bool FrameCut::set_remote(const CSockAddr* remote) {
    if (remote == nullptr) {
        m_has_remote = false;
        return true;
    }
    sockaddr_storage record{};
    if (!remote->IsValid() || remote->GetAddr(reinterpret_cast<sockaddr*>(&record)) == nullptr ||
        m_remote.SetAddr(reinterpret_cast<const sockaddr_in*>(&record)) != 0) {
        return false;
    }
    m_has_remote = true;
    return true;
}

void FrameCut::set_size(unsigned payload, unsigned header, const Header& function, bool paced) {
    m_wanted = {payload, header, function};
    m_has_new_size = true;
    m_pace.set_on(paced);
}

// The frame that is on its way stays as it was begun, and one of which nothing could be sent yet is begun
// once.
bool FrameCut::has_begun(const CFrame& frame, uint64_t left, bool at_boundary) const {
    if (m_frame.index >= m_frame.count) {
        return false;
    }
    return !at_boundary ||
           (m_frame.index == 0 && m_frame.bytes == left && m_frame.ordinal == frame.m_ordinal &&
            m_frame.complete_us == frame.m_complete_us && m_frame.channel == frame.channel());
}

void FrameCut::prepare(const CFrame& frame, uint64_t left, bool at_boundary) {
    if (has_begun(frame, left, at_boundary)) {
        return;
    }
    if (m_has_new_size) {
        m_size = m_wanted;
        m_has_new_size = false;
    }
    m_frame = {};
    m_frame.bytes = left;
    m_frame.payload = m_size.payload != 0 ? m_size.payload : left;
    m_frame.count = static_cast<uint32_t>((left + m_frame.payload - 1) / m_frame.payload);
    m_frame.ordinal = frame.m_ordinal;
    m_frame.complete_us = frame.m_complete_us;
    m_frame.channel = frame.channel();
    m_pace.begin(frame.channel(), frame.m_complete_us, m_frame.count);
}

size_t FrameCut::bytes_of(uint32_t index) const {
    return std::min(m_frame.payload, m_frame.bytes - index * m_frame.payload);
}

void FrameCut::write_header(const CFrame& frame, uint32_t index, char* to) {
    MediaDatagram datagram;
    datagram.number = m_stats.datagrams + index - m_frame.index;
    datagram.index = index;
    datagram.count = m_frame.count;
    datagram.offset = index * m_frame.payload;
    datagram.bytes = static_cast<uint32_t>(bytes_of(index));
    datagram.frame_bytes = m_frame.bytes;
    datagram.complete_us = m_frame.complete_us;
    datagram.channel = frame.channel();
    datagram.level = frame.level();
    datagram.key = frame.is_key();
    datagram.info = frame.m_info_shown;
    datagram.info_arg = frame.m_info_arg;
    INFRA_PROMISE(FRAME_FILTER);
    m_size.function(datagram, to);
}

// False, and the list is as before, if it has no room for it.
bool FrameCut::add(List& list, const CFrame& frame, Cursor& cursor, uint32_t index) {
    const size_t used = list.used();
    const size_t bytes = list.bytes();
    char* const header = m_size.header != 0 ? list.next_header(m_size.header) : nullptr;
    bool fits = header == nullptr || list.add(header, m_size.header);
    Cursor to = cursor;
    for (size_t left = bytes_of(index); left != 0 && fits;) {
        const iovec& entry = frame.m_iovec[to.index];
        const size_t taken = std::min(left, entry.iov_len - static_cast<size_t>(to.offset));
        fits = taken == 0 || list.add(static_cast<char*>(entry.iov_base) + to.offset, taken);
        left -= taken;
        to.offset += static_cast<int32_t>(taken);
        if (static_cast<size_t>(to.offset) == entry.iov_len) {
            to = {to.index + 1, 0};
        }
    }
    if (!fits) {
        list.shrink(used, bytes);
        return false;
    }
    if (header != nullptr) {
        write_header(frame, index, header);
    }
    cursor = to;
    return true;
}

FrameCut::Sent FrameCut::send(CSockDgram& sock, const CFrame& frame, Cursor from, size_t most) {
    const size_t segment = m_size.header + m_frame.payload;
    most = std::min({most, List::MOST_DATAGRAMS, std::max<size_t>(List::MOST_BYTES / segment, 1)});
    std::array<iovec, 512> room;
    List list(room.data(), room.size());
    size_t datagrams = 0;
    while (datagrams < most && m_frame.index + datagrams < m_frame.count &&
           add(list, frame, from, static_cast<uint32_t>(m_frame.index + datagrams))) {
        ++datagrams;
    }
    if (datagrams != 0) {
        return send_list(sock, list);
    }
    // One datagram of very many packets.
    const size_t pieces = frame.m_packet_num - static_cast<uint32_t>(from.index) + 1;
    const std::unique_ptr<iovec[]> more(new (std::nothrow) iovec[pieces]);
    if (!more) {
        INFRA_LOG_STATIC(2, "CMediaStreamSender, no memory for a datagram of %u packets\n",
                         static_cast<unsigned>(pieces - 1));
        return {-1, false};
    }
    List longer(more.get(), pieces);
    add(longer, frame, from, m_frame.index);
    return send_list(sock, longer);
}

FrameCut::Sent FrameCut::send_list(CSockDgram& sock, const List& list) {
    const size_t segment = m_size.header + m_frame.payload;
    const int taken = sock.SendSegments(list.pieces(), static_cast<int>(list.used()),
                                        static_cast<unsigned>(std::min<size_t>(segment, LONGEST + 1)),
                                        m_has_remote ? &m_remote : nullptr);
    if (taken <= 0) {
        return {taken, false};
    }
    const auto bytes = static_cast<size_t>(taken);
    const size_t datagrams = (bytes + segment - 1) / segment;
    m_frame.index += static_cast<uint32_t>(datagrams);
    ++m_stats.writes;
    m_stats.datagrams += datagrams;
    m_stats.bytes += bytes;
    return {static_cast<int>(bytes - datagrams * m_size.header), bytes == list.bytes()};
}

}  // namespace Orvex::Reticor
