// CReceiverThread: one of the threads that call stream receivers at a steady pace.
#pragma once

#include <cstdint>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Infra/ThreadLite.h>

namespace Orvex::Reticor {

class CPacedReceiver_IF;

/// Scheduling values of a thread that is started.
struct ReceiverScheduling {
    int priority = 64;
    int policy = 0;
    int stack = 0;
};

/// The thread exists only while it has receivers. Its ticks lie on a grid that is shifted against those of
/// the other threads of its group, so that they do not all wake at once.
///
/// Thread safety: Add and Number can be called from any thread; the caller of Add holds the mutex of the
/// group. All else belongs to the thread itself, or to the test that stands in for it.
class CReceiverThread {
public:
    static constexpr int FIRST_GROUP = 0;
    static constexpr int WRITE_GROUP = 2;
    static constexpr int64_t WRITE_PERIOD_US = 40000;

    CReceiverThread(unsigned int index, int group, unsigned int count, int64_t period_us);

    /// Ends the thread and then every receiver that it still has.
    ~CReceiverThread();
    CReceiverThread(const CReceiverThread&) = delete;
    CReceiverThread& operator=(const CReceiverThread&) = delete;

    /// Takes a receiver, and starts the thread if it is the only one. -1, without the receiver, if that
    /// fails. Blocks while an earlier run of the thread ends.
    int Add(CPacedReceiver_IF* receiver, const ReceiverScheduling& scheduling);

    /// Receivers that it has.
    int Number() const;

private:
    friend struct ReceiverThreadProbe;

    int start(const ReceiverScheduling& scheduling) INFRA_REQUIRES(m_mutex);
    void align(uint64_t now_us);
    void thread_proc(Infra::CThreadLite& thread);
    bool pass();
    CPacedReceiver_IF* first_receiver();
    void drop_closed_after(CPacedReceiver_IF* receiver);
    CPacedReceiver_IF* after(CPacedReceiver_IF* receiver);
    int64_t next_due(uint64_t now_us);

    /// Microsecond time from which ticks are counted.
    uint64_t m_base_time = 0;
    const unsigned int m_index;
    const int m_group;
    const unsigned int m_count;
    /// Ticks since m_base_time.
    uint64_t m_tick = 0;
    const int64_t m_period_us;
    CPacedReceiver_IF* m_head INFRA_GUARDED_BY(m_mutex) = nullptr;
    CPacedReceiver_IF* m_tail INFRA_GUARDED_BY(m_mutex) = nullptr;
    mutable Infra::CMutex m_mutex{Infra::LockClass::RECEIVER_THREAD};
    int32_t m_number INFRA_GUARDED_BY(m_mutex) = 0;
    /// Owned. Made at the first start.
    Infra::CThreadLite* m_thread INFRA_GUARDED_BY(m_mutex) = nullptr;
};

}  // namespace Orvex::Reticor
