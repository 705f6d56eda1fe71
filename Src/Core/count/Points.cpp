// Points: what is told to those who look.
#include "Core/count/Points.h"

#include <algorithm>
#include <cstddef>

#include "Core/count/ClassRows.h"
#include "Core/count/EventRing.h"
#include "Core/count/ThreadCounts.h"
#include "Core/count/TraceClock.h"

// Probes for tracers from outside, where the header is there when the library is built. One stands in each
// function below, all of which run only while somebody looks.
#if defined(__has_include) && !defined(RETICOR_WITHOUT_PROBES)
#if __has_include(<sys/sdt.h>)
#define RETICOR_PROBES 1
#define _SDT_HAS_SEMAPHORES 1
#include <sys/sdt.h>
#if defined(__clang__)
#pragma clang diagnostic ignored "-Wgnu-zero-variadic-macro-arguments"  // of the header's macros
#if __clang_major__ >= 19
#pragma clang diagnostic ignored "-Wc++20-extensions"  // the same warning's newer name
#endif
#endif
#endif
#endif

#if defined(RETICOR_PROBES)
#define RETICOR_POINT_PLACE __attribute__((section(".probes")))
/// Arguments are made only for whoever looks from outside.
#define RETICOR_PROBE(name, count, ...)                                                           \
    do {                                                                                          \
        if ((reticor_##name##_semaphore.load(std::memory_order_relaxed) & (RECORDER - 1)) != 0) { \
            STAP_PROBE##count(reticor, name, __VA_ARGS__);                                        \
        }                                                                                         \
    } while (false)
#else
#define RETICOR_POINT_PLACE
/// What they would be told is named, and never made.
#define RETICOR_PROBE(name, count, ...) \
    do {                                \
        if (false) {                    \
            not_told(__VA_ARGS__);      \
        }                               \
    } while (false)
namespace {
template <class... Arguments>
void not_told(const Arguments&...) {}
}  // namespace
#endif

#define RETICOR_DEFINE_POINT(name) RETICOR_POINT_PLACE std::atomic<uint32_t> reticor_##name##_semaphore{0};
RETICOR_POINTS(RETICOR_DEFINE_POINT)
#undef RETICOR_DEFINE_POINT
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the semaphore is the lower half of a point's word");

namespace Orvex::Reticor {

namespace {

/// The number of the last frame that was put while somebody looked. 0 stands for none.
std::atomic<uint64_t> g_frames{0};

uint64_t address_of(const void* object) {
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(object)) & TRACE_ADDRESS_MASK;
}

/// A record, and the handle of its socket or the number of its message.
uint64_t record_object(const void* record, TraceRecord kind, int64_t key, uint32_t number) {
    const uint64_t about = kind == TraceRecord::SOCKET ? static_cast<uint64_t>(key) : uint64_t{number};
    return address_of(record) | about << TRACE_ADDRESS_SHIFT;
}

}  // namespace

/// COUNT for what pools queue for themselves.
TraceRecord Points::kind_of(int64_t key) {
    if (is_message(key)) {
        return key == KEY_SERIAL ? TraceRecord::SERIAL : TraceRecord::MESSAGE;
    }
    if (key >= 0) {
        return TraceRecord::SOCKET;
    }
    return key < KEY_TIMER_LIMIT ? TraceRecord::TIMER : TraceRecord::COUNT;
}

void Points::SwitchRecorder(bool on) {
#define RETICOR_SWITCH_POINT(name) \
    on ? reticor_##name##_semaphore.fetch_or(RECORDER) : reticor_##name##_semaphore.fetch_and(~RECORDER);
    RETICOR_POINTS(RETICOR_SWITCH_POINT)
#undef RETICOR_SWITCH_POINT
}

inline void Points::record(const std::atomic<uint32_t>& point, int what, uint64_t object) {
    if ((point.load(std::memory_order_relaxed) & RECORDER) == 0) {
        return;
    }
    if (EventRing* const ring = EventRing::Mine()) {
        ring->Put(TraceClock::Ticks(), static_cast<uint8_t>(what), object);
    }
}

__attribute__((noinline)) void Points::entered(uint64_t call, uint32_t row_offset) {
    const int kind = static_cast<int>(ThreadCounts::kind_in(call));
    const uint32_t row = ThreadCounts::row_at(row_offset);
    record(reticor_handler_enter_semaphore, TRACE_ENTER + kind,
           (call & TRACE_HANDLER_MASK) | uint64_t{row} << TRACE_ROW_SHIFT);
    RETICOR_PROBE(handler_enter, 3, ThreadCounts::id_in(call), call_name(ThreadCounts::kind_in(call)),
                  ClassRows::Name(row));
}

__attribute__((noinline)) void Points::left(uint64_t call) {
    const int kind = static_cast<int>(ThreadCounts::kind_in(call));
    record(reticor_handler_leave_semaphore, TRACE_LEAVE + kind, call & TRACE_HANDLER_MASK);
    RETICOR_PROBE(handler_leave, 2, ThreadCounts::id_in(call), call_name(ThreadCounts::kind_in(call)));
}

__attribute__((noinline)) void Points::pushed(const void* event, int64_t key, int64_t target,
                                              uint32_t number) {
    const TraceRecord kind = kind_of(key);
    if (kind == TraceRecord::COUNT) {
        return;
    }
    record(reticor_record_push_semaphore, TRACE_PUSH + static_cast<int>(kind),
           record_object(event, kind, key, number));
    RETICOR_PROBE(record_push, 4, event, key, target, number);
}

__attribute__((noinline)) void Points::popped(const void* event, int64_t key, int64_t target,
                                              uint32_t number) {
    const TraceRecord kind = kind_of(key);
    if (kind == TraceRecord::COUNT) {
        return;
    }
    record(reticor_record_pop_semaphore, TRACE_POP + static_cast<int>(kind),
           record_object(event, kind, key, number));
    RETICOR_PROBE(record_pop, 4, event, key, target, number);
}

__attribute__((noinline)) void Points::ready(int64_t fd, int revents, int64_t owner) {
    record(reticor_socket_ready_semaphore, TRACE_READY,
           static_cast<uint32_t>(fd) | static_cast<uint64_t>(static_cast<uint16_t>(revents)) << 32);
    RETICOR_PROBE(socket_ready, 3, fd, revents, owner);
}

__attribute__((noinline)) void Points::due(int64_t timer, int64_t handler, uint64_t late_us) {
    constexpr uint64_t MOST_LATE_US = (uint64_t{1} << 24) - 1;
    record(reticor_timer_due_semaphore, TRACE_DUE,
           (static_cast<uint64_t>(timer) & TRACE_SHORT_MASK) | std::min(late_us, MOST_LATE_US)
                                                                   << TRACE_SHORT_SHIFT);
    RETICOR_PROBE(timer_due, 3, timer, handler, late_us);
}

__attribute__((noinline)) uint64_t Points::frame_put(const void* buffer, int64_t length, int channel,
                                                     bool key) {
    const uint64_t number = g_frames.fetch_add(1, std::memory_order_relaxed) + 1;
    record(reticor_frame_put_semaphore, TRACE_FRAME_PUT,
           (number & TRACE_ADDRESS_MASK) | static_cast<uint64_t>((channel & 7) << 1 | (key ? 1 : 0))
                                               << TRACE_ADDRESS_SHIFT);
    RETICOR_PROBE(frame_put, 5, number, buffer, length, channel, static_cast<int>(key));
    return number;
}

void Points::FrameSent(uint64_t number, int64_t sender, int64_t length) {
    record(reticor_frame_sent_semaphore, TRACE_FRAME_SENT,
           (static_cast<uint64_t>(sender) & TRACE_SHORT_MASK) | number << TRACE_SHORT_SHIFT);
    RETICOR_PROBE(frame_sent, 3, number, sender, length);
}

__attribute__((noinline)) void Points::frame_dropped(int64_t sender, TraceDrop cause, int channel,
                                                     int64_t length) {
    record(reticor_frame_dropped_semaphore, TRACE_FRAME_DROPPED,
           (static_cast<uint64_t>(sender) & TRACE_SHORT_MASK) |
               static_cast<uint64_t>(cause) << TRACE_SHORT_SHIFT |
               static_cast<uint64_t>(channel & 7) << TRACE_ADDRESS_SHIFT);
    RETICOR_PROBE(frame_dropped, 4, sender, static_cast<int>(cause), channel, length);
}

__attribute__((noinline)) void Points::blocked(int64_t sender) {
    record(reticor_sender_blocked_semaphore, TRACE_BLOCKED,
           static_cast<uint64_t>(sender) & TRACE_HANDLER_MASK);
    RETICOR_PROBE(sender_blocked, 1, sender);
}

__attribute__((noinline)) void Points::free(int64_t sender, uint64_t blocked_us) {
    record(reticor_sender_free_semaphore, TRACE_FREE, static_cast<uint64_t>(sender) & TRACE_HANDLER_MASK);
    RETICOR_PROBE(sender_free, 2, sender, blocked_us);
}

__attribute__((noinline)) void Points::task_begins(const void* file, int type) {
    record(reticor_file_task_begin_semaphore, TRACE_TASK_BEGIN,
           address_of(file) | static_cast<uint64_t>(type) << TRACE_ADDRESS_SHIFT);
    RETICOR_PROBE(file_task_begin, 2, file, type);
}

__attribute__((noinline)) void Points::task_ends(const void* file, int type) {
    record(reticor_file_task_end_semaphore, TRACE_TASK_END,
           address_of(file) | static_cast<uint64_t>(type) << TRACE_ADDRESS_SHIFT);
    RETICOR_PROBE(file_task_end, 2, file, type);
}

}  // namespace Orvex::Reticor
