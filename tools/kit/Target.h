// Target: the server that a load generator connects to.
#pragma once

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace LoadKit {

/// How a connection is made.
struct Manner {
    bool blocking = true;
    bool no_delay = false;
    int receive_bytes = 0;  // that the kernel takes for a client which does not read; 0 is its own choice
    int segment_bytes = 0;  // at most, as on a real link; 0 is the interface's
    int patience_s = 0;     // for one receive that blocks; 0 is for ever
};

/// An address, once it is resolved.
class Target {
public:
    /// False if there is no such address; why is said on standard error.
    bool resolve(const std::string& host, const std::string& port) {
        addrinfo hints{};
        hints.ai_socktype = SOCK_STREAM;
        hints.ai_flags = AI_NUMERICSERV;
        addrinfo* found = nullptr;
        const int error = getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
        if (error != 0) {
            std::fprintf(stderr, "%s: %s:%s: %s\n", program_invocation_short_name, host.c_str(), port.c_str(),
                         gai_strerror(error));
            return false;
        }
        std::memcpy(&m_address, found->ai_addr, found->ai_addrlen);
        m_length = found->ai_addrlen;
        freeaddrinfo(found);
        return true;
    }

    /// A new connection, which is the caller's; one that does not block may still be on its way. -1 with
    /// errno if there is none.
    int connect(const Manner& manner) const {
        const int kind = SOCK_STREAM | SOCK_CLOEXEC | (manner.blocking ? 0 : SOCK_NONBLOCK);
        const int fd = socket(m_address.ss_family, kind, 0);
        if (fd < 0) {
            return -1;
        }
        const timeval patience{manner.patience_s, 0};
        set(fd, SOL_SOCKET, SO_RCVBUF, manner.receive_bytes);
        set(fd, IPPROTO_TCP, TCP_MAXSEG, manner.segment_bytes);
        set(fd, IPPROTO_TCP, TCP_NODELAY, manner.no_delay ? 1 : 0);
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        const auto* const address = reinterpret_cast<const sockaddr*>(&m_address);
        if (::connect(fd, address, m_length) != 0 && (manner.blocking || errno != EINPROGRESS)) {
            const int error = errno;
            close(fd);
            errno = error;
            return -1;
        }
        return fd;
    }

private:
    static void set(int fd, int level, int option, int value) {
        if (value != 0) {
            setsockopt(fd, level, option, &value, sizeof value);
        }
    }

    sockaddr_storage m_address{};
    socklen_t m_length = 0;
};

}  // namespace LoadKit
