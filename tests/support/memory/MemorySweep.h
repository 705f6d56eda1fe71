// MemorySweep: an operation with its first allocation failing, its second, and so on until none fails; each
// once with that one alone and once with all that follow.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "Core/record/EventFreeList.h"
#include "support/KernelThread.h"
#include "support/memory/MemoryFault.h"

namespace Orvex::Testing {

// A bound that only stops a sweep without an end.
constexpr size_t SWEEP_LIMIT = 2000;

// While it lives no record of the library rests on this thread or in the process: the next one has to be
// allocated.
class NoRecords {
public:
    NoRecords() {
        size_t before = 0;
        do {
            // With room for it first, or the vector's own allocation would be taken for that of a record.
            m_taken.reserve(m_taken.size() + 1);
            before = MemoryFault::own();
            m_taken.push_back(Reticor::get_event());
        } while (MemoryFault::own() == before);
    }
    ~NoRecords() {
        for (Reticor::CEvent* ev : m_taken) {
            Reticor::put_event(ev);
        }
    }
    NoRecords(const NoRecords&) = delete;
    NoRecords& operator=(const NoRecords&) = delete;

private:
    std::vector<Reticor::CEvent*> m_taken;
};

// Threads of this process before any of the library's: a sanitizer starts one of its own with the first.
inline int threadsAtRest() {
    std::thread([] {}).join();
    return kernelThreadCount();
}

// What came of the call of an operation.
struct Swept {
    bool hit = false;  // an allocation has failed
    size_t lines = 0;  // of level 1 and 2 meanwhile
    std::string text;  // of these
};

// Calls `operation` with the allocation after `successes` failing on this thread. An operation must not use
// gtest.
template <typename Operation>
Swept withFault(size_t successes, Extent extent, Operation operation) {
    const QuietLog log;
    MemoryFault fault(Whose::OWN, extent, successes);
    operation();
    fault.end();
    return {MemoryFault::hit(), QuietLog::count(), QuietLog::all()};
}

// Calls `step(successes, extent)`, which gives whether an allocation failed, until one does not.
template <typename Step>
void sweep(Step step) {
    for (const Extent extent : {Extent::ONE, Extent::ALL}) {
        for (size_t successes = 0;; ++successes) {
            SCOPED_TRACE((extent == Extent::ONE ? "one allocation fails after " : "all fail after ") +
                         std::to_string(successes));
            ASSERT_LT(successes, SWEEP_LIMIT);
            const bool hit = step(successes, extent);
            if (::testing::Test::HasFailure()) {
                return;
            }
            if (!hit) {
                break;
            }
        }
    }
}

}  // namespace Orvex::Testing
