// AlwaysReady: the list of records that never make anybody wait, and its snapshots.
#include "Core/watch/AlwaysReady.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <thread>
#include <vector>

#include "support/SeededRandom.h"
#include "support/socket/Allocations.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

std::vector<CEvent*> sortedSnapshot(AlwaysReady& list) {
    const std::vector<CEvent*>* const found = list.Snapshot();
    std::vector<CEvent*> records = found != nullptr ? *found : std::vector<CEvent*>();
    std::sort(records.begin(), records.end());
    return records;
}

TEST(AlwaysReady, IsEmptyUntilARecordComesAndAfterItHasGone) {
    AlwaysReady list;
    CEvent ev;
    EXPECT_TRUE(list.IsEmpty());
    ASSERT_NE(nullptr, list.Snapshot());
    EXPECT_TRUE(list.Snapshot()->empty());
    EXPECT_TRUE(list.Add(&ev));
    EXPECT_FALSE(list.IsEmpty());
    EXPECT_EQ(std::vector<CEvent*>{&ev}, *list.Snapshot());
    list.Remove(&ev);
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_TRUE(list.Snapshot()->empty());
}

TEST(AlwaysReady, KeepsTheOrderInWhichRecordsCame) {
    AlwaysReady list;
    std::deque<CEvent> records(4);
    for (CEvent& ev : records) {
        EXPECT_TRUE(list.Add(&ev));
    }
    list.Remove(&records[1]);
    EXPECT_EQ((std::vector<CEvent*>{&records[0], &records[2], &records[3]}), *list.Snapshot());
}

TEST(AlwaysReady, ASnapshotStaysAsItWasUntilTheNextOne) {
    AlwaysReady list;
    CEvent first, second;
    EXPECT_TRUE(list.Add(&first));
    const std::vector<CEvent*>* const seen = list.Snapshot();
    EXPECT_TRUE(list.Add(&second));
    list.Remove(&first);
    EXPECT_EQ(std::vector<CEvent*>{&first}, *seen);
    EXPECT_EQ(std::vector<CEvent*>{&second}, *list.Snapshot());
}

TEST(AlwaysReady, WithoutMemoryNothingIsAdded) {
    AlwaysReady list;
    CEvent ev;
    {
        const NoMemory no_memory;
        EXPECT_FALSE(list.Add(&ev));
    }
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_TRUE(list.Snapshot()->empty());
    EXPECT_TRUE(list.Add(&ev));
    EXPECT_FALSE(list.IsEmpty());
}

TEST(AlwaysReady, ASnapshotNeedsMemoryOnlyWhenTheListIsLongerThanEver) {
    AlwaysReady list;
    std::deque<CEvent> records(3);
    EXPECT_TRUE(list.Add(&records[0]));
    EXPECT_TRUE(list.Add(&records[1]));
    {
        const NoMemory no_memory;
        EXPECT_EQ(nullptr, list.Snapshot());
    }
    EXPECT_EQ(2u, list.Snapshot()->size());
    EXPECT_TRUE(list.Add(&records[2]));
    {
        const NoMemory no_memory;
        EXPECT_EQ(nullptr, list.Snapshot());
    }
    EXPECT_EQ(3u, list.Snapshot()->size());
    list.Remove(&records[0]);
    const size_t before = allocationCount();
    EXPECT_EQ(2u, list.Snapshot()->size());
    EXPECT_TRUE(list.Add(&records[0]));
    EXPECT_EQ(3u, list.Snapshot()->size());
    EXPECT_EQ(before, allocationCount());
}

TEST(AlwaysReady, AnyMixOfCallsMatchesAPlainListWhileMemoryFailsNowAndThen) {
    SeededRandom random;
    AlwaysReady list;
    std::deque<CEvent> records(200);
    std::vector<CEvent*> model;
    for (int i = 0; i < 5000; ++i) {
        CEvent* const ev = &records[random.between(size_t{0}, records.size() - 1)];
        const auto place = std::find(model.begin(), model.end(), ev);
        if (place != model.end()) {
            model.erase(place);
            list.Remove(ev);
        } else {
            bool added = false;
            if (random.oneIn(3)) {
                const NoMemory no_memory;
                added = list.Add(ev);
            } else {
                added = list.Add(ev);
                ASSERT_TRUE(added);
            }
            if (added) {
                model.push_back(ev);
            }
        }
        ASSERT_EQ(model.empty(), list.IsEmpty());
        if (random.oneIn(10)) {
            ASSERT_EQ(model, *list.Snapshot());
        }
    }
    ASSERT_EQ(model, *list.Snapshot());
}

TEST(AlwaysReady, ThePollerLooksWhileOthersComeAndGo) {
    AlwaysReady list;
    CEvent stays;
    EXPECT_TRUE(list.Add(&stays));
    std::atomic<int> running{2};
    std::vector<std::thread> owners;
    for (int i = 0; i < 2; ++i) {
        owners.emplace_back([&] {
            std::deque<CEvent> own(5);
            for (int n = 0; n < 2000; ++n) {
                for (CEvent& ev : own) {
                    EXPECT_TRUE(list.Add(&ev));
                }
                for (CEvent& ev : own) {
                    list.Remove(&ev);
                }
            }
            --running;
        });
    }
    size_t longest = 0;
    while (running > 0) {
        const std::vector<CEvent*>* const seen = list.Snapshot();
        ASSERT_NE(nullptr, seen);
        ASSERT_EQ(1, std::count(seen->begin(), seen->end(), &stays));
        longest = std::max(longest, seen->size());
        EXPECT_FALSE(list.IsEmpty());
    }
    for (std::thread& owner : owners) {
        owner.join();
    }
    EXPECT_LE(longest, 11u);
    EXPECT_EQ(std::vector<CEvent*>{&stays}, sortedSnapshot(list));
}

}  // namespace
}  // namespace Orvex::Testing
