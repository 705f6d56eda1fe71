// EndedVerdicts: the youngest first, and no more than there is room for.
#include "Tool/judge/EndedVerdicts.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace Orvex::Testing {

using namespace Reticor;

namespace {

SenderVerdict verdict_on(int64_t sender) {
    SenderVerdict verdict;
    verdict.sender = sender;
    return verdict;
}

// The senders of those that are there.
std::vector<int64_t> ended() {
    SenderVerdict room[EndedVerdicts::MOST];
    const size_t count = EndedVerdicts::copy(room);
    std::vector<int64_t> found;
    for (size_t i = 0; i < count; ++i) {
        found.push_back(room[i].sender);
    }
    return found;
}

TEST(EndedVerdicts, TheYoungestIsFirst) {
    const size_t before = ended().size();
    EndedVerdicts::add(verdict_on(-1));
    EndedVerdicts::add(verdict_on(-2));
    EndedVerdicts::add(verdict_on(-3));
    const std::vector<int64_t> found = ended();
    ASSERT_EQ(before + 3, found.size());
    EXPECT_EQ((std::vector<int64_t>{-3, -2, -1}), std::vector<int64_t>(found.begin(), found.begin() + 3));
}

TEST(EndedVerdicts, TheOldestGoesFirst) {
    std::vector<int64_t> expected;
    for (int64_t i = 1; i <= 100; ++i) {
        EndedVerdicts::add(verdict_on(-i));
        if (i > 100 - static_cast<int64_t>(EndedVerdicts::MOST)) {
            expected.insert(expected.begin(), -i);
        }
    }
    EXPECT_EQ(32U, expected.size());
    EXPECT_EQ(expected, ended());
}

TEST(EndedVerdicts, AreCountedByKindForEver) {
    SenderVerdict room[EndedVerdicts::MOST];
    EndedVerdicts::Ever before{};
    EndedVerdicts::copy(room, &before);
    SenderVerdict verdict = verdict_on(-1);
    verdict.kind = SenderVerdictKind::SILENT;
    for (int i = 0; i < 40; ++i) {
        EndedVerdicts::add(verdict);
    }
    EndedVerdicts::add(verdict_on(-2));
    EndedVerdicts::Ever after{};
    EndedVerdicts::copy(room, &after);
    EXPECT_EQ(before[static_cast<size_t>(SenderVerdictKind::SILENT)] + 40,
              after[static_cast<size_t>(SenderVerdictKind::SILENT)]);
    EXPECT_EQ(before[0] + 1, after[0]);
    EXPECT_EQ(before[static_cast<size_t>(SenderVerdictKind::BURST)],
              after[static_cast<size_t>(SenderVerdictKind::BURST)]);
}

TEST(EndedVerdicts, WholeOnesAreCopiedWhileOthersCome) {
    std::thread adds([] {
        for (int64_t i = 1; i <= 20000; ++i) {
            SenderVerdict verdict = verdict_on(-i);
            verdict.buffer = static_cast<uint64_t>(i);
            verdict.lag_us = static_cast<uint64_t>(i);
            EndedVerdicts::add(verdict);
        }
    });
    for (int64_t newest = 0; newest != -20000;) {
        SenderVerdict room[EndedVerdicts::MOST];
        const size_t count = EndedVerdicts::copy(room);
        ASSERT_GE(32U, count);
        for (size_t i = 0; i < count && room[i].buffer != 0; ++i) {
            ASSERT_EQ(room[i].buffer, room[i].lag_us);
            ASSERT_EQ(room[0].sender + static_cast<int64_t>(i), room[i].sender) << "no gap";
        }
        newest = count != 0 ? room[0].sender : 0;
    }
    adds.join();
}

}  // namespace
}  // namespace Orvex::Testing
