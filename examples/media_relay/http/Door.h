// Door: lets clients in, or turns them away.
#pragma once

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <string>

#include <Reticor/SockStream.h>

#include "media_relay/Roster.h"

namespace relay {

/// What a client is counted by: its address; of an IPv6 address the first half, since one host has all of
/// the second half to itself. Empty if the client has gone.
inline std::string originOf(const Orvex::Reticor::CSockStream& peer) {
    sockaddr_in6 address{};
    socklen_t length = sizeof address;
    if (getpeername(peer.GetHandle(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return "";
    }
    if (address.sin6_family == AF_INET) {
        const auto& four = reinterpret_cast<const sockaddr_in&>(address).sin_addr;
        return std::string(reinterpret_cast<const char*>(&four), sizeof four);
    }
    const auto* const bytes = reinterpret_cast<const char*>(&address.sin6_addr);
    if (IN6_IS_ADDR_V4MAPPED(&address.sin6_addr)) {
        return std::string(bytes + 12, 4);
    }
    return std::string(bytes, IN6_IS_ADDR_LINKLOCAL(&address.sin6_addr) ? 16 : 8);
}

/// Whoever finds no place is told so at once, by the end of the connection: a client that waits in the
/// kernel's queue for a place cannot tell that from a server that hangs. It is counted, and a line a second
/// tells of all of them.
///
/// Thread safety: for the listener, under its mutex; `turnedAway` is for any thread.
class Door {
public:
    /// There are at most `most` members. At most `per_address` of them come from one address; 0 is no limit.
    Door(Roster& roster, size_t most, size_t per_address)
        : m_roster(roster), m_most(most), m_per_address(per_address), m_spare(open_spare()) {}
    ~Door() { close(m_spare); }
    Door(const Door&) = delete;
    Door& operator=(const Door&) = delete;

    /// Whether this client may become a member. If not, it is counted, and the caller closes it.
    bool admits(const Orvex::Reticor::CSockStream& peer) {
        if (m_roster.size() >= m_most) {
            return refuse(NO_PLACE);
        }
        if (m_per_address != 0) {
            const std::string origin = originOf(peer);
            return origin.empty() || m_roster.countFrom(origin) < m_per_address || refuse(TOO_MANY);
        }
        return true;
    }

    enum class Outcome { TURNED_AWAY, NOBODY_WAITS, NO_DESCRIPTOR };

    /// To be called when accept has failed for want of a descriptor. Takes the client that waits with a
    /// descriptor kept for this, and closes it.
    Outcome turnAway(int listener) {
        close(m_spare);
        const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        const int error = errno;
        if (client >= 0) {
            close(client);
            refuse(NO_DESCRIPTOR);
        }
        m_spare = open_spare();
        const bool empty = error == EAGAIN || error == ECONNABORTED;
        return client >= 0 ? Outcome::TURNED_AWAY : empty ? Outcome::NOBODY_WAITS : Outcome::NO_DESCRIPTOR;
    }

    /// Whether somebody has been turned away since the last `news`.
    bool hasNews() const { return m_news != std::array<uint64_t, REASONS>(); }

    /// What has happened since the last call.
    std::string news() {
        const std::string text = "turned away, for want of a place: " + std::to_string(m_news[NO_PLACE]) +
                                 ", with too many of their address: " + std::to_string(m_news[TOO_MANY]) +
                                 ", for want of a descriptor: " + std::to_string(m_news[NO_DESCRIPTOR]) +
                                 "; since the start: " + std::to_string(m_total);
        m_news = {};
        return text;
    }

    /// How many have been turned away since the start.
    uint64_t turnedAway() const { return m_total; }

private:
    enum Reason { NO_PLACE, TOO_MANY, NO_DESCRIPTOR, REASONS };

    static int open_spare() { return open("/dev/null", O_RDONLY | O_CLOEXEC); }

    bool refuse(Reason reason) {
        ++m_news[reason];
        ++m_total;
        return false;
    }

    Roster& m_roster;
    const size_t m_most;
    const size_t m_per_address;
    int m_spare;  // a descriptor for the time when there is none left
    std::array<uint64_t, REASONS> m_news{};
    std::atomic<uint64_t> m_total{0};
};

}  // namespace relay
