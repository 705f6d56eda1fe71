// TcpClient: one blocking socket, with deadlines.

#include "support/program/TcpClient.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <utility>

#include <gtest/gtest.h>

#include "support/Eventually.h"

namespace Orvex::Testing {

namespace {

constexpr int CLIENT_LIMIT_MS = 15000;

timeval limit() {
    const int limit_ms = scaledMs(CLIENT_LIMIT_MS);
    return {limit_ms / 1000, limit_ms % 1000 * 1000};
}

}  // namespace

TcpClient::TcpClient(int port, const std::string& host, int receive_bytes, const std::string& from) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) {
        return;
    }
    m_fd = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval time = limit();
    setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
    setsockopt(m_fd, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
    if (receive_bytes > 0) {
        setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &receive_bytes, sizeof receive_bytes);
    }
    if (!from.empty()) {
        sockaddr_in own{};
        own.sin_family = AF_INET;
        inet_pton(AF_INET, from.c_str(), &own.sin_addr);
        EXPECT_EQ(0, bind(m_fd, reinterpret_cast<sockaddr*>(&own), sizeof own));
    }
    if (connect(m_fd, found->ai_addr, found->ai_addrlen) != 0) {
        close(m_fd);
        m_fd = -1;
    }
    freeaddrinfo(found);
}

TcpClient::~TcpClient() {
    if (m_fd >= 0) {
        close(m_fd);
    }
}

TcpClient::TcpClient(TcpClient&& other) noexcept
    : m_fd(std::exchange(other.m_fd, -1)),
      m_read(std::move(other.m_read)),
      m_over(other.m_over),
      m_reset(other.m_reset) {}

bool TcpClient::send(const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t count = ::send(m_fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) {
            return false;
        }
        sent += static_cast<size_t>(count);
    }
    return true;
}

size_t TcpClient::sendUntilStuck(const std::string& bytes, int patience_ms) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        pollfd ready{m_fd, POLLOUT, 0};
        if (poll(&ready, 1, patience_ms) <= 0) {
            break;
        }
        const ssize_t count =
            ::send(m_fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0 && errno != EAGAIN) {
            break;
        }
        if (count > 0) {
            sent += static_cast<size_t>(count);
        }
    }
    return sent;
}

bool TcpClient::fill() {
    char room[65536];
    const ssize_t got = recv(m_fd, room, sizeof room, 0);
    if (got > 0) {
        m_read.append(room, static_cast<size_t>(got));
    }
    m_reset = got < 0 && errno == ECONNRESET;
    m_over = got == 0 || m_reset;
    return got > 0;
}

std::string TcpClient::receive(size_t count) {
    while (m_read.size() < count && fill()) {
    }
    const std::string bytes = m_read.substr(0, count);
    m_read.erase(0, count);
    return bytes;
}

std::string TcpClient::receiveLine() {
    size_t end;
    while ((end = m_read.find('\n')) == std::string::npos && fill()) {
    }
    const std::string line = m_read.substr(0, end);
    m_read.erase(0, end == std::string::npos ? end : end + 1);
    return line;
}

std::string TcpClient::receiveAll() {
    while (fill()) {
    }
    return std::exchange(m_read, std::string());
}

bool TcpClient::isClosed() const {
    char byte;
    const ssize_t got = recv(m_fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return got == 0 || (got < 0 && errno == ECONNRESET);
}

bool TcpClient::isSilentFor(int ms) const {
    pollfd ready{m_fd, POLLIN, 0};
    return poll(&ready, 1, ms) == 0;
}

bool TcpClient::echoes(const std::string& bytes) {
    return send(bytes) && receive(bytes.size()) == bytes;
}

void TcpClient::finish() {
    shutdown(m_fd, SHUT_WR);
}

void TcpClient::reset() {
    const linger now{1, 0};
    setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    close(m_fd);
    m_fd = -1;
}

}  // namespace Orvex::Testing
