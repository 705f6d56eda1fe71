// DrainedRecords: a thread and a process without a record at rest, so that the next one has to be allocated.
#pragma once

#include <cstddef>
#include <vector>

#include "Core/record/EventFreeList.h"
#include "support/socket/Allocations.h"

namespace Orvex::Testing {

// While it lives. Records that others put back meanwhile rest again.
class DrainedRecords {
public:
    DrainedRecords() {
        std::size_t before = 0;
        do {
            m_taken.reserve(m_taken.size() + 1);  // ahead of the count: the vector allocates too
            before = allocationCount();
            m_taken.push_back(Reticor::get_event());
        } while (allocationCount() == before);
    }
    ~DrainedRecords() {
        for (Reticor::CEvent* ev : m_taken) {
            Reticor::put_event(ev);
        }
    }
    DrainedRecords(const DrainedRecords&) = delete;
    DrainedRecords& operator=(const DrainedRecords&) = delete;

private:
    std::vector<Reticor::CEvent*> m_taken;
};

}  // namespace Orvex::Testing
