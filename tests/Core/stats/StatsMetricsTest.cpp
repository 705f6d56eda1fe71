// StatsMetrics: the exposition format, read as strictly as a stranger's reader would.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <Reticor/Stats.h>

#include "Core/stats/StatsTexts.h"
#include "Tool/judge/VerdictText.h"
#include "support/core/Exposition.h"
#include "support/core/MadeSnapshot.h"
#include "support/core/SockPoolFixture.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

std::string exposed() {
    CStats stats;
    EXPECT_EQ(0, stats.Take());
    std::string text(stats.toPrometheus(nullptr, 0), '?');
    EXPECT_EQ(text.size(), stats.toPrometheus(&text[0], text.size()));
    return text;
}

std::string exposed(const Snapshot& snapshot) {
    TextRoom out;
    write_metrics(snapshot, out);
    return out.text();
}

class StatsMetrics : public SockPoolFixture {
protected:
    void work() {
        const int goal = handler->life->messages + 32;
        for (int i = 0; i < 32; ++i) {
            handler->Notify(handler->GetID(), 100, i);
        }
        EXPECT_EVENTUALLY(handler->life->messages >= goal);
    }
};

TEST(ExpositionReader, RefusesWhatItShouldRefuse) {
    const char* const wrong[] = {
        "# TYPE a gauge\na 1\na 2\n",                           // twice
        "# TYPE a gauge\nb 1\n",                                // under another family
        "# TYPE a gauge\na{b=\"c} 1\n",                         // no end of the label
        "# TYPE a gauge\na 1\n# TYPE b gauge\na{c=\"d\"} 1\n",  // torn apart
    };
    for (const char* text : wrong) {
        testing::TestPartResultArray failures;
        {
            testing::ScopedFakeTestPartResultReporter reporter(
                testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
            const Exposition read{text};
        }
        EXPECT_GT(failures.size(), 0) << text;
    }
}

TEST_F(StatsMetrics, TheExpositionHasEverySeriesOnceAndCountersNeverFall) {
    CStats::SetTiming(true);
    work();
    const int index = CNetThread::CreatePrivatePool(1, false);
    Exposition before(exposed());
    EXPECT_EQ(1, before.at("reticor_build_info{version=\"1.0.0\"}"));
    EXPECT_EQ(2, before.at("reticor_pools"));
    EXPECT_GE(before.at("reticor_pool_messages_total{pool=\"0\"}"), 32);
    EXPECT_EQ(0, before.at("reticor_pool_messages_total{pool=\"" + std::to_string(index) + "\"}"));
    EXPECT_GE(before.at("reticor_handlers{class=\"Orvex::Testing::TestHandler\"}"), 1);
    EXPECT_GE(before.at("reticor_pool_run_seconds_count{pool=\"0\"}"), 1);
    work();
    const Exposition after(exposed());
    for (const auto& [series, value] : before.series()) {
        if (before.is_counter(series)) {
            EXPECT_GE(after.at(series), value) << series;
        }
    }
    EXPECT_GE(after.at("reticor_pool_messages_total{pool=\"0\"}") -
                  before.at("reticor_pool_messages_total{pool=\"0\"}"),
              32);
    CNetThread::DestroyPrivatePool(index);
    CStats::SetTiming(false);
}

// Names, endings and helps: by our own reader, and by the tool of the format's makers where it is installed.
TEST_F(StatsMetrics, NoReaderFindsFaultWithNamesAndEndings) {
    CStats::SetTiming(true);
    work();
    const std::string text = exposed();
    EXPECT_LT(20u, Exposition(text).series().size());
    if (std::system("command -v promtool >/dev/null") == 0) {
        std::FILE* const tool = ::popen("promtool check metrics", "w");
        ASSERT_NE(nullptr, tool);
        EXPECT_EQ(text.size(), std::fwrite(text.data(), 1, text.size(), tool));
        EXPECT_EQ(0, ::pclose(tool));
    }
    CStats::SetTiming(false);
}

// ---- made snapshots --------------------------------------------------------------------------------------

// A value of a label as it stands between its quotes.
std::string label(const std::string& value) {
    std::string escaped;
    for (const char letter : value) {
        escaped += letter == '"' || letter == '\\' ? "\\" : "";
        escaped += letter;
    }
    return escaped;
}

double asNumber(uint64_t value) {
    return static_cast<double>(value);
}

// Every second power of two from 1 us to 17 s, and all.
void expectHistogram(const Exposition& read, const std::string& name, const std::string& labels,
                     const TimeSpread& spread) {
    const std::string open = labels.empty() ? "{" : "{" + labels + ",";
    const std::string rest = labels.empty() ? "" : "{" + labels + "}";
    size_t edges = 0;
    for (const auto& [series, value] : read.series()) {
        edges += series.rfind(name + "_bucket" + open + "le=", 0) == 0 ? 1 : 0;
    }
    EXPECT_EQ(14u, edges);
    uint64_t below = 0;
    for (size_t i = 0; i <= 34; ++i) {
        below += spread.count[i];
        if (i >= 10 && i % 2 == 0) {
            TextRoom edge;
            edge << static_cast<double>(uint64_t{1} << i) / 1e9;
            EXPECT_EQ(asNumber(below), read.at(name + "_bucket" + open + "le=\"" + edge.text() + "\"}"));
        }
    }
    EXPECT_EQ(asNumber(spread.GetCount()), read.at(name + "_bucket" + open + "le=\"+Inf\"}"));
    EXPECT_EQ(asNumber(spread.GetCount()), read.at(name + "_count" + rest));
    EXPECT_DOUBLE_EQ(asNumber(spread.sum_ns) / 1e9, read.at(name + "_sum" + rest));
}

void expectPools(const Exposition& read, const Snapshot& from) {
    for (const PoolStats& pool : from.pools) {
        const std::string which = "pool=\"" + std::to_string(pool.pool) + "\"";
        for (size_t i = 0; i < POOL_FIGURE_COUNT; ++i) {
            const PoolFigure& figure = POOL_FIGURES[i];
            const std::string series = std::string("reticor_pool_") + figure.name +
                                       (figure.counter ? "_total" : "") + "{" + which + "}";
            EXPECT_EQ(asNumber(pool.*figure.value), read.at(series)) << series;
            EXPECT_EQ(figure.counter, read.is_counter(series)) << series;
        }
        EXPECT_EQ(pool.workers, read.at("reticor_pool_workers{" + which + "}"));
        EXPECT_EQ(pool.busy, read.at("reticor_pool_busy{" + which + "}"));
        expectHistogram(read, "reticor_pool_wait_seconds", which, pool.wait);
        expectHistogram(read, "reticor_pool_run_seconds", which, pool.run);
    }
}

void expectClasses(const Exposition& read, const Snapshot& from) {
    for (const HandlerClassStats& row : from.classes) {
        const std::string which = "{class=\"" + label(row.name) + "\"}";
        EXPECT_EQ(asNumber(row.live), read.at("reticor_handlers" + which));
        EXPECT_EQ(asNumber(row.closed), read.at("reticor_handlers_closed_total" + which));
        EXPECT_EQ(asNumber(row.calls), read.at("reticor_handler_calls_total" + which));
        EXPECT_EQ(asNumber(row.timed), read.at("reticor_handler_timed_calls_total" + which));
        EXPECT_DOUBLE_EQ(asNumber(row.time_ns) / 1e9, read.at("reticor_handler_time_seconds_total" + which));
    }
}

void expectMedia(const Exposition& read, const Snapshot& from) {
    const MediaRows& media = from.media;
    for (const BufferStats& row : media.buffers) {
        const std::string which = "{buffer=\"" + std::to_string(row.buffer) + "\"}";
        EXPECT_EQ(asNumber(row.senders), read.at("reticor_media_buffer_senders" + which));
        EXPECT_EQ(asNumber(row.frames), read.at("reticor_media_buffer_frames" + which));
        EXPECT_EQ(asNumber(row.bytes), read.at("reticor_media_buffer_bytes" + which));
        EXPECT_EQ(asNumber(row.held_bytes), read.at("reticor_media_buffer_held_bytes" + which));
        EXPECT_EQ(asNumber(row.put_bytes), read.at("reticor_media_buffer_put_bytes_total" + which));
    }
    EXPECT_EQ(VerdictText::KINDS, from.verdicts.size());
    for (const VerdictStats& row : from.verdicts) {
        const std::string which = std::string("{verdict=\"") + VerdictText::name(row.kind) + "\"}";
        EXPECT_EQ(asNumber(row.senders), read.at("reticor_media_senders" + which));
        EXPECT_EQ(asNumber(row.ended), read.at("reticor_media_senders_ended_total" + which));
        EXPECT_TRUE(read.is_counter("reticor_media_senders_ended_total" + which));
    }
    for (size_t i = 0; i < media.senders.size(); ++i) {
        const SenderVerdict& row = media.senders[i];
        const std::string which =
            "{sender=\"" + std::to_string(row.sender) + "\",buffer=\"" + std::to_string(row.buffer) + "\"}";
        if (i >= MOST_SENDERS) {
            EXPECT_EQ(0u, read.series().count("reticor_media_sender_lag_seconds" + which));
            continue;
        }
        EXPECT_DOUBLE_EQ(asNumber(row.lag_us) / 1e6, read.at("reticor_media_sender_lag_seconds" + which));
        EXPECT_EQ(asNumber(row.lag_bytes), read.at("reticor_media_sender_lag_bytes" + which));
        EXPECT_EQ(asNumber(row.taken_rate), read.at("reticor_media_sender_taken_bits_per_second" + which));
        EXPECT_DOUBLE_EQ(row.closed_percent / 100.0,
                         read.at("reticor_media_sender_window_closed_ratio" + which));
    }
}

void expectMemory(const Exposition& read, const Snapshot& from) {
    const auto at = [&](size_t place) { return from.memory.at(place); };
    EXPECT_EQ(asNumber(at(0).pieces), read.at("reticor_memory_pieces{kind=\"free_records\"}"));
    EXPECT_EQ(asNumber(at(1).pieces + at(2).pieces),
              read.at("reticor_memory_pieces{kind=\"thread_blocks\"}"));
    EXPECT_EQ(asNumber(at(1).bytes + at(2).bytes), read.at("reticor_memory_bytes{kind=\"thread_blocks\"}"));
    EXPECT_EQ(asNumber(at(3).bytes), read.at("reticor_memory_bytes{kind=\"media_frames\"}"));
}

// Those of the snapshot, and none for what was never wrong in a pool that is there.
void expectAlarms(const Exposition& read, const Snapshot& from) {
    size_t series = 0;
    for (const AlarmStats& row : from.alarms) {
        const std::string which = std::string("{kind=\"") + CStats::GetAlarmName(row.kind) + "\",pool=\"" +
                                  std::to_string(row.pool) + "\"}";
        EXPECT_EQ(row.lasts, read.at("reticor_alarm" + which));
        EXPECT_EQ(asNumber(row.times), read.at("reticor_alarms_total" + which));
        series += row.pool < 0 ? 1 : 0;
    }
    for (const auto& [name, value] : read.series()) {
        series -= name.rfind("reticor_alarm{", 0) == 0 ? 1 : 0;
    }
    EXPECT_EQ(0u, series + 3 * from.pools.size()) << "three for each pool, and those of other threads";
}

TEST(MadeMetrics, WhatIsReadFromTheExpositionIsWhatWasInTheSnapshot) {
    SeededRandom random;
    for (int round = 0; round < 15 && !testing::Test::HasFailure(); ++round) {
        const MadeSnapshot made(random);
        const Snapshot& from = made.snapshot;
        const Exposition read(exposed(from));
        EXPECT_EQ(1, read.at("reticor_build_info{version=\"1.0.0\"}"));
        EXPECT_EQ(asNumber(from.pools.size()), read.at("reticor_pools"));
        EXPECT_EQ(from.process.timing, read.at("reticor_timing"));
        EXPECT_EQ(asNumber(from.process.stuck), read.at("reticor_stuck_calls"));
        EXPECT_EQ(asNumber(from.process.stuck_ever), read.at("reticor_stuck_calls_named_total"));
        expectHistogram(read, "reticor_timer_lateness_seconds", "", from.process.timer_lateness);
        expectPools(read, from);
        expectClasses(read, from);
        expectMemory(read, from);
        expectAlarms(read, from);
        if (!from.media.buffers.empty() || !from.media.ended.empty()) {
            expectMedia(read, from);
        }
    }
}

TEST(MadeMetrics, WithoutMediaThereAreNoFamiliesOfIt) {
    const std::string text = exposed(Snapshot());
    EXPECT_EQ(std::string::npos, text.find("media"));
    EXPECT_EQ(std::string::npos, text.find("reticor_memory"));
    const Exposition read(text);
    EXPECT_EQ(0, read.at("reticor_pools"));
    EXPECT_EQ(0, read.at("reticor_timer_lateness_seconds_count"));
}

// What took longer than the last edge is in the last bucket alone, and what took less than the first in all.
TEST(MadeMetrics, TimesBeyondTheEdgesAreCountedOnce) {
    Snapshot snapshot;
    snapshot.process.timer_lateness.count[0] = 3;
    snapshot.process.timer_lateness.count[39] = 5;
    const Exposition read(exposed(snapshot));
    EXPECT_EQ(3, read.at("reticor_timer_lateness_seconds_bucket{le=\"1.024e-06\"}"));
    EXPECT_EQ(3, read.at("reticor_timer_lateness_seconds_bucket{le=\"17.179869184\"}"));
    EXPECT_EQ(8, read.at("reticor_timer_lateness_seconds_bucket{le=\"+Inf\"}"));
}

}  // namespace
}  // namespace Orvex::Testing
