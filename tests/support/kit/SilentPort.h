// SilentPort: a port where whoever connects gets no answer.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace Orvex::Testing {

/// Listens on the loopback, with its queue full.
class SilentPort {
public:
    /// `address` is IPv4 or IPv6.
    explicit SilentPort(const std::string& address = "127.0.0.1")
        : m_family(address.find(':') != std::string::npos ? AF_INET6 : AF_INET),
          m_descriptor(socket(m_family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        auto* const generic = reinterpret_cast<sockaddr*>(&m_address);
        socklen_t length = m_family == AF_INET6 ? sizeof m_address : sizeof(sockaddr_in);
        m_address.sin6_family = static_cast<sa_family_t>(m_family);
        auto* const four = reinterpret_cast<sockaddr_in*>(generic);
        inet_pton(m_family, address.c_str(),
                  m_family == AF_INET6 ? static_cast<void*>(&m_address.sin6_addr)
                                       : static_cast<void*>(&four->sin_addr));
        EXPECT_EQ(0, bind(m_descriptor, generic, length));
        EXPECT_EQ(0, listen(m_descriptor, 0));
        EXPECT_EQ(0, getsockname(m_descriptor, generic, &length));
        for (int i = 0; i < 4; ++i) {
            const int filler = socket(m_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            static_cast<void>(connect(filler, generic, length));
            m_fillers.push_back(filler);
        }
    }
    ~SilentPort() {
        for (const int filler : m_fillers) {
            close(filler);
        }
        close(m_descriptor);
    }
    SilentPort(const SilentPort&) = delete;
    SilentPort& operator=(const SilentPort&) = delete;

    /// The port stands at the same place in both families.
    int number() const { return ntohs(m_address.sin6_port); }

private:
    const int m_family;
    const int m_descriptor;
    sockaddr_in6 m_address{};
    std::vector<int> m_fillers;
};

}  // namespace Orvex::Testing
