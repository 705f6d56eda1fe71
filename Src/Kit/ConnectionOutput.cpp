// ConnectionOutput: the bytes of a connection that wait to be sent.
#include "Kit/ConnectionOutput.h"

#include <sys/socket.h>
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

int64_t ConnectionOutput::send(int descriptor, const std::string_view* pieces, size_t count) {
    ssize_t sent = 0;
    if (count == 1) {
        sent = ::send(descriptor, pieces[0].data(), pieces[0].size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    } else {
        std::array<iovec, MOST_PIECES> parts;
        const size_t used = std::min(count, MOST_PIECES);
        for (size_t i = 0; i < used; ++i) {
            parts[i] = {const_cast<char*>(pieces[i].data()), pieces[i].size()};
        }
        msghdr message{};
        message.msg_iov = parts.data();
        message.msg_iovlen = used;
        sent = ::sendmsg(descriptor, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    if (sent < 0) {
        return errno == EAGAIN || errno == EINTR ? 0 : -1;
    }
    return sent;
}

bool ConnectionOutput::keep(const std::string_view* pieces, size_t count, size_t sent) {
    if (waiting() == 0) {
        m_progress_us = Infra::CTime::getCurrentMicroSecond();
    }
    try {
        for (size_t i = 0; i < count; ++i) {
            const size_t gone = std::min(sent, pieces[i].size());
            m_bytes.append(pieces[i].data() + gone, pieces[i].size() - gone);
            sent -= gone;
        }
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

int64_t ConnectionOutput::flush(int descriptor) {
    if (waiting() == 0) {
        return 0;
    }
    const std::string_view rest(m_bytes.data() + m_sent, waiting());
    const int64_t sent = send(descriptor, &rest, 1);
    if (sent > 0) {
        m_sent += static_cast<size_t>(sent);
        m_progress_us = Infra::CTime::getCurrentMicroSecond();
        if (waiting() == 0 || m_sent > m_bytes.size() / 2) {
            m_bytes.erase(0, m_sent);
            m_sent = 0;
        }
    }
    return sent;
}

void ConnectionOutput::trim(bool all) {
    if (all || (waiting() == 0 && m_bytes.capacity() > MOST_SPARE)) {
        std::string().swap(m_bytes);
        m_sent = 0;
    }
}

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
