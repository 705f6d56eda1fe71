// StrayWatch: which stray reports are lasting ones.
#include "Core/watch/StrayWatch.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "support/SeededRandom.h"

namespace Orvex::Testing {
namespace {

using Reticor::StrayWatch;

TEST(StrayWatch, AReportThatComesOnceIsNotALastingOne) {
    StrayWatch watch;
    for (uint64_t mark = 1; mark <= 20000; ++mark) {
        ASSERT_FALSE(watch.ComesAgain(mark)) << mark;
    }
}

TEST(StrayWatch, TheSecondTimeInARowItIs) {
    for (const uint64_t mark : {uint64_t{0}, uint64_t{7}, uint64_t{1} << 63}) {
        StrayWatch watch;
        EXPECT_FALSE(watch.ComesAgain(mark));
        EXPECT_TRUE(watch.ComesAgain(mark));
        EXPECT_TRUE(watch.ComesAgain(mark)) << "and stays one";
    }
}

TEST(StrayWatch, TheOneThatIsAwaitedStandsLongerEachTime) {
    StrayWatch watch;
    uint64_t mark = 1;
    EXPECT_FALSE(watch.ComesAgain(mark));  // awaited from now on
    for (int patience = 2; patience <= 64; patience *= 2) {
        const uint64_t awaited = mark;
        for (int passed = 1; passed < patience; ++passed) {
            ASSERT_FALSE(watch.ComesAgain(++mark));
        }
        StrayWatch at_the_limit = watch;
        EXPECT_TRUE(at_the_limit.ComesAgain(awaited)) << "others have passed, but not enough of them";
        ASSERT_FALSE(watch.ComesAgain(++mark));  // one too many
        StrayWatch after_it = watch;
        EXPECT_FALSE(after_it.ComesAgain(awaited)) << patience;
        EXPECT_TRUE(watch.ComesAgain(mark)) << "the last one has its place";
    }
}

TEST(StrayWatch, CopiesThatTakeTurnsAreFoundInTheEnd) {
    for (const uint64_t copies : {uint64_t{2}, uint64_t{3}, uint64_t{100}, uint64_t{4000}}) {
        StrayWatch watch;
        uint64_t reports = 0;
        bool found = false;
        while (!found && reports < 16 * 4096) {
            found = watch.ComesAgain(1 + reports++ % copies);
        }
        EXPECT_TRUE(found) << copies;
        EXPECT_LE(reports, 4 * copies + 2) << "soon after the first round";
    }
}

// So many that each gives way before it comes again: nothing is built anew for them.
TEST(StrayWatch, PatienceEndsAt4096) {
    StrayWatch watch;
    for (uint64_t i = 0; i < 50000; ++i) {
        ASSERT_FALSE(watch.ComesAgain(1 + i % 4097));
    }
    bool found = false;
    for (uint64_t i = 0; i < 50000 && !found; ++i) {
        found = watch.ComesAgain(10000 + i % 4096);
    }
    EXPECT_TRUE(found);
}

TEST(StrayWatch, ForgetsAllWhenItIsReset) {
    StrayWatch watch;
    for (uint64_t mark = 1; mark < 100; ++mark) {
        watch.ComesAgain(mark);
    }
    watch.Reset();
    EXPECT_FALSE(watch.ComesAgain(5));
    EXPECT_TRUE(watch.ComesAgain(5));
    watch.Reset();
    EXPECT_FALSE(watch.ComesAgain(5)) << "also the one that was awaited";
    EXPECT_FALSE(watch.ComesAgain(6));
    EXPECT_FALSE(watch.ComesAgain(7)) << "patience begins anew: 5 has given way";
    EXPECT_TRUE(watch.ComesAgain(7));
}

TEST(StrayWatch, AnyMixOfReportsMatchesItsRule) {
    SeededRandom random;
    StrayWatch watch;
    std::vector<uint64_t> passed;  // since the awaited one got its place
    uint64_t awaited = 0;
    bool awaiting = false;
    size_t patience = 1;
    for (int i = 0; i < 50000; ++i) {
        if (random.oneIn(5000)) {
            watch.Reset();
            passed.clear();
            awaiting = false;
            patience = 1;
        }
        const uint64_t mark = random.between<uint64_t>(1, 600);
        const bool expected = awaiting && mark == awaited;
        if (!expected) {
            passed.push_back(mark);
            if (passed.size() >= patience) {
                awaited = mark;
                awaiting = true;
                passed.clear();
                patience = patience < 4096 ? patience * 2 : 4096;
            }
        }
        ASSERT_EQ(expected, watch.ComesAgain(mark)) << "report " << i;
    }
}

}  // namespace
}  // namespace Orvex::Testing
