// TcpFigures: the fields by their places.
#include "Tool/judge/TcpFigures.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cstring>

namespace Orvex::Reticor {

namespace {

/// More than any kernel gives today.
constexpr size_t ROOM = 512;

// Places in the answer. They never move: new fields come to its end.
constexpr size_t MSS = 16;
constexpr size_t UNACKED = 24;
constexpr size_t RTT = 68;
constexpr size_t CONGESTION_WINDOW = 80;
constexpr size_t RETRANSMITTED = 100;
constexpr size_t BYTES_ACKED = 120;
constexpr size_t UNSENT = 144;
constexpr size_t SEGMENTS = 156;
constexpr size_t BUSY = 168;
constexpr size_t CLOSED = 176;
constexpr size_t BYTES_SENT = 200;
constexpr size_t BYTES_SENT_AGAIN = 208;
constexpr size_t WINDOW = 228;

template <class Number>
bool take(const unsigned char* bytes, size_t size, size_t place, Number& number) {
    if (place + sizeof number > size) {
        return false;
    }
    std::memcpy(&number, bytes + place, sizeof number);
    return true;
}

}  // namespace

TcpFigures TcpFigures::read(const unsigned char* bytes, size_t size) {
    TcpFigures found;
    take(bytes, size, MSS, found.mss);
    take(bytes, size, UNACKED, found.unacked);
    take(bytes, size, RTT, found.rtt_us);
    take(bytes, size, CONGESTION_WINDOW, found.congestion_window);
    take(bytes, size, RETRANSMITTED, found.retransmitted);
    take(bytes, size, SEGMENTS, found.segments);
    found.known = take(bytes, size, BYTES_ACKED, found.acked) && take(bytes, size, UNSENT, found.unsent);
    found.limits_known = take(bytes, size, BUSY, found.busy_us) && take(bytes, size, CLOSED, found.closed_us);
    found.window_known = take(bytes, size, WINDOW, found.window);
    uint64_t sent = 0;
    uint64_t again = 0;
    if (take(bytes, size, BYTES_SENT, sent) && take(bytes, size, BYTES_SENT_AGAIN, again)) {
        const uint64_t once = sent - again;
        found.under_way = once > found.acked ? once - found.acked : 0;
    } else {
        found.under_way = uint64_t{found.unacked} * found.mss;
    }
    return found;
}

TcpFigures TcpFigures::ask(int handle) {
    unsigned char bytes[ROOM];
    socklen_t size = sizeof bytes;
    if (::getsockopt(handle, IPPROTO_TCP, TCP_INFO, bytes, &size) != 0) {
        return TcpFigures();
    }
    return read(bytes, size);
}

}  // namespace Orvex::Reticor
