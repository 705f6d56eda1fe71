// RoomMarks: what is noted is served after that, whoever serves it, and held for as long.
#include "Tool/step/RoomMarks.h"

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <thread>
#include <vector>

#include "Tool/media/SenderRecord.h"
#include "support/PoolFixture.h"
#include "support/core/Probes.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

class RoomMarksOfABuffer : public PoolFixture {
protected:
    void SetUp() override {
        PoolFixture::SetUp();
        for (int i = 0; i < 3; ++i) {
            senders.push_back(CMediaStreamSender::Create());
            marks.emplace_back(SenderRecord::of(*senders.back()), *senders.back());
        }
    }
    void TearDown() override {
        for (CMediaStreamSender* const sender : senders) {
            sender->Close();
        }
        PoolFixture::TearDown();
    }
    // As a step serves them: notes how often each was noted, then works on it.
    std::vector<RoomMark*> serve(RoomMark* taken) {
        std::vector<RoomMark*> found;
        for (RoomMark* mark = taken; mark != nullptr; mark = mark->m_next) {
            mark->m_seen = mark->m_times.load();
            found.push_back(mark);
        }
        return found;
    }

    std::vector<CMediaStreamSender*> senders;
    std::deque<RoomMark> marks;
    RoomMarks line;
};

TEST_F(RoomMarksOfABuffer, AllThatWasNotedIsTakenTheLastOneFirst) {
    EXPECT_FALSE(line.any());
    EXPECT_EQ(nullptr, line.take());
    for (RoomMark& mark : marks) {
        line.note(mark);
    }
    EXPECT_TRUE(line.any());
    RoomMark* const taken = line.take();
    EXPECT_FALSE(line.any());
    EXPECT_EQ((std::vector<RoomMark*>{&marks[2], &marks[1], &marks[0]}), serve(taken));
    line.finish(taken);
    EXPECT_FALSE(line.any());
}

TEST_F(RoomMarksOfABuffer, WhatIsNotedTwiceIsThereOnce) {
    line.note(marks[0]);
    line.note(marks[0]);
    RoomMark* const taken = line.take();
    EXPECT_EQ(std::vector<RoomMark*>{&marks[0]}, serve(taken));
    line.finish(taken);
    EXPECT_FALSE(line.any()) << "both notes came before it was served";
}

TEST_F(RoomMarksOfABuffer, WhatIsNotedWhileItIsServedIsServedOnceMore) {
    line.note(marks[0]);
    line.note(marks[1]);
    RoomMark* taken = line.take();
    serve(taken);
    line.note(marks[0]);
    EXPECT_FALSE(line.any()) << "it is taken still";
    line.finish(taken);
    EXPECT_TRUE(line.any());
    taken = line.take();
    EXPECT_EQ(std::vector<RoomMark*>{&marks[0]}, serve(taken));
    line.finish(taken);
    EXPECT_FALSE(line.any());
    line.note(marks[0]);
    EXPECT_TRUE(line.any()) << "and anew";
    taken = line.take();
    serve(taken);
    line.finish(taken);
}

TEST_F(RoomMarksOfABuffer, ANotedSenderIsThereUntilItWasServed) {
    const auto references = [this] { return HandlerProbe::references(*senders[0]); };
    const auto before = references();
    line.note(marks[0]);
    line.note(marks[0]);
    EXPECT_EQ(before + 1, references());
    RoomMark* taken = line.take();
    serve(taken);
    line.note(marks[0]);
    line.finish(taken);
    EXPECT_EQ(before + 1, references()) << "it is noted still";
    taken = line.take();
    serve(taken);
    line.finish(taken);
    EXPECT_EQ(before, references());
}

// Threads note while one serves: after the last note of each mark there is a service.
TEST_F(RoomMarksOfABuffer, NoNoteIsLost) {
    constexpr int NOTES = 20000;
    std::atomic<int> noted[3] = {{0}, {0}, {0}};
    int served[3] = {0, 0, 0};
    std::atomic<int> running{2};
    std::vector<std::thread> threads;
    for (unsigned first = 0; first < 2; ++first) {
        threads.emplace_back([&, first] {
            for (unsigned i = 0; i < NOTES; ++i) {
                const size_t which = (first + i) % 3;
                ++noted[which];
                line.note(marks[which]);
            }
            --running;
        });
    }
    for (bool last = false; !last;) {
        last = running == 0;
        if (RoomMark* const taken = line.take()) {
            for (RoomMark* const mark : serve(taken)) {
                const auto which = static_cast<size_t>(mark - &marks[0]);
                served[which] = noted[which];
            }
            line.finish(taken);
            last = false;
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(noted[i], served[i]);
        EXPECT_EQ(0U, marks[i].m_times);
    }
}

}  // namespace
}  // namespace Orvex::Testing
