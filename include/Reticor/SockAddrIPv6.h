// CSockAddrIPv6: an IPv6 address and port.
#pragma once

#include <memory>

#include <Reticor/Export.h>
#include <Reticor/SockAddr.h>

struct sockaddr_in6;

namespace Orvex::Reticor {

/// An IPv6 address, port and scope, see ipv6(7). Ports are in host byte order at this interface.
///
/// IPv4 peers are written as mapped addresses, "::ffff:10.0.0.1": a socket of this family reaches them too,
/// and a listener on "::" takes connections of both families.
///
/// Setters return 0, or -1 and leave what they have written by then. See CSockAddr for threads.
class RETICOR_API CSockAddrIPv6 : public CSockAddr {
public:
    /// "::", port 0; not valid until it is set.
    CSockAddrIPv6();
    /// May block, see SetIp.
    CSockAddrIPv6(const char* ip, unsigned short port);
    /// With the scope as SetScopeID has it. May block, see SetIp.
    CSockAddrIPv6(const char* ip, unsigned short port, unsigned scope);
    /// Stays "::" with port 0 if SetAddr refuses `addr`, which remains the caller's.
    CSockAddrIPv6(const struct sockaddr_in6* addr);
    /// A record of its own, equal to the other one.
    CSockAddrIPv6(const CSockAddrIPv6& other);
    /// Copies the record.
    CSockAddrIPv6& operator=(const CSockAddrIPv6& other);
    /// Asserts that the type code is still that of an IPv6 address: an assignment through a CSockAddr& would
    /// change it and not the address.
    ~CSockAddrIPv6() override;

    /// Forgets the old address, flow information and scope first. May block, see SetIp.
    int SetAddr(const char* ip, unsigned short port);
    /// The same, with the scope as SetScopeID has it.
    int SetAddr(const char* ip, unsigned short port, unsigned scope);
    /// Copies the record. -1 if `addr` is null or of another family, and then nothing changes.
    int SetAddr(const struct sockaddr_in6* addr);

    /// Takes a literal, with a scope if it has one ("fe80::1%eth0"), or a host name. A name that has IPv4
    /// addresses only, and a dotted literal, give a mapped address.
    ///
    /// A literal replaces the whole record, so port and flow information become 0, and the scope too unless
    /// the literal names one: set the text first and the port after it. A host name leaves the port alone.
    ///
    /// Blocks the caller while a host name is looked up, for as long as the system's resolver takes. After a
    /// failed look-up, which also writes a log line, errno holds the resolver's code (EAI_*, negative) or the
    /// system's error.
    int SetIp(const char* ip);
    /// The address is left alone.
    int SetPort(unsigned short port);
    /// The port, 0 if none was set.
    unsigned short GetPort() const;

    /// The index of the interface that a link-local address belongs to, 0 for none; see if_nametoindex(3).
    int SetScopeID(unsigned scope);
    /// What SetScopeID or a literal has set; 0: none.
    unsigned GetScopeID() const;

    /// Writes the address as RFC 5952 text, without scope and port, to `buf` of `len` bytes and returns
    /// `buf`. Null without a log line if `buf` is null or `len` is 16 or less, null with one if the text does
    /// not fit; 46 bytes are always enough.
    char* GetIpStr(char* buf, unsigned len) const;

    struct sockaddr* GetAddr(struct sockaddr* addr) const override;
    unsigned GetAddrLen() const override;

    /// False, with a log line, if the port is 0 or the address is "::". This is stricter than the IPv4 rule.
    bool IsValid() const override;

    /// Whether address and port are equal; flow information and scope do not count. An address that is not
    /// valid is equal to none, not even to itself.
    bool operator==(const CSockAddrIPv6& other) const;

private:
    std::unique_ptr<struct sockaddr_in6> m_addr;
};

}  // namespace Orvex::Reticor
