// ShapedStream, and the definitions of send and sendmsg that come before the C library's.
#include "support/media/ShapedStream.h"

#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <map>
#include <mutex>

namespace Orvex::Testing {

namespace {

std::mutex shapes_mutex;
std::map<int, ShapedStream*> shapes;
std::atomic<int> shape_count{0};

}  // namespace

ShapedStream::ShapedStream() : m_error(EAGAIN) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends));
    Attach(ends[0]);
    m_far.Attach(ends[1]);
    const std::lock_guard<std::mutex> guard(shapes_mutex);
    shapes[ends[0]] = this;
    ++shape_count;
}

ShapedStream::~ShapedStream() {
    const std::lock_guard<std::mutex> guard(shapes_mutex);
    for (auto it = shapes.begin(); it != shapes.end(); ++it) {
        if (it->second == this) {
            shapes.erase(it);
            break;
        }
    }
    --shape_count;
}

void ShapedStream::recover() {
    m_error = EAGAIN;
}

long ShapedStream::take(const struct iovec* pieces, std::size_t count) {
    m_calls.push_back(count);
    if (m_has_answer) {
        m_has_answer = false;
        return m_answer;
    }
    std::size_t wanted = 0;
    std::size_t taken = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t part = std::min(pieces[i].iov_len, m_room);
        m_wire.append(static_cast<const char*>(pieces[i].iov_base), part);
        m_room -= m_room == UNLIMITED ? 0 : part;
        wanted += pieces[i].iov_len;
        taken += part;
    }
    if (taken == 0 && (wanted != 0 || m_error != EAGAIN)) {
        errno = m_error;
        return -1;
    }
    return static_cast<long>(taken);
}

ShapedStream* ShapedStream::of(int fd) {
    if (shape_count.load(std::memory_order_relaxed) == 0) {
        return nullptr;
    }
    const std::lock_guard<std::mutex> guard(shapes_mutex);
    const auto found = shapes.find(fd);
    return found == shapes.end() ? nullptr : found->second;
}

}  // namespace Orvex::Testing

extern "C" {

ssize_t send(int fd, const void* data, size_t length, int flags) {
    if (auto* const shape = Orvex::Testing::ShapedStream::of(fd)) {
        const iovec piece = {const_cast<void*>(data), length};
        return shape->take(&piece, 1);
    }
    static auto* const real = reinterpret_cast<decltype(::send)*>(::dlsym(RTLD_NEXT, "send"));
    return real(fd, data, length, flags);
}

ssize_t sendmsg(int fd, const msghdr* message, int flags) {
    if (auto* const shape = Orvex::Testing::ShapedStream::of(fd)) {
        return shape->take(message->msg_iov, message->msg_iovlen);
    }
    static auto* const real = reinterpret_cast<decltype(::sendmsg)*>(::dlsym(RTLD_NEXT, "sendmsg"));
    return real(fd, message, flags);
}

}  // extern "C"
