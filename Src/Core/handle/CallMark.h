// CallMark: counts a call of a handler, and shows while it runs that it does.
#pragma once

#include <Reticor/NetHandler.h>

#include "Core/count/Points.h"
#include "Core/count/ThreadCounts.h"
#include "Core/count/Timing.h"
#include "Core/count/WatchDoor.h"
#include "Core/handle/HandlerInternal.h"

namespace Orvex::Reticor {

/// Around a call from a loop of the library, on a thread that is in no other one.
class CallMark {
public:
    CallMark(CNetHandler& handler, CallKind kind) : m_counts(ThreadCounts::Mine()) {
        HandlerInternal& internal = HandlerInternal::Of(handler);
        const uint32_t row_offset = internal.RowOffset(handler);
        const uint64_t call = ThreadCounts::call_word(internal.GetID(), kind);
        m_counts.at_offset(row_offset).calls.Increment();
        m_counts.m_begun.Increment();
        m_counts.m_call.store(call, std::memory_order_relaxed);
        Points::Entered(call, row_offset);
    }
    ~CallMark() {
        Points::Left(m_counts.m_call);
        m_counts.m_call.store(0, std::memory_order_relaxed);
    }
    CallMark(const CallMark&) = delete;
    CallMark& operator=(const CallMark&) = delete;

private:
    ThreadCounts& m_counts;
};

/// The same on a thread of the library that is no worker, as those of files and receivers: it has counters of
/// its own from then on. The watch looks at the queues of workers before it sleeps, so such a thread shows
/// its call first, and knocks then.
class LoneCallMark {
public:
    LoneCallMark(CNetHandler& handler, CallKind kind) : m_mark((ThreadCounts::Attach(-1), handler), kind) {
        WatchDoor::KnockAfter(ThreadCounts::Mine().m_call);
    }

private:
    const CallMark m_mark;
};

/// Around a call that is timed, beside the other one.
class CallTime {
public:
    /// `begin_ns`: from Timing; 0 for a call that is not timed after all.
    CallTime(CNetHandler& handler, uint64_t begin_ns)
        : m_row_offset(HandlerInternal::Of(handler).RowOffset(handler)), m_begin_ns(begin_ns) {}
    ~CallTime() {
        if (m_begin_ns != 0) {
            Timing::Ran(m_begin_ns, ThreadCounts::Mine().at_offset(m_row_offset));
        }
    }
    CallTime(const CallTime&) = delete;
    CallTime& operator=(const CallTime&) = delete;

private:
    const uint32_t m_row_offset;
    const uint64_t m_begin_ns;
};

}  // namespace Orvex::Reticor
