// Feed: a socket that does not block, and answers that end with their connection.
#include "top/Feed.h"

#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

namespace top {

namespace {

constexpr char HEAD_END[] = "\r\n\r\n";
constexpr char NO_HTTP[] = "it does not speak HTTP";
constexpr size_t MOST_HEAD = 65536;  // bytes

/// The value of Content-Length in the head of an answer; false if there is none.
bool length_of(const std::string& head, size_t& length) {
    constexpr char NAME[] = "\r\ncontent-length:";
    for (size_t at = 0; (at = head.find("\r\n", at)) != std::string::npos; ++at) {
        if (::strncasecmp(head.c_str() + at, NAME, sizeof(NAME) - 1) == 0) {
            length = std::strtoull(head.c_str() + at + sizeof(NAME) - 1, nullptr, 10);
            return true;
        }
    }
    return false;
}

/// Where the head of a page ends; npos if it does not, or is longer than heads are.
size_t end_of_head(const std::string& answer) {
    return std::string_view(answer).substr(0, MOST_HEAD).find(HEAD_END);
}

bool would_block() {
    return errno == EAGAIN || errno == EINTR;
}

}  // namespace

Feed::~Feed() {
    close_fd();
}

void Feed::close_fd() {
    if (m_fd >= 0) {
        ::close(std::exchange(m_fd, -1));
    }
}

void Feed::fail(const std::string& why) {
    close_fd();
    m_error = why;
    m_failed = true;
}

short Feed::events() const {
    return m_step == Step::RECEIVING ? POLLIN : POLLOUT;
}

void Feed::ask(const std::string& request, uint64_t now_us) {
    close_fd();
    m_request = request;
    m_output = m_target.bytesOf(request);
    m_answer.clear();
    m_error = "no address";
    m_failed = false;
    m_peer = 0;
    m_next = 0;
    m_heard_us = now_us;
    connect_next();
}

/// The next address that does not refuse at once; fails after the last one.
void Feed::connect_next() {
    while (m_next < m_target.addresses().size()) {
        const Target::Address& address = m_target.addresses()[m_next++];
        close_fd();
        m_fd = ::socket(address.bytes.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        m_step = Step::CONNECTING;
        if (m_fd < 0 ||
            (::connect(m_fd, reinterpret_cast<const sockaddr*>(&address.bytes), address.length) != 0 &&
             errno != EINPROGRESS)) {
            // Of a path: more clients wait there than the process listens to.
            m_error = errno == EAGAIN ? "it accepts nobody" : std::strerror(errno);
            continue;
        }
        return;
    }
    fail(m_error);
}

void Feed::finish_connecting() {
    pollfd ready{m_fd, POLLOUT, 0};
    if (::poll(&ready, 1, 0) <= 0) {
        return;
    }
    int error = 0;
    socklen_t size = sizeof error;
    ::getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &error, &size);
    if (error != 0) {
        m_error = std::strerror(error);
        connect_next();
        return;
    }
    ucred who{};
    size = sizeof who;
    if (!m_target.isHttp() && ::getsockopt(m_fd, SOL_SOCKET, SO_PEERCRED, &who, &size) == 0) {
        m_peer = who.pid;
    }
    m_step = Step::SENDING;
}

void Feed::send_some() {
    const ssize_t sent = ::send(m_fd, m_output.data(), m_output.size(), MSG_NOSIGNAL);
    if (sent < 0) {
        if (!would_block()) {
            fail(std::strerror(errno));
        }
        return;
    }
    m_output.erase(0, static_cast<size_t>(sent));
    if (m_output.empty()) {
        m_step = Step::RECEIVING;
    }
}

/// Whether more may be there at once.
bool Feed::receive_some() {
    char room[65536];
    const ssize_t got = ::recv(m_fd, room, sizeof room, 0);
    if (got < 0) {
        if (!would_block()) {
            fail(std::strerror(errno));
        }
        return false;
    }
    if (got == 0) {
        close_fd();
        if (m_answer.empty()) {
            fail("it closed without an answer");
        }
        return false;
    }
    m_answer.append(room, static_cast<size_t>(got));
    if (m_answer.size() > MOST_BYTES) {
        fail("its answer is longer than 32 MB");
        return false;
    }
    if (m_target.isHttp() && m_answer.size() > MOST_HEAD && end_of_head(m_answer) == std::string::npos) {
        fail(NO_HTTP);
        return false;
    }
    return !is_whole();
}

/// Whether a page is there by the length that its head tells, the connection still open.
bool Feed::is_whole() const {
    const size_t end = m_target.isHttp() ? end_of_head(m_answer) : std::string::npos;
    size_t length = 0;
    return end != std::string::npos && length_of(m_answer.substr(0, end), length) &&
           m_answer.size() - end - 4 >= length;
}

/// Leaves the body of a page. False if it is not one.
bool Feed::take_http() {
    const size_t end = end_of_head(m_answer);
    if (end == std::string::npos || m_answer.compare(0, 7, "HTTP/1.") != 0) {
        fail(NO_HTTP);
        return false;
    }
    const std::string head = m_answer.substr(0, end);
    if (head.compare(8, 4, " 200") != 0) {
        fail("it answered: " + head.substr(0, head.find('\r')).substr(0, 80));
        return false;
    }
    size_t length = 0;
    const bool told = length_of(head, length);
    m_answer.erase(0, end + 4);
    if (told && m_answer.size() < length) {
        fail("its answer was cut off");
        return false;
    }
    return true;
}

Feed::State Feed::advance(uint64_t now_us) {
    if (m_fd >= 0 && m_step == Step::CONNECTING) {
        finish_connecting();
    }
    if (m_fd >= 0 && m_step == Step::SENDING) {
        send_some();
    }
    if (m_fd >= 0 && m_step == Step::RECEIVING) {
        const size_t before = m_answer.size();
        bool more = true;
        while (more) {
            more = receive_some();
        }
        if (!m_failed && (m_fd < 0 || is_whole())) {
            close_fd();
            if (!m_target.isHttp() || take_http()) {
                return State::ANSWERED;
            }
        }
        m_heard_us = m_answer.size() > before ? now_us : m_heard_us;
    }
    if (m_fd >= 0 && now_us >= deadline_us()) {
        fail("it says nothing");
    }
    if (std::exchange(m_failed, false)) {
        return State::FAILED;
    }
    return m_fd >= 0 ? State::ASKING : State::IDLE;
}

}  // namespace top
