// CSockAddr: the abstract base of all socket addresses, told apart by a type code.
#pragma once

#include <cstdint>

#include <Reticor/Export.h>

struct sockaddr;

namespace Orvex::Reticor {

/// What CSockAddr::GetType returns: the class of the object, and so what it may be cast to.
enum SockAddrType : uint32_t {
    SOCKADDR_TYPE_UNKNOWN = 0,  ///< CSockAddr itself
    SOCKADDR_TYPE_IPV4 = 1,     ///< CSockAddrIPv4
    SOCKADDR_TYPE_IPV6 = 2,     ///< CSockAddrIPv6
    SOCKADDR_TYPE_STORAGE = 3,  ///< CSockAddrStorage, which holds either family
};

/// A socket address of some family. Every socket call of the library takes one.
///
/// Thread safety: an address has no lock. Any number of threads may read it, but nobody may read it while
/// another thread writes it.
///
/// Nothing here throws. An address whose record could not be allocated stays empty, with a line at level 2:
/// its setters return -1, its getters null or 0, and it is not valid.
class RETICOR_API CSockAddr {
public:
    /// Of type SOCKADDR_TYPE_UNKNOWN.
    CSockAddr();
    /// Copies the type code only; the address itself belongs to the children.
    CSockAddr(const CSockAddr& other);
    /// As the copy constructor.
    CSockAddr& operator=(const CSockAddr& other);
    virtual ~CSockAddr();

    /// Copies the system's record of the address to `addr`, which must have room for GetAddrLen() bytes;
    /// a sockaddr_storage always has. Returns `addr`, or null if `addr` is null or there is nothing to copy.
    virtual struct sockaddr* GetAddr(struct sockaddr* addr) const = 0;

    /// The length in bytes of the system's record: 16 for IPv4, 28 for IPv6, 0 for none.
    virtual unsigned GetAddrLen() const = 0;

    /// Whether the address can be used as a peer. The families have rules of their own; see the children.
    virtual bool IsValid() const = 0;

    /// One of SockAddrType.
    unsigned GetType() const { return m_type; }

    /// Whether the port is one that the product keeps for its own services: 1024 and below, 1900, 3800, 5000,
    /// 5050, 8090 to 8121, 9999, 37776 to 37778, 37780 to 37880 and 39999. It answers for CSockAddrIPv4 only
    /// and is false for any other type.
    bool IsReserved() const;

protected:
    /// For the children, which say what they are.
    explicit CSockAddr(SockAddrType type);

    /// One of SockAddrType.
    uint32_t m_type;
};

}  // namespace Orvex::Reticor
