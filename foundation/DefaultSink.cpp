// DefaultSink: a ring of lines, and a limit for each place.
#include "DefaultSink.h"

#include <poll.h>
#include <pthread.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <Infra/Time.h>

#include "ThreadId.h"
#include "WallTime.h"

namespace Orvex::Infra::Detail {

namespace {

constexpr uint64_t US_PER_SECOND = 1000000;

using LineLength = uint16_t;

// True if standard error has no such way of writing: a terminal, a file, or a pipe of an older system.
bool cannot_refuse(int error) noexcept {
    return error == EOPNOTSUPP || error == ENOSYS || error == EINVAL || error == ESPIPE;
}

// As write(2) to standard error, but EAGAIN where that would wait. The flag O_NONBLOCK is not for us to set:
// it belongs to everybody who has the same file open, other processes among them.
ssize_t write_now(const char* text, size_t length) noexcept {
    ssize_t written = -1;
    do {
        const iovec part = {const_cast<char*>(text), length};
        written = ::pwritev2(STDERR_FILENO, &part, 1, -1, RWF_NOWAIT);
        if (written == -1 && cannot_refuse(errno)) {
            // Room for a line is asked for first; a pipe with room has room for a page, which is more than a
            // line.
            pollfd ready = {STDERR_FILENO, POLLOUT, 0};
            if (::poll(&ready, 1, 0) == 0) {
                errno = EAGAIN;
                return -1;
            }
            written = ::write(STDERR_FILENO, text, length);
        }
    } while (written == -1 && errno == EINTR);
    return written;
}

// The line as it is to be written, in `room`: the time, and as much of `text` as has room beside it. Its last
// byte is a newline as before.
size_t with_time(char (&room)[DefaultSink::LINE_LIMIT], const char* text, size_t length) noexcept {
    const size_t head = write_wall_time(room);
    const size_t left = sizeof(room) - head;
    const size_t rest = length < left ? length : left;
    std::memcpy(room + head, text, rest);
    room[head + rest - 1] = '\n';
    return head + rest;
}

// One line of our own.
class Notice {
public:
    explicit Notice(const char* format, ...) noexcept __attribute__((format(printf, 2, 3))) {
        std::va_list arguments;
        va_start(arguments, format);
        const int wanted = std::vsnprintf(m_text, sizeof(m_text), format, arguments);
        va_end(arguments);
        m_length = wanted < 0 ? 0 : static_cast<size_t>(wanted);
        if (m_length >= sizeof(m_text)) {
            m_length = sizeof(m_text) - 1;
            m_text[m_length - 1] = '\n';
        }
    }
    const char* text() const noexcept { return m_text; }
    size_t length() const noexcept { return m_length; }

private:
    char m_text[512];
    size_t m_length;
};

// A child of fork(2) has a copy of the lock, and none of the threads that may hold it.
void before_fork() noexcept INFRA_NO_THREAD_SAFETY_ANALYSIS {
    g_default_sink.hold();
}

void after_fork() noexcept INFRA_NO_THREAD_SAFETY_ANALYSIS {
    g_default_sink.release();
}

void watch_forks() noexcept {
    static std::atomic<bool> sm_watched{false};
    if (!sm_watched.load(std::memory_order_relaxed) &&
        !sm_watched.exchange(true, std::memory_order_relaxed)) {
        ::pthread_atfork(&before_fork, &after_fork, &after_fork);
    }
}

}  // namespace

INFRA_CONSTINIT DefaultSink g_default_sink;

void DefaultSink::write(const char* file, int line, const char* text, size_t length) noexcept {
    watch_forks();
    const CGuard guard(m_mutex);
    const uint64_t now_us = CTime::getCurrentMicroSecond();
    tell_left_out(now_us);
    if (admit(file, line, now_us)) {
        take(text, length);
    }
    note_owed();
}

void DefaultSink::flush_owed() noexcept {
    const int saved_errno = errno;
    {
        const CGuard guard(m_mutex);
        tell_left_out(CTime::getCurrentMicroSecond());
        drain();
        tell_dropped();
        note_owed();
    }
    errno = saved_errno;
}

void DefaultSink::note_owed() noexcept {
    m_owes.store(m_used > 0 || m_dropped > 0 || m_telling > 0, std::memory_order_relaxed);
}

DefaultSink::Place* DefaultSink::find(const char* file, int line, uint64_t now_us) noexcept {
    const size_t start = (reinterpret_cast<uintptr_t>(file) / 16 + static_cast<size_t>(line) * 31) % PLACES;
    Place* idle = nullptr;
    for (size_t i = 0; i < NEIGHBOURS; ++i) {
        Place& place = m_places[(start + i) % PLACES];
        if (place.file == file && place.line == line) {
            return &place;
        }
        const bool over = now_us - place.second_us >= US_PER_SECOND && place.left_out == 0;
        if (idle == nullptr && over) {
            idle = &place;
        }
    }
    if (idle != nullptr) {
        *idle = Place{};
        idle->file = file;
        idle->line = line;
    }
    return idle;
}

bool DefaultSink::set_time(bool on) noexcept {
    const CGuard guard(m_mutex);
    const bool before = m_time;
    m_time = on;
    return before;
}

uint32_t DefaultSink::set_limit(uint32_t lines) noexcept {
    const CGuard guard(m_mutex);
    const uint32_t before = m_limit;
    m_limit = lines;
    return before;
}

bool DefaultSink::admit(const char* file, int line, uint64_t now_us) noexcept {
    Place* const place = m_limit != 0 ? find(file, line, now_us) : nullptr;
    if (place == nullptr) {
        return true;
    }
    // A second that began without a limit has counted nothing.
    if (place->limit == 0 || now_us - place->second_us >= US_PER_SECOND) {
        begin_second(*place, now_us);
    }
    if (place->count < place->limit) {
        ++place->count;
        return true;
    }
    if (place->left_out++ == 0) {
        const uint64_t due_us = place->second_us + US_PER_SECOND;
        m_tell_us = m_telling == 0 || due_us < m_tell_us ? due_us : m_tell_us;
        ++m_telling;
    }
    return false;
}

void DefaultSink::begin_second(Place& place, uint64_t now_us) noexcept {
    if (place.left_out > 0) {
        const Notice notice(
            "[%s:%d] tid:%d, %u more lines of this place were left out : it may write %u in a second\n",
            place.file != nullptr ? place.file : "", place.line, thread_id(), place.left_out, place.limit);
        place.left_out = 0;
        --m_telling;
        take(notice.text(), notice.length());
    }
    place.limit = m_limit;
    place.count = 0;
    place.second_us = now_us;
}

void DefaultSink::tell_left_out(uint64_t now_us) noexcept {
    if (m_telling == 0 || now_us < m_tell_us) {
        return;
    }
    m_tell_us = now_us + US_PER_SECOND;
    for (Place& place : m_places) {
        if (place.left_out == 0) {
            continue;
        }
        const uint64_t due_us = place.second_us + US_PER_SECOND;
        if (now_us >= due_us) {
            begin_second(place, now_us);
        } else if (due_us < m_tell_us) {
            m_tell_us = due_us;
        }
    }
}

// In its place among the lines. Said only when there is room again, or it would be every second line.
void DefaultSink::tell_dropped() noexcept {
    if (m_dropped == 0 || m_used > RING_SIZE / 2) {
        return;
    }
    const Notice notice("[%s:%d] tid:%d, standard error was not read : %llu lines were dropped\n", __FILE__,
                        __LINE__, thread_id(), static_cast<unsigned long long>(m_dropped));
    if (put(notice.text(), notice.length())) {
        m_dropped = 0;
    }
}

void DefaultSink::take(const char* text, size_t length) noexcept {
    drain();
    tell_dropped();
    if (m_dropped > 0 || !put(text, length)) {
        ++m_dropped;
    }
}

// What standard error takes of the lines in the ring. A line that it refuses for another reason than want of
// room is gone: there is nobody to tell.
void DefaultSink::drain() noexcept {
    while (m_used > 0) {
        LineLength length = 0;
        copy_out(m_begin, &length, sizeof(length));
        char text[LINE_LIMIT];
        const size_t rest = length - m_sent;
        copy_out(m_begin + sizeof(length) + m_sent, text, rest);
        const ssize_t written = write_now(text, rest);
        if (written == -1 && errno == EAGAIN) {
            return;
        }
        if (written >= 0 && static_cast<size_t>(written) < rest) {
            m_sent += static_cast<size_t>(written);
            return;
        }
        m_begin = (m_begin + sizeof(length) + length) % RING_SIZE;
        m_used -= sizeof(length) + length;
        m_sent = 0;
    }
}

// False if there is no room.
bool DefaultSink::put(const char* text, size_t length) noexcept {
    size_t cut = length < LINE_LIMIT ? length : LINE_LIMIT;
    char room[LINE_LIMIT];
    if (m_time) {
        cut = with_time(room, text, cut);
        text = room;
    }
    if (m_used > 0) {
        return keep(text, cut, 0);
    }
    const ssize_t written = write_now(text, cut);
    if (written == -1) {
        return errno != EAGAIN || keep(text, cut, 0);
    }
    const auto sent = static_cast<size_t>(written);
    return sent == cut || keep(text, cut, sent);
}

bool DefaultSink::keep(const char* text, size_t length, size_t sent) noexcept {
    const auto stored = static_cast<LineLength>(length);
    if (RING_SIZE - m_used < sizeof(stored) + length) {
        return false;
    }
    if (m_used == 0) {
        m_sent = sent;
    }
    copy_in(m_begin + m_used, &stored, sizeof(stored));
    copy_in(m_begin + m_used + sizeof(stored), text, length);
    m_used += sizeof(stored) + length;
    return true;
}

void DefaultSink::copy_in(size_t at, const void* bytes, size_t length) noexcept {
    const size_t start = at % RING_SIZE;
    const size_t first = length < RING_SIZE - start ? length : RING_SIZE - start;
    std::memcpy(m_ring + start, bytes, first);
    std::memcpy(m_ring, static_cast<const char*>(bytes) + first, length - first);
}

void DefaultSink::copy_out(size_t at, void* bytes, size_t length) const noexcept {
    const size_t start = at % RING_SIZE;
    const size_t first = length < RING_SIZE - start ? length : RING_SIZE - start;
    std::memcpy(bytes, m_ring + start, first);
    std::memcpy(static_cast<char*>(bytes) + first, m_ring, length - first);
}

}  // namespace Orvex::Infra::Detail
