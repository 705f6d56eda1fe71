// ConnectionOutput: what becomes of bytes that are written to a connection: sent, kept or refused.
#include "Kit/ConnectionOutput.h"

#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>

#include <Infra/Time.h>

namespace Orvex::Reticor::Kit {
inline namespace v1 {

namespace {

constexpr size_t MOST_PIECES = 64;    ///< Of one gathering call; the rest is kept.
constexpr size_t MOST_SPARE = 65536;  ///< Room that is kept when nothing waits.

}  // namespace

void ConnectionOutput::open(int descriptor) {
    m_descriptor = descriptor;
    look_direct();
}

// Nothing waits. Where nothing but the system is to be asked, it is told by this number.
void ConnectionOutput::look_direct() {
    const bool direct = m_writable && m_options.idle_timeout.count() <= 0;
    m_direct = direct ? m_descriptor : -1;
}

ConnectionOutput::Written ConnectionOutput::write(const std::string_view* pieces, size_t count,
                                                  size_t total) {
    if (!m_writable) {
        return Written::REFUSED;
    }
    if (total > m_options.max_output - waiting()) {
        return refuse();
    }
    size_t sent = 0;
    if (waiting() == 0 && total != 0) {
        const int64_t taken = send(pieces, count);
        if (taken < 0) {
            return Written::LOST;
        }
        sent = static_cast<size_t>(taken);
        if (m_options.idle_timeout.count() > 0 && sent != 0) {
            m_moved_us = Infra::CTime::getCurrentMicroSecond();
        }
    }
    return sent == total ? Written::SENT : keep(pieces, count, sent);
}

ConnectionOutput::Written ConnectionOutput::keep_rest(std::string_view bytes, ssize_t taken) {
    if (taken < 0 && errno != EAGAIN && errno != EINTR) {
        return Written::LOST;
    }
    return keep(&bytes, 1, static_cast<size_t>(taken < 0 ? 0 : taken));
}

ConnectionOutput::Written ConnectionOutput::refuse() const {
    switch (m_options.policy) {
        case OutputPolicy::DROP:
            return Written::DROPPED;
        case OutputPolicy::CLOSE:
            return Written::OVERFLOWED;
        case OutputPolicy::PAUSE_READING:
            break;
    }
    return Written::REFUSED;
}

// Keeps what lies after the first `sent` bytes of the pieces.
ConnectionOutput::Written ConnectionOutput::keep(const std::string_view* pieces, size_t count, size_t sent) {
    const bool first = waiting() == 0;
    m_direct = -1;
    if (first) {
        m_progress_us = Infra::CTime::getCurrentMicroSecond();
    }
    try {
        for (size_t i = 0; i < count; ++i) {
            const size_t gone = std::min(sent, pieces[i].size());
            m_bytes.append(pieces[i].data() + gone, pieces[i].size() - gone);
            sent -= gone;
        }
    } catch (const std::bad_alloc&) {
        return Written::NO_MEMORY;
    }
    return first ? Written::BEGINS : Written::WAITS;
}

// Returns the bytes that the system has taken, with one call; -1 if the connection is lost.
int64_t ConnectionOutput::send(const std::string_view* pieces, size_t count) const {
    ssize_t sent = 0;
    if (count == 1) {
        sent = ::send(m_descriptor, pieces[0].data(), pieces[0].size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    } else {
        std::array<iovec, MOST_PIECES> parts;
        const size_t used = std::min(count, MOST_PIECES);
        for (size_t i = 0; i < used; ++i) {
            parts[i] = {const_cast<char*>(pieces[i].data()), pieces[i].size()};
        }
        msghdr message{};
        message.msg_iov = parts.data();
        message.msg_iovlen = used;
        sent = ::sendmsg(m_descriptor, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    if (sent < 0) {
        return errno == EAGAIN || errno == EINTR ? 0 : -1;
    }
    return sent;
}

ConnectionOutput::Flushed ConnectionOutput::flush() {
    if (waiting() == 0) {
        return Flushed::ALL;
    }
    const std::string_view rest(m_bytes.data() + m_sent, waiting());
    const int64_t sent = send(&rest, 1);
    if (sent < 0) {
        return Flushed::LOST;
    }
    if (sent > 0) {
        m_sent += static_cast<size_t>(sent);
        m_progress_us = Infra::CTime::getCurrentMicroSecond();
        m_moved_us = m_progress_us;
        if (waiting() == 0 || m_sent > m_bytes.size() / 2) {
            m_bytes.erase(0, m_sent);
            m_sent = 0;
        }
    }
    if (waiting() != 0) {
        return waiting() <= m_options.max_output / 8 ? Flushed::EASED : Flushed::WAITS;
    }
    if (m_bytes.capacity() > MOST_SPARE) {
        clear();
    }
    return Flushed::ALL;
}

void ConnectionOutput::go_on() {
    if (m_finish) {
        ::shutdown(m_descriptor, SHUT_WR);
    }
    look_direct();
}

bool ConnectionOutput::finish() {
    if (!m_writable) {
        return false;
    }
    m_finish = true;
    seal();
    if (waiting() == 0) {
        ::shutdown(m_descriptor, SHUT_WR);
    }
    return true;
}

void ConnectionOutput::seal() {
    m_writable = false;
    m_direct = -1;
}

void ConnectionOutput::clear() {
    std::string().swap(m_bytes);
    m_sent = 0;
}

int64_t ConnectionOutput::age_left(uint64_t now_us) const {
    if (waiting() == 0) {
        return -1;
    }
    const uint64_t due = m_progress_us + static_cast<uint64_t>(m_options.max_output_age.count());
    return now_us < due ? static_cast<int64_t>(due - now_us) : 0;
}

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
