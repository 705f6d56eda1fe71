// Points: which events the workings of pools leave in the recorder, and that each is there once.
#include "Core/count/Points.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <Reticor/Recorder.h>

#include "Core/count/ThreadCounts.h"
#include "support/DumpFile.h"
#include "support/PoolFixture.h"
#include "support/core/SocketPair.h"
#include "support/program/TempFolder.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

constexpr int enterOf(CallKind kind) {
    return TRACE_ENTER + static_cast<int>(kind);
}
constexpr int leaveOf(CallKind kind) {
    return TRACE_LEAVE + static_cast<int>(kind);
}
constexpr int pushOf(TraceRecord kind) {
    return TRACE_PUSH + static_cast<int>(kind);
}
constexpr int popOf(TraceRecord kind) {
    return TRACE_POP + static_cast<int>(kind);
}

class RecordedPool : public PoolFixture {
protected:
    void TearDown() override {
        CRecorder::Stop();
        PoolFixture::TearDown();
    }

    DumpFile dump() {
        const std::string path = folder.file("dump");
        EXPECT_EQ(0, CRecorder::Dump(path.c_str()));
        return DumpFile(path);
    }
    // Calls of a thread are one inside the other, and all of them end; the last close may still be about to.
    static void expectNested(const DumpedThread& thread) {
        std::vector<DumpedEvent> open;
        for (const DumpedEvent& event : thread.events) {
            if (event.what > TRACE_ENTER && event.what < TRACE_LEAVE) {
                open.push_back(event);
            } else if (event.what > TRACE_LEAVE && event.what < TRACE_PUSH) {
                ASSERT_FALSE(open.empty());
                EXPECT_EQ(open.back().what - TRACE_ENTER, event.what - TRACE_LEAVE);
                EXPECT_EQ(open.back().object & TRACE_HANDLER_MASK, event.object);
                open.pop_back();
            }
        }
        EXPECT_TRUE(open.empty() || (open.size() == 1 && open[0].what == enterOf(CallKind::CLOSE)));
    }

    TempFolder folder;
};

TEST_F(RecordedPool, AMessageIsPushedAndTakenAndCalledOnce) {
    auto* const handler = new TestHandler;
    CRecorder::Start();
    for (unsigned int i = 1; i <= 20; ++i) {
        handler->Notify(handler->GetID(), 100 + i, 0);
    }
    EXPECT_EVENTUALLY(handler->life->messages == 20);
    closeAndWait(handler);
    const DumpFile found = dump();
    EXPECT_EQ(20u, found.count(enterOf(CallKind::MESSAGE)));
    EXPECT_EQ(20u, found.count(leaveOf(CallKind::MESSAGE)));
    EXPECT_EQ(1u, found.count(enterOf(CallKind::CLOSE)));
    const std::vector<uint64_t> pushed = found.objects(pushOf(TraceRecord::MESSAGE));
    ASSERT_LE(20u, pushed.size());  // and the close message
    EXPECT_EQ(101u, pushed[0] >> TRACE_ADDRESS_SHIFT);
    EXPECT_EQ(pushed.size(), found.objects(popOf(TraceRecord::MESSAGE)).size());
    for (const DumpedThread& thread : found.threads) {
        expectNested(thread);
        EXPECT_TRUE(thread.count(enterOf(CallKind::MESSAGE)) == 0 || thread.head.pool == 0);
    }
}

TEST_F(RecordedPool, ASerialMessageIsTakenFromItsOwnLine) {
    auto* const handler = new TestHandler;
    CRecorder::Start();
    for (unsigned int i = 1; i <= 5; ++i) {
        handler->NotifySerial(handler->GetID(), i, 0, 0);
    }
    EXPECT_EVENTUALLY(handler->life->messages == 5);
    closeAndWait(handler);
    const DumpFile found = dump();
    std::vector<uint64_t> pushed = found.objects(pushOf(TraceRecord::SERIAL));
    EXPECT_EQ(5u, pushed.size());
    EXPECT_EQ(pushed, found.objects(popOf(TraceRecord::SERIAL)));
}

TEST_F(RecordedPool, ASocketIsReadyAndQueuedAndCalled) {
    SocketPair pair;
    auto* const handler = new TestHandler;
    handler->on_input = [](int fd) {
        SocketPair::drain(fd);
        return 0;
    };
    CRecorder::Start();
    handler->RegisterSock(pair.near, SOCK_READ, 0);
    pair.write();
    EXPECT_EVENTUALLY(handler->life->inputs == 1);
    handler->RemoveSock(pair.near);
    closeAndWait(handler);
    const DumpFile found = dump();
    const std::vector<uint64_t> ready = found.objects(TRACE_READY);
    ASSERT_LE(1u, ready.size());
    EXPECT_EQ(static_cast<uint32_t>(pair.fd()), static_cast<uint32_t>(ready[0]));
    EXPECT_NE(0u, ready[0] >> 32);
    const std::vector<uint64_t> pushed = found.objects(pushOf(TraceRecord::SOCKET));
    EXPECT_EQ(ready.size(), pushed.size());
    EXPECT_EQ(static_cast<uint64_t>(pair.fd()), pushed.at(0) >> TRACE_ADDRESS_SHIFT);
    EXPECT_EQ(pushed, found.objects(popOf(TraceRecord::SOCKET)));
    EXPECT_LE(1u, found.count(enterOf(CallKind::INPUT)));
}

TEST_F(RecordedPool, ATimerIsDueAndQueuedAndCalled) {
    auto* const handler = new TestHandler;
    handler->on_timeout = [](long) { return -1; };
    CRecorder::Start();
    const long timer = handler->SetTimer(10000);
    EXPECT_EVENTUALLY(handler->life->timeouts == 1);
    closeAndWait(handler);
    const DumpFile found = dump();
    const std::vector<uint64_t> due = found.objects(TRACE_DUE);
    ASSERT_EQ(1u, due.size());
    EXPECT_EQ(static_cast<uint64_t>(timer) & TRACE_SHORT_MASK, due[0] & TRACE_SHORT_MASK);
    EXPECT_EQ(1u, found.count(pushOf(TraceRecord::TIMER)));
    EXPECT_EQ(found.objects(pushOf(TraceRecord::TIMER)), found.objects(popOf(TraceRecord::TIMER)));
    EXPECT_EQ(1u, found.count(enterOf(CallKind::TIMEOUT)));
}

// handle_close comes inside the call that drops the last reference, and is told as a call of its own.
TEST_F(RecordedPool, ACloseInsideACallIsNested) {
    auto* const outer = new TestHandler;
    auto* const inner = new TestHandler;
    const std::shared_ptr<HandlerLife> inner_life = inner->life;
    inner->AddRef();
    outer->on_message = [inner](long, unsigned int, long) {
        inner->DecRef();
        return 0;
    };
    inner->Close();
    // The close message of the inner one is served first.
    auto* const before = new TestHandler;
    closeAndWait(before);
    CRecorder::Start();
    outer->Notify(outer->GetID(), 1, 0);
    EXPECT_EVENTUALLY(inner_life->closes == 1);
    EXPECT_EVENTUALLY(outer->life->messages == 1);
    closeAndWait(outer);
    const DumpFile found = dump();
    size_t nested = 0;
    for (const DumpedThread& thread : found.threads) {
        expectNested(thread);
        for (size_t i = 1; i < thread.events.size(); ++i) {
            nested += thread.events[i].what == enterOf(CallKind::CLOSE) &&
                              thread.events[i - 1].what == enterOf(CallKind::MESSAGE)
                          ? 1
                          : 0;
        }
    }
    EXPECT_EQ(1u, nested);
}

// What pools queue for themselves would fill the rings of those that do nothing.
TEST_F(RecordedPool, AnIdlePoolLeavesNothing) {
    CRecorder::Start();
    auto* const handler = new TestHandler;
    closeAndWait(handler);
    const size_t known = static_cast<size_t>(TraceRecord::COUNT);
    const DumpFile found = dump();
    for (const DumpedThread& thread : found.threads) {
        for (const DumpedEvent& event : thread.events) {
            const int kind = event.what & 7;
            EXPECT_TRUE(event.what < TRACE_PUSH || event.what >= TRACE_READY ||
                        static_cast<size_t>(kind) < known)
                << event.what;
        }
    }
}

TEST(PointWords, AreZeroWhileNobodyLooks) {
    const std::vector<const std::atomic<uint32_t>*> words = {
#define RETICOR_POINT_ADDRESS(name) &reticor_##name##_semaphore,
        RETICOR_POINTS(RETICOR_POINT_ADDRESS)
#undef RETICOR_POINT_ADDRESS
    };
    for (const std::atomic<uint32_t>* word : words) {
        EXPECT_EQ(0u, word->load());
    }
    // A tracer counts itself in and out in the lower half; the recorder leaves that alone.
    auto* const semaphore = reinterpret_cast<uint16_t*>(&reticor_record_pop_semaphore);
    *semaphore = 3;
    CRecorder::Start();
    EXPECT_EQ(3u, *semaphore);
    EXPECT_NE(3u, reticor_record_pop_semaphore.load());
    CRecorder::Stop();
    EXPECT_EQ(3u, reticor_record_pop_semaphore.load());
    EXPECT_FALSE(CRecorder::IsOn());
    *semaphore = 0;
}

}  // namespace
}  // namespace Orvex::Testing
