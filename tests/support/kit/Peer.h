// Peer: the other end of a connection under test.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <string_view>
#include <utility>

#include <gtest/gtest.h>

namespace Orvex::Testing {

class Peer {
public:
    explicit Peer(int descriptor) : m_descriptor(descriptor) {}
    ~Peer() { hang_up(); }
    Peer(Peer&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
    Peer& operator=(Peer&&) = delete;

    void send(const std::string& bytes) {
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()), ::send(m_descriptor, bytes.data(), bytes.size(), 0));
    }
    std::string receive(size_t count) {
        std::string bytes(count, '\0');
        const ssize_t got = ::recv(m_descriptor, bytes.data(), count, MSG_WAITALL);
        bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return bytes;
    }
    /// What is there now, at most that many bytes.
    std::string take(size_t most) {
        std::string bytes(most, '\0');
        const ssize_t got = ::recv(m_descriptor, bytes.data(), most, MSG_DONTWAIT);
        bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return bytes;
    }
    /// Sends what is possible now. Gives the number sent.
    size_t offer(std::string_view bytes) {
        const ssize_t sent = ::send(m_descriptor, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        return sent > 0 ? static_cast<size_t>(sent) : 0;
    }
    /// The same with at most 64 bytes, and takes all that has come.
    size_t feed() {
        const char bytes[64] = "";
        const size_t sent = offer(std::string_view(bytes, sizeof bytes));
        take_all();
        return sent;
    }
    void take_all() {
        char bytes[256];
        while (::recv(m_descriptor, bytes, sizeof bytes, MSG_DONTWAIT) > 0) {
        }
    }
    bool is_ended() {
        char byte = 0;
        return ::recv(m_descriptor, &byte, 1, 0) == 0;
    }
    /// The same, or a reset: what we sent may lie unread at the other end when that is closed.
    bool is_over() {
        char byte = 0;
        const ssize_t got = ::recv(m_descriptor, &byte, 1, 0);
        return got == 0 || (got < 0 && errno == ECONNRESET);
    }
    /// Whether nothing is there now, the end included.
    bool is_quiet() {
        char byte = 0;
        return ::recv(m_descriptor, &byte, 1, MSG_DONTWAIT | MSG_PEEK) < 0 && errno == EAGAIN;
    }
    void finish() { shutdown(m_descriptor, SHUT_WR); }
    void hang_up() {
        if (m_descriptor >= 0) {
            ::close(std::exchange(m_descriptor, -1));
        }
    }

private:
    int m_descriptor;
};

}  // namespace Orvex::Testing
