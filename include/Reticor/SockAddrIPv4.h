// CSockAddrIPv4: an IPv4 address and port.
#pragma once

#include <memory>

#include <Reticor/Export.h>
#include <Reticor/SockAddr.h>

struct sockaddr_in;

namespace Orvex::Reticor {

/// An IPv4 address and port, see ip(7). Addresses and ports are in host byte order at this interface, except
/// inside a sockaddr_in.
///
/// Setters return 0, or -1 and leave what they have written by then. See CSockAddr for threads.
class RETICOR_API CSockAddrIPv4 : public CSockAddr {
public:
    /// 0.0.0.0, port 0.
    CSockAddrIPv4();
    /// The number, as SetAddr.
    CSockAddrIPv4(unsigned ip, unsigned short port);
    /// May block, see SetIp. GetIp() is 0 afterwards if the text could not be resolved.
    CSockAddrIPv4(const char* ip, unsigned short port);
    /// The record as it is, as SetAddr.
    CSockAddrIPv4(const struct sockaddr_in& addr);
    /// A record of its own, equal to the other one.
    CSockAddrIPv4(const CSockAddrIPv4& other);
    /// Copies the record.
    CSockAddrIPv4& operator=(const CSockAddrIPv4& other);
    ~CSockAddrIPv4() override;

    /// SetIp, then SetPort. Does not block.
    int SetAddr(unsigned ip, unsigned short port);
    /// May block, see SetIp. The port is set even if the text could not be resolved.
    int SetAddr(const char* ip, unsigned short port);
    /// Takes over the record as it is, the family field included.
    int SetAddr(const struct sockaddr_in& addr);

    /// The port is left alone. A literal 0 is ambiguous between the two forms; write 0u for the wildcard.
    int SetIp(unsigned ip);

    /// Takes a dotted literal, an IPv4-mapped IPv6 literal such as "::ffff:10.0.0.1", or a host name; null
    /// and "" are the wildcard. Any other IPv6 literal is refused with -1. The port is left alone.
    ///
    /// Blocks the caller while a host name is looked up, for as long as the system's resolver takes; literals
    /// never reach the name service. After a failed look-up errno holds the resolver's code (EAI_*, which is
    /// negative), or the system's error.
    int SetIp(const char* ip);
    /// The address is left alone.
    int SetPort(unsigned short port);

    /// The address as a number, 0 for the wildcard.
    unsigned GetIp() const;
    /// The port, 0 if none was set.
    unsigned short GetPort() const;

    /// Writes the dotted text to `buf` of `len` bytes and returns `buf`. Null without a log line if `buf` is
    /// null or `len` is below 7, null with one if the text does not fit; 16 bytes are always enough.
    char* GetIpStr(char* buf, unsigned len) const;

    struct sockaddr* GetAddr(struct sockaddr* addr) const override;
    unsigned GetAddrLen() const override;

    /// False, with a log line, only for 255.255.255.255 with port 0, which is how a failed look-up is kept in
    /// a number. The wildcard with port 0 is valid: one can bind to it.
    bool IsValid() const override;

    /// Whether address and port are equal. An address that is not valid is equal to none, not even to itself.
    bool operator==(const CSockAddrIPv4& other) const;

private:
    std::unique_ptr<struct sockaddr_in> m_addrin;
};

}  // namespace Orvex::Reticor
