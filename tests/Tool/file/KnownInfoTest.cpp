// KnownInfo: what a file's device said of it, whole and last.
#include "Tool/file/KnownInfo.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "support/Rounds.h"

namespace Orvex::Reticor {
namespace {

// Each field tells of the same number.
NFile_Info infoOf(int number) {
    NFile_Info info;
    info.time_create = number;
    info.time_access = number;
    info.time_write = number;
    info.size = number;
    info.attrib = number;
    std::memset(info.name, number, sizeof(info.name) - 1);
    info.name[sizeof(info.name) - 1] = '\0';
    return info;
}

bool same(const NFile_Info& one, const NFile_Info& other) {
    return one.time_create == other.time_create && one.time_access == other.time_access &&
           one.time_write == other.time_write && one.size == other.size && one.attrib == other.attrib &&
           std::memcmp(one.name, other.name, sizeof(one.name)) == 0;
}

TEST(KnownInfo, BeforeAnAnswerAllIs0AndTheDeviceIsAsked) {
    KnownInfo known;
    NFile_Info info = infoOf(7);
    EXPECT_FALSE(known.get(info));
    EXPECT_TRUE(same(NFile_Info(), info));
}

TEST(KnownInfo, TheLastAnswerIsGivenWhole) {
    KnownInfo known;
    NFile_Info info;
    for (const int number : {5, 6}) {
        known.set(infoOf(number));
        EXPECT_TRUE(known.get(info));
        EXPECT_TRUE(same(infoOf(number), info));
    }
}

TEST(KnownInfo, AnAnswerWithoutATimeOfCreationIsGivenButAskedForAgain) {
    KnownInfo known;
    NFile_Info answer;
    answer.size = 5;
    known.set(answer);
    NFile_Info info;
    EXPECT_FALSE(known.get(info));
    EXPECT_EQ(5, info.size);
    answer.time_create = 1;
    known.set(answer);
    EXPECT_TRUE(known.get(info));
}

TEST(KnownInfo, NobodyGetsHalfOfOneAnswerAndHalfOfAnother) {
    constexpr int ENOUGH = 200000;
    KnownInfo known;
    const NFile_Info answers[] = {infoOf(1), infoOf(2)};
    known.set(answers[0]);
    std::atomic<int> sets{0};
    std::thread setter([&] {
        for (Testing::Rounds rounds(ENOUGH); rounds.next(); ++sets) {
            known.set(answers[1]);
            known.set(answers[0]);
        }
        sets = ENOUGH;
    });
    bool whole = true;
    do {
        NFile_Info info;
        known.get(info);
        whole = whole && (same(answers[0], info) || same(answers[1], info));
    } while (sets < ENOUGH);
    setter.join();
    EXPECT_TRUE(whole);
}

}  // namespace
}  // namespace Orvex::Reticor
