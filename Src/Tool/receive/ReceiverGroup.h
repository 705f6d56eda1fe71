// ReceiverGroup: the threads of all stream receivers, and the period of their ticks.
#pragma once

#include <cstdint>

namespace Orvex::Reticor {

class CMediaStreamReceiver;

/// Two groups of one thread per processor: one for receivers that read, one for those that write. The objects
/// are made when the library starts; a thread runs only while it has receivers.
///
/// Thread safety: any thread. The group's mutex comes before that of a thread, and behind a receiver's own.
class ReceiverGroup {
public:
    ReceiverGroup() = delete;

    /// At the library's start, and at its end. Teardown waits for the threads, and then ends every receiver
    /// that was not closed.
    static void Setup(unsigned int count, int priority, int policy, int stack);
    static void Teardown();

    /// Gives a receiver to the thread that has the fewest. -1 if the thread cannot be started, or there are
    /// none.
    static int Add(CMediaStreamReceiver* receiver, bool writes);

    /// The receive period. What is not above 0, or too long to be counted in 32 bits, is logged at level 2
    /// and refused. Threads of the first group take it over at Setup.
    static void SetPeriod(int ms);
    static int32_t PeriodUs();
};

}  // namespace Orvex::Reticor
