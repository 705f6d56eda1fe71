// Points: the places at which somebody may look: tracers from outside, and the flight recorder.
#pragma once

#include <atomic>
#include <cstdint>

#include "Core/count/DumpFormat.h"
#include "Core/count/Tally.h"

/// Every point by its name, which is that of its probe.
#define RETICOR_POINTS(point)                                                                          \
    point(handler_enter) point(handler_leave) point(record_push) point(record_pop) point(socket_ready) \
        point(timer_due) point(frame_put) point(frame_sent) point(frame_dropped) point(sender_blocked) \
            point(sender_free) point(file_task_begin) point(file_task_end)

/// One word for each point, 0 while nobody looks. The lower half is the semaphore of the probe: tracers from
/// outside count themselves in there, by the name of the symbol. The upper half is the recorder's.
#define RETICOR_DECLARE_POINT(name) \
    extern "C" __attribute__((visibility("hidden"))) std::atomic<uint32_t> reticor_##name##_semaphore;
RETICOR_POINTS(RETICOR_DECLARE_POINT)
#undef RETICOR_DECLARE_POINT
static_assert(sizeof(std::atomic<uint32_t>) == 4, "a semaphore of 16 bits, and as many of ours");

namespace Orvex::Reticor {

/// A point costs a load and a branch while nobody looks: what it tells is made only after that.
///
/// Thread safety: any thread. Nothing here takes a lock.
class Points {
public:
    /// Around a call of a handler. `call`: as ThreadCounts has it.
    static void Entered(uint64_t call, uint32_t row_offset) {
        if (looks(reticor_handler_enter_semaphore)) {
            entered(call, row_offset);
        }
    }
    static void Left(const std::atomic<uint64_t>& call) {
        if (looks(reticor_handler_leave_semaphore)) {
            left(call.load(std::memory_order_relaxed));
        }
    }
    static void Left(uint64_t call) {
        if (looks(reticor_handler_leave_semaphore)) {
            left(call);
        }
    }

    /// Ahead of the push of a chain of records. What pools queue for themselves is passed over.
    template <class Record>
    static void Pushed(const Record* first) {
        if (looks(reticor_record_push_semaphore)) {
            for (const Record* record = first; record != nullptr; record = record->m_next) {
                pushed(record, record->m_key, target_of(*record), number_of(*record));
            }
        }
    }
    /// The same for one record, whatever its link says.
    template <class Record>
    static void PushedOne(const Record* record) {
        if (looks(reticor_record_push_semaphore)) {
            pushed(record, record->m_key, target_of(*record), number_of(*record));
        }
    }
    template <class Record>
    static void Popped(const Record* record) {
        if (looks(reticor_record_pop_semaphore)) {
            popped(record, record->m_key, target_of(*record), number_of(*record));
        }
    }

    static void Ready(int64_t fd, int revents, const int64_t& owner) {
        if (looks(reticor_socket_ready_semaphore)) {
            ready(fd, revents, __atomic_load_n(&owner, __ATOMIC_RELAXED));
        }
    }
    static void Due(int64_t timer, int64_t handler, uint64_t now_us, uint64_t expire_us) {
        if (looks(reticor_timer_due_semaphore)) {
            due(timer, handler, now_us > expire_us ? now_us - expire_us : 0);
        }
    }

    /// Gives the frame a number of the process, if somebody looks.
    template <class Frame>
    static void FramePut(Frame& frame, const void* buffer) {
        if (looks(reticor_frame_put_semaphore)) {
            frame.number(frame_put(buffer, frame.m_frame_len, frame.channel(), frame.is_key()));
        }
    }
    /// On the path of each frame, where even what is in the way of a call costs: ask first.
    static bool LooksAtSent() { return looks(reticor_frame_sent_semaphore); }
    static void FrameSent(uint64_t number, int64_t sender, int64_t length);
    /// `sender`: null if none of a buffer's had it.
    template <class Frame, class Sender>
    static void FrameDropped(const Frame& frame, Sender* sender, TraceDrop cause) {
        if (looks(reticor_frame_dropped_semaphore)) {
            frame_dropped(sender != nullptr ? sender->GetID() : 0, cause, frame.channel(), frame.m_frame_len);
        }
    }
    template <class Sender>
    static void Blocked(Sender* sender) {
        if (looks(reticor_sender_blocked_semaphore)) {
            blocked(sender->GetID());
        }
    }
    template <class Sender>
    static void Free(Sender* sender, uint64_t blocked_us) {
        if (looks(reticor_sender_free_semaphore)) {
            free(sender->GetID(), blocked_us);
        }
    }

    static void TaskBegins(const void* file, int type) {
        if (looks(reticor_file_task_begin_semaphore)) {
            task_begins(file, type);
        }
    }
    static void TaskEnds(const void* file, int type) {
        if (looks(reticor_file_task_end_semaphore)) {
            task_ends(file, type);
        }
    }

    /// The recorder's half of all points. A thread may meet one of them a moment later than another.
    static void SwitchRecorder(bool on);
    static bool IsRecording() {
        return (reticor_handler_enter_semaphore.load(std::memory_order_relaxed) & RECORDER) != 0;
    }

private:
    static constexpr uint32_t RECORDER = 1U << 16;

    static bool looks(const std::atomic<uint32_t>& point) {
#if defined(RETICOR_TALLY_IN_PLACE)
        // The compiler would load it first, which is one instruction more.
        bool some;
        asm("cmpl $0, %1" : "=@ccne"(some) : "m"(point));
        return __builtin_expect(some, 0) != 0;
#else
        return __builtin_expect(point.load(std::memory_order_relaxed) != 0, 0) != 0;
#endif
    }

    // As the records of queues have them.
    static constexpr int64_t KEY_MESSAGE = -50;
    static constexpr int64_t KEY_SERIAL = -51;
    static constexpr int64_t KEY_TIMER_LIMIT = -101;

    static bool is_message(int64_t key) {
        return key == KEY_MESSAGE || key == KEY_SERIAL;
    }
    static TraceRecord kind_of(int64_t key);
    /// Messages have a receiver, sockets and timers an owner.
    template <class Record>
    static int64_t target_of(const Record& record) {
        return is_message(record.m_key) ? record.m_receiver
                                        : __atomic_load_n(&record.m_obj_id, __ATOMIC_RELAXED);
    }
    template <class Record>
    static uint32_t number_of(const Record& record) {
        return is_message(record.m_key) ? record.m_msg : 0;
    }

    static void record(const std::atomic<uint32_t>& point, int what, uint64_t object);

    static void entered(uint64_t call, uint32_t row_offset);
    static void left(uint64_t call);
    static void pushed(const void* record, int64_t key, int64_t target, uint32_t number);
    static void popped(const void* record, int64_t key, int64_t target, uint32_t number);
    static void ready(int64_t fd, int revents, int64_t owner);
    static void due(int64_t timer, int64_t handler, uint64_t late_us);
    static uint64_t frame_put(const void* buffer, int64_t length, int channel, bool key);
    static void frame_dropped(int64_t sender, TraceDrop cause, int channel, int64_t length);
    static void blocked(int64_t sender);
    static void free(int64_t sender, uint64_t blocked_us);
    static void task_begins(const void* file, int type);
    static void task_ends(const void* file, int type);
};

}  // namespace Orvex::Reticor
