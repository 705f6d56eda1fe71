// media_relay: what its pools did in the last second, in ten, and in a minute.
#include <set>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <Reticor/NetThread.h>

#include "media_relay/figures/PoolWork.h"
#include "support/Eventually.h"
#include "support/program/RelayProgram.h"

using namespace Orvex::Testing;
using Orvex::Reticor::CNetThread;

TEST(RelayPoolWork, KeepsFewLooksAndGoesBackAMinute) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(1, false));
    relay::PoolWork work;
    EXPECT_TRUE(work.json().empty());
    work.take();
    EXPECT_TRUE(work.json().empty()) << "one look is no difference";
    for (int i = 0; i < 200; ++i) {
        work.take();
        EXPECT_GE(18U, work.kept());
    }
    EXPECT_LT(15U, work.kept());
    const nlohmann::json rows = work.json();
    ASSERT_EQ(3U, rows.size());
    EXPECT_EQ(1, rows[0]["span"]);
    EXPECT_EQ(10, rows[1]["span"]);
    EXPECT_EQ(60, rows[2]["span"]);
    EXPECT_GT(rows[1]["seconds"], rows[0]["seconds"]);
    EXPECT_GT(rows[2]["seconds"], rows[1]["seconds"]);
    CNetThread::DestroyThreadPool();
}

// A row is of the time since the start until there is more.
TEST(RelayPoolWork, BeginsWithWhatThereIs) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(1, false));
    relay::PoolWork work;
    for (int i = 0; i < 5; ++i) {
        work.take();
    }
    const nlohmann::json rows = work.json();
    ASSERT_EQ(3U, rows.size());
    EXPECT_GT(rows[1]["seconds"], rows[0]["seconds"]);
    EXPECT_EQ(rows[1]["seconds"], rows[2]["seconds"]);
    CNetThread::DestroyThreadPool();
}

TEST(RelayPoolWork, IsToldByTheRelayForEachPool) {
    RelayProgram relay({"--size", "160x120"});
    EXPECT_EVENTUALLY(relay.stats()["work"].size() == 3);
    const nlohmann::json work = relay.stats()["work"];
    std::set<int> spans;
    for (const auto& row : work) {
        spans.insert(row["span"].get<int>());
        EXPECT_EQ(0, row["pool"]);
        EXPECT_LT(0.0, row["seconds"].get<double>());
        EXPECT_LT(0.0, row["timers"].get<double>()) << "its own ticks at least";
        EXPECT_LE(0.0, row["utilisation"].get<double>());
        EXPECT_GE(1.1, row["utilisation"].get<double>());
    }
    EXPECT_EQ((std::set<int>{1, 10, 60}), spans);
    EXPECT_EQ(0, relay.end());
}
