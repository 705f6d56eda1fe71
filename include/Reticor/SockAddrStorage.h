// CSockAddrStorage: an address of either family that remembers the text it was given.
#pragma once

#include <memory>

#include <Reticor/Export.h>
#include <Reticor/SockAddr.h>

struct sockaddr_in;

namespace Orvex::Reticor {

/// An IPv4 or IPv6 address together with the text it was made from. It suits code that takes an address from
/// a configuration or a peer and does not care for the family.
///
/// Setters return 0, or -1 and leave what they have written by then. See CSockAddr for threads.
class RETICOR_API CSockAddrStorage : public CSockAddr {
public:
    /// Holds no address, and is not valid.
    CSockAddrStorage();
    /// May block, see SetIp.
    CSockAddrStorage(const char* ip, unsigned short port);
    /// Copies the text and what was made of it.
    CSockAddrStorage(const CSockAddrStorage& other);
    /// As the copy constructor.
    CSockAddrStorage& operator=(const CSockAddrStorage& other);
    ~CSockAddrStorage() override;

    /// SetIp, then SetPort. May block, see SetIp.
    int SetAddr(const char* ip, unsigned short port);

    /// Takes a sockaddr_in or, in spite of the declared type, a sockaddr_in6, told apart by the family field;
    /// the scope of an IPv6 address is kept. -1 for null and for any other family. Does not block: the
    /// address becomes numeric text.
    int SetAddr(const struct sockaddr_in* addr);

    /// Takes a literal of either family or a host name, IPv4 preferred. Null gives -1. Blocks the caller
    /// while a host name is looked up.
    ///
    /// An IPv4-mapped literal is kept as IPv6 with the real type IPv4, and the record that GetAddr gives then
    /// has the port that was set *before* this call; SetPort afterwards changes what GetPort returns, and not
    /// that record. Call SetPort first for such addresses.
    int SetIp(const char* ip);
    /// The address is left alone.
    int SetPort(unsigned short port);

    /// 0 while the address is not valid.
    unsigned short GetPort() const;

    /// What the address turned out to be: SOCKADDR_TYPE_IPV4, SOCKADDR_TYPE_IPV6, or SOCKADDR_TYPE_UNKNOWN.
    unsigned GetRealType() const;

    /// The family in which the address is kept and in which a socket must be opened for it;
    /// SOCKADDR_TYPE_UNKNOWN while it is not valid.
    unsigned GetInputType() const;

    /// Not supported: logs and returns false, always. Use GetAddr.
    bool GetRealSockAddr(CSockAddr* addr);

    /// Copies the text that was given, a host name included and not a formatted address, to `buf` of `len`
    /// bytes, and returns `buf`. Null if `buf` is null, the text with its terminator does not fit, or the
    /// address has no real type.
    char* GetIpStr(char* buf, unsigned len) const;

    /// The record of the family in which the address is kept; null if there is none.
    struct sockaddr* GetAddr(struct sockaddr* addr) const override;
    unsigned GetAddrLen() const override;

    /// Whether an address is held that was given as a non-empty text.
    bool IsValid() const override;

    /// Whether both were given as the same text with the same port; "::1" and "0::1" differ. An address that
    /// is not valid is equal to none, not even to itself.
    bool operator==(const CSockAddrStorage& other) const;

private:
    struct Record;
    std::unique_ptr<Record> m_storage;
};

}  // namespace Orvex::Reticor
