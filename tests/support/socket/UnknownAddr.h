// What cases of sockets share: an address of no family that sockets know, an option's value.
#pragma once

#include <sys/socket.h>

#include <Reticor/Sock.h>
#include <Reticor/SockAddr.h>

namespace Orvex::Testing {

constexpr unsigned LOOPBACK_IP = 0x7F000001;

class CUnknownAddr : public Reticor::CSockAddr {
public:
    explicit CUnknownAddr(bool has_record = true) : m_has_record(has_record) {}
    struct sockaddr* GetAddr(struct sockaddr* addr) const override {
        return m_has_record ? addr : nullptr;
    }
    unsigned GetAddrLen() const override { return 16; }
    bool IsValid() const override { return true; }

private:
    const bool m_has_record;
};

// -1 where the system refuses.
inline int optionOf(const Reticor::CSock& sock, int level, int option) {
    int value = -1;
    socklen_t length = sizeof value;
    ::getsockopt(sock.GetHandle(), level, option, &value, &length);
    return value;
}

}  // namespace Orvex::Testing
