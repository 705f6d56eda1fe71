// DefaultSink: log lines on their way to standard error, which may have no reader.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include <Infra/CMutex.h>
#include <Infra/LockClasses.h>

namespace Orvex::Infra::Detail {

/// Writes whole lines and never waits for whoever reads them. What standard error does not take is kept in a
/// ring, and written by the next line or by flush(); what the ring does not take is dropped, and counted. Of
/// one place so many are taken in a second, LINES_PER_SECOND unless that was changed. What was left out is
/// said in a line of its own, once it can be.
///
/// Thread safety: any thread. It allocates nothing, and is constant-initialised and never destroyed.
class DefaultSink {
public:
    static constexpr size_t RING_SIZE = 64 * 1024;
    static constexpr uint32_t LINES_PER_SECOND = 100;
    /// Longer ones are cut.
    static constexpr size_t LINE_LIMIT = 2048;

    constexpr DefaultSink() noexcept = default;
    DefaultSink(const DefaultSink&) = delete;
    DefaultSink& operator=(const DefaultSink&) = delete;

    /// Writes `text` of `length` bytes, the last of which is a newline. `file`, a literal, and `line` are the
    /// place.
    void write(const char* file, int line, const char* text, size_t length) noexcept;

    /// Writes what is owed, as far as it can be without waiting. One load if nothing is.
    void flush() noexcept {
        if (m_owes.load(std::memory_order_relaxed)) {
            flush_owed();
        }
    }

    /// Whether the time stands before each line from now on. What was before.
    bool set_time(bool on) noexcept;

    /// Lines of one place in a second, from now on; 0 is all. What was before.
    uint32_t set_limit(uint32_t lines) noexcept;

    /// Around fork(2): until the release no other thread writes.
    void hold() noexcept INFRA_ACQUIRE(m_mutex) { m_mutex.enter(); }
    void release() noexcept INFRA_RELEASE(m_mutex) { m_mutex.leave(); }

private:
    struct Place {
        const char* file = nullptr;
        int line = 0;
        uint32_t limit = 0;     // Of this second.
        uint32_t count = 0;     // Taken in this second.
        uint32_t left_out = 0;  // In this second, not yet said.
        uint64_t second_us = 0;
    };
    /// A place is looked for in a few neighbours; with all of them busy its lines are not limited.
    static constexpr size_t PLACES = 128;
    static constexpr size_t NEIGHBOURS = 8;

    void flush_owed() noexcept;
    bool admit(const char* file, int line, uint64_t now_us) noexcept INFRA_REQUIRES(m_mutex);
    Place* find(const char* file, int line, uint64_t now_us) noexcept INFRA_REQUIRES(m_mutex);
    void begin_second(Place& place, uint64_t now_us) noexcept INFRA_REQUIRES(m_mutex);
    void tell_left_out(uint64_t now_us) noexcept INFRA_REQUIRES(m_mutex);
    void tell_dropped() noexcept INFRA_REQUIRES(m_mutex);
    void take(const char* text, size_t length) noexcept INFRA_REQUIRES(m_mutex);
    void drain() noexcept INFRA_REQUIRES(m_mutex);
    bool put(const char* text, size_t length) noexcept INFRA_REQUIRES(m_mutex);
    bool keep(const char* text, size_t length, size_t sent) noexcept INFRA_REQUIRES(m_mutex);
    void copy_in(size_t at, const void* bytes, size_t length) noexcept INFRA_REQUIRES(m_mutex);
    void copy_out(size_t at, void* bytes, size_t length) const noexcept INFRA_REQUIRES(m_mutex);
    void note_owed() noexcept INFRA_REQUIRES(m_mutex);

    CMutex m_mutex{LockClass::LOG};
    // Lines, each after its length.
    char m_ring[RING_SIZE] INFRA_GUARDED_BY(m_mutex) = {};
    size_t m_begin INFRA_GUARDED_BY(m_mutex) = 0;
    size_t m_used INFRA_GUARDED_BY(m_mutex) = 0;
    size_t m_sent INFRA_GUARDED_BY(m_mutex) = 0;       // Of the first line: the part that has gone.
    uint64_t m_dropped INFRA_GUARDED_BY(m_mutex) = 0;  // Lines, not yet said.
    Place m_places[PLACES] INFRA_GUARDED_BY(m_mutex) = {};
    uint32_t m_telling INFRA_GUARDED_BY(m_mutex) = 0;  // Places with something left out.
    uint64_t m_tell_us INFRA_GUARDED_BY(m_mutex) = 0;  // Not before this time is it worth looking for them.
    bool m_time INFRA_GUARDED_BY(m_mutex) = false;
    uint32_t m_limit INFRA_GUARDED_BY(m_mutex) = LINES_PER_SECOND;
    std::atomic<bool> m_owes{false};
};

/// The process's own.
extern DefaultSink g_default_sink;

}  // namespace Orvex::Infra::Detail
