// The base of all socket addresses.
#include <Reticor/SockAddr.h>

#include <netinet/in.h>

#include <algorithm>
#include <iterator>

namespace Orvex::Reticor {

namespace {

// The ports of the product's own services: single ones, and ranges with both ends included. 37779 is free.
constexpr unsigned RESERVED_PORTS[] = {1900, 3800, 5000, 5050, 9999, 37776, 37777, 37778, 39999};
struct PortRange {
    unsigned first;
    unsigned last;
};
constexpr PortRange RESERVED_RANGES[] = {{0, 1024}, {8090, 8121}, {37780, 37880}};

}  // namespace

CSockAddr::CSockAddr() : CSockAddr(SOCKADDR_TYPE_UNKNOWN) {}

CSockAddr::CSockAddr(SockAddrType type) : m_type(type) {}

CSockAddr::CSockAddr(const CSockAddr&) = default;

CSockAddr& CSockAddr::operator=(const CSockAddr&) = default;

CSockAddr::~CSockAddr() = default;

bool CSockAddr::IsReserved() const {
    if (m_type != SOCKADDR_TYPE_IPV4) {
        return false;
    }
    // Read through the record, since the base does not know its children.
    sockaddr_in record{};
    GetAddr(reinterpret_cast<sockaddr*>(&record));
    const unsigned port = ntohs(record.sin_port);
    return std::find(std::begin(RESERVED_PORTS), std::end(RESERVED_PORTS), port) !=
               std::end(RESERVED_PORTS) ||
           std::any_of(std::begin(RESERVED_RANGES), std::end(RESERVED_RANGES),
                       [port](const PortRange& range) { return port >= range.first && port <= range.last; });
}

}  // namespace Orvex::Reticor
