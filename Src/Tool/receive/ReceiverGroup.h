// ReceiverGroup: the threads of all stream receivers, and the period of their ticks.
#pragma once

#include <atomic>
#include <cstdint>

#include <Infra/Mutex.h>
#include <Infra/ThreadAnnotations.h>

#include "Tool/receive/ReceiverThread.h"

namespace Orvex::Reticor {

/// Two groups of one thread per processor: one for receivers that read, one for those that write. The objects
/// are made when the library starts; a thread runs only while it has receivers.
///
/// Thread safety: any thread. The group's mutex comes before that of a thread, and after a receiver's own.
class ReceiverGroup {
public:
    ReceiverGroup() = delete;

    /// At the library's start, and at its end. -1, with nothing made, if there is no memory. Teardown waits
    /// for the threads, and then ends every receiver that was not closed.
    static int Setup(unsigned int count, int priority, int policy, int stack);
    static void Teardown();

    /// Gives a receiver to the thread that has the fewest. -1 if the thread cannot be started, or there are
    /// none.
    static int Add(CPacedReceiver_IF* receiver, bool writes);

    /// The receive period. What is not above 0, or too long to be counted in 32 bits, is logged at level 2
    /// and refused. Threads of the first group take it over at Setup.
    static void SetPeriod(int ms);
    static int32_t PeriodUs();

private:
    /// Guards the choice of a thread, and is held until that one runs.
    static Infra::CMutex sm_mutex;
    /// Arrays of sm_count threads each; null while the library is down.
    static CReceiverThread** sm_readers INFRA_GUARDED_BY(sm_mutex);
    static CReceiverThread** sm_writers INFRA_GUARDED_BY(sm_mutex);
    static unsigned int sm_count INFRA_GUARDED_BY(sm_mutex);
    static ReceiverScheduling sm_scheduling INFRA_GUARDED_BY(sm_mutex);
    static std::atomic<int32_t> sm_period_us;
};

}  // namespace Orvex::Reticor
