// ObjectRoll: who is on it, in which order, and what is read of them.
#include "Core/count/ObjectRoll.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <optional>
#include <set>
#include <thread>

#include "support/SeededRandom.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

const ObjectKind CANDLE{"candle", {{{"height", "How high it is.", false}, {"drops", "That fell.", true}}}};

class Candle {
public:
    explicit Candle(uint64_t height) : m_height(height) {}
    void enter(int64_t id) { m_roll.enter(id); }
    void burn() { m_height.fetch_sub(1, std::memory_order_relaxed); }

private:
    static ObjectValues figures(const void* object) {
        return {static_cast<const Candle*>(object)->m_height.load(std::memory_order_relaxed), 7};
    }

    std::atomic<uint64_t> m_height;
    RollEntry m_roll{CANDLE, &figures, this};
};

// Of other tests' objects none is of this kind.
std::vector<ObjectRow> candles() {
    std::vector<ObjectRow> all;
    ObjectRoll::read(all);
    std::vector<ObjectRow> found;
    for (const ObjectRow& row : all) {
        if (row.kind == &CANDLE) {
            found.push_back(row);
        }
    }
    return found;
}

}  // namespace

TEST(ObjectRoll, AnObjectIsOnItFromItsEntryToItsEnd) {
    std::optional<Candle> candle(12);
    EXPECT_TRUE(candles().empty()) << "it is not whole yet";
    candle->enter(-5);
    const std::vector<ObjectRow> found = candles();
    ASSERT_EQ(1U, found.size());
    EXPECT_EQ(-5, found[0].id);
    EXPECT_EQ((ObjectValues{12, 7}), found[0].values);
    candle.reset();
    EXPECT_TRUE(candles().empty());
}

TEST(ObjectRoll, AnObjectThatNeverEnteredGoesWithoutATrace) {
    Candle kept(1);
    kept.enter(1);
    { Candle never(2); }
    EXPECT_EQ(1U, candles().size());
}

TEST(ObjectRoll, FiguresAreThoseOfTheMoment) {
    Candle candle(12);
    candle.enter(1);
    candle.burn();
    EXPECT_EQ(11U, candles()[0].values[0]);
}

TEST(ObjectRoll, WhatIsReadIsAddedToWhatIsThere) {
    Candle candle(1);
    candle.enter(1);
    std::vector<ObjectRow> rows;
    ObjectRoll::read(rows);
    const size_t once = rows.size();
    ObjectRoll::read(rows);
    EXPECT_EQ(2 * once, rows.size());
}

// At random, against the plainest list there is: the youngest first, whoever goes in between.
TEST(ObjectRoll, KeepsTheOrderWhoeverComesAndGoes) {
    SeededRandom random;
    std::vector<std::pair<int64_t, std::unique_ptr<Candle>>> model;  // the oldest first
    for (int64_t id = 1; id < 2000; ++id) {
        if (!model.empty() && random.oneIn(2)) {
            model.erase(model.begin() +
                        random.between<std::ptrdiff_t>(0, static_cast<std::ptrdiff_t>(model.size()) - 1));
            continue;
        }
        model.emplace_back(id, std::make_unique<Candle>(static_cast<uint64_t>(id)));
        model.back().second->enter(id);
        if (random.oneIn(20)) {
            const std::vector<ObjectRow> found = candles();
            ASSERT_EQ(model.size(), found.size());
            for (size_t i = 0; i < found.size(); ++i) {
                ASSERT_EQ(model[model.size() - 1 - i].first, found[i].id);
            }
        }
    }
}

// Objects come and go on threads of their own while somebody reads.
TEST(ObjectRoll, IsReadWhileObjectsComeAndGo) {
    std::atomic<int> running{3};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 3; ++thread) {
        threads.emplace_back([thread, &running] {
            for (int i = 0; i < 3000; ++i) {
                Candle candle(100);
                candle.enter(thread * 10000 + i);
                candle.burn();
            }
            --running;
        });
    }
    while (running != 0) {
        std::set<int64_t> ids;
        for (const ObjectRow& row : candles()) {
            EXPECT_TRUE(ids.insert(row.id).second) << "one object twice";
            EXPECT_TRUE(row.values[0] == 99 || row.values[0] == 100);
        }
        EXPECT_LE(ids.size(), 3U);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(candles().empty());
}

}  // namespace Orvex::Testing
