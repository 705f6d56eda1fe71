// StuckNotes: what is said of calls that do not come back, while it lives.
#pragma once

#include <gtest/gtest.h>

#include <mutex>
#include <vector>

#include <Reticor/NetThread.h>
#include <Reticor/Stats.h>

namespace Orvex::Testing {

class StuckNotes {
public:
    explicit StuckNotes(int limit_ms) {
        Reticor::CNetThread::SetStuckHook(&StuckNotes::take, this);
        EXPECT_EQ(0, Reticor::CNetThread::SetStuckLimit(limit_ms));
    }
    ~StuckNotes() {
        EXPECT_EQ(0, Reticor::CNetThread::SetStuckLimit(0));
        Reticor::CNetThread::SetStuckHook(nullptr, nullptr);
    }
    StuckNotes(const StuckNotes&) = delete;
    StuckNotes& operator=(const StuckNotes&) = delete;

    std::vector<Reticor::StuckCall> calls() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }

private:
    static void take(void* self, const Reticor::StuckCall& call) {
        auto* const notes = static_cast<StuckNotes*>(self);
        const std::lock_guard<std::mutex> lock(notes->m_mutex);
        notes->m_calls.push_back(call);
    }

    std::mutex m_mutex;
    std::vector<Reticor::StuckCall> m_calls;
};

}  // namespace Orvex::Testing
