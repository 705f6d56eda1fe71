// Alarms: each made for real in a pool that runs, seen in the snapshot and in its texts, and over afterwards.
#include "Core/stats/Alarms.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include <Infra/Time.h>
#include <Reticor/Stats.h>

#include "Core/count/AlarmSpan.h"
#include "support/core/Exposition.h"
#include "support/core/JsonValue.h"
#include "support/core/SockPoolFixture.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

// The alarm of that kind in pool 0, as a product reads it; nothing if there never was one.
std::optional<AlarmStats> alarmNow(AlarmKind kind, int pool = 0) {
    CStats stats;
    EXPECT_EQ(0, stats.Take());
    for (size_t place = 0; place < stats.GetAlarmCount(); ++place) {
        AlarmStats alarm{};
        EXPECT_EQ(0, stats.GetAlarm(place, alarm));
        if (alarm.kind == kind && alarm.pool == pool) {
            return alarm;
        }
    }
    return std::nullopt;
}

bool lasts(AlarmKind kind, int pool = 0) {
    const std::optional<AlarmStats> alarm = alarmNow(kind, pool);
    return alarm && alarm->lasts == 1;
}

std::string textNow(size_t (CStats::*write)(char*, size_t) const) {
    CStats stats;
    EXPECT_EQ(0, stats.Take());
    std::string text((stats.*write)(nullptr, 0), '?');
    (stats.*write)(&text[0], text.size());
    return text;
}

// What the three texts have of an alarm that lasts.
void expectInTexts(const std::string& name, const std::string& sentence) {
    const std::string text = textNow(&CStats::toText);
    EXPECT_NE(std::string::npos, text.find("alarm: " + sentence)) << text;
    const std::optional<JsonValue> json = JsonValue::parse(textNow(&CStats::toJson));
    ASSERT_TRUE(json);
    EXPECT_TRUE((*json)["alarms"][0]["alarm"].is(name)) << "those that last come first";
    EXPECT_EQ("true", (*json)["alarms"][0]["lasts"].text());
    EXPECT_EQ(0u, (*json)["alarms"][0]["text"].text().find(sentence));
    const Exposition metrics(textNow(&CStats::toPrometheus));
    const std::string which = "{kind=\"" + name + "\",pool=\"0\"}";
    EXPECT_EQ(1, metrics.at("reticor_alarm" + which));
    EXPECT_LE(1, metrics.at("reticor_alarms_total" + which));
    EXPECT_TRUE(metrics.is_counter("reticor_alarms_total" + which));
}

class AlarmsOfPool : public SockPoolFixture {
protected:
    // Keeps both workers in calls. `gate` is opened by the test.
    void holdAll(Gate& gate) {
        const int all = ThreadPoolProbe::workers(pool());
        handler->on_message = [&gate](long, unsigned int, long) {
            gate.pass();
            return 0;
        };
        for (int i = 0; i < all; ++i) {
            handler->Notify(handler->GetID(), 100, i);
        }
        ASSERT_TRUE(gate.awaitArrivals(all));
    }
};

TEST_F(AlarmsOfPool, APoolThatRunsWellHasNone) {
    for (const AlarmKind kind : Alarms::KINDS) {
        EXPECT_FALSE(lasts(kind)) << Alarms::name(kind);
    }
    const Exposition metrics(textNow(&CStats::toPrometheus));
    for (const AlarmKind kind : Alarms::KINDS) {
        EXPECT_EQ(0,
                  metrics.at(std::string("reticor_alarm{kind=\"") + Alarms::name(kind) + "\",pool=\"0\"}"));
    }
}

TEST_F(AlarmsOfPool, AFullPoolIsToldWithTheSocketsThatItLeavesOut) {
    constexpr int PLACES = 4095;
    constexpr int EXCESS = 3;
    allowDescriptors(PLACES + EXCESS + 200);
    std::vector<int> copies;
    for (int i = 0; i < PLACES + EXCESS; ++i) {
        copies.push_back(::fcntl(pair.fd(), F_DUPFD_CLOEXEC, 0));
        ASSERT_GE(copies.back(), 0);
        if (i == PLACES) {
            const std::optional<AlarmStats> taken = alarmNow(AlarmKind::POOL_FULL);
            ASSERT_TRUE(taken);
            EXPECT_STREQ("pool 0 is full: no place is left for another socket", taken->text);
            EXPECT_EQ(0u, taken->amount);
        }
        BorrowedSock sock(copies.back());
        ASSERT_EQ(0, handler->RegisterSock(sock, SOCK_READ, 0));
    }
    const std::optional<AlarmStats> full = alarmNow(AlarmKind::POOL_FULL);
    ASSERT_TRUE(full);
    EXPECT_EQ(1u, full->lasts);
    EXPECT_EQ(static_cast<uint64_t>(EXCESS), full->amount);
    EXPECT_EQ(1u, full->times);
    EXPECT_EQ(0u, full->ended_us);
    EXPECT_STREQ("pool 0 is full: 3 sockets are left out", full->text);
    expectInTexts("pool_full", "pool 0 is full: 3 sockets are left out");
    const uint64_t before_us = Infra::CTime::getCurrentMicroSecond();
    for (const int fd : copies) {
        BorrowedSock sock(fd);
        handler->RemoveSock(sock);
    }
    EXPECT_EVENTUALLY(ThreadPoolProbe::sockets(pool()).empty());
    for (const int fd : copies) {
        ::close(fd);
    }
    const std::optional<AlarmStats> over = alarmNow(AlarmKind::POOL_FULL);
    ASSERT_TRUE(over) << "how often it was so stays known";
    EXPECT_EQ(0u, over->lasts);
    EXPECT_EQ(full->since_us, over->since_us);
    EXPECT_GE(over->ended_us, before_us);
    EXPECT_STREQ("pool 0 was full", over->text);
    EXPECT_NE(std::string::npos, textNow(&CStats::toText).find("alarm: pool 0 was full"));
}

TEST_F(AlarmsOfPool, TheClockIsLateWhileTimersFindNoWorker) {
    Gate gate;
    holdAll(gate);
    const uint64_t armed_us = Infra::CTime::getCurrentMicroSecond();
    handler->SetTimer(5000);
    EXPECT_EVENTUALLY(lasts(AlarmKind::CLOCK_LATE));
    const std::optional<AlarmStats> late = alarmNow(AlarmKind::CLOCK_LATE);
    ASSERT_TRUE(late);
    EXPECT_GE(late->since_us, armed_us) << "since the time of the timer";
    EXPECT_LE(late->since_us + 250000, Infra::CTime::getCurrentMicroSecond());
    EXPECT_EQ(1u, late->amount);
    EXPECT_GE(late->most_us, 250000u);
    EXPECT_EQ(0u, std::string(late->text).find("timers of pool 0 are late: 1 waits for a worker, for "));
    expectInTexts("clock_late", "timers of pool 0 are late: 1 waits for a worker, for ");
    gate.open();
    EXPECT_EVENTUALLY(handler->life->timeouts >= 1);
    EXPECT_EVENTUALLY(!lasts(AlarmKind::CLOCK_LATE));
    const std::optional<AlarmStats> over = alarmNow(AlarmKind::CLOCK_LATE);
    ASSERT_TRUE(over);
    EXPECT_EQ(0u, std::string(over->text).find("timers of pool 0 were late, by ")) << over->text;
    EXPECT_EQ(late->times, over->times);
}

TEST_F(AlarmsOfPool, AStuckCallIsToldWhileTheWatchIsOn) {
    Gate gate;
    holdInMessage(gate);
    EXPECT_FALSE(lasts(AlarmKind::WORKER_STUCK)) << "nobody watches";
    ASSERT_EQ(0, CNetThread::SetStuckLimit(20));
    EXPECT_EVENTUALLY(lasts(AlarmKind::WORKER_STUCK));
    const std::optional<AlarmStats> stuck = alarmNow(AlarmKind::WORKER_STUCK);
    ASSERT_TRUE(stuck);
    EXPECT_EQ(1u, stuck->amount);
    EXPECT_GE(stuck->most_us, 20000u);
    EXPECT_EQ(0u, std::string(stuck->text).find("1 call of pool 0 runs longer than the limit, one for "))
        << stuck->text;
    EXPECT_FALSE(lasts(AlarmKind::WORKER_STUCK, -1));
    expectInTexts("worker_stuck", "1 call of pool 0 runs longer than the limit, one for ");
    gate.open();
    EXPECT_EVENTUALLY(!lasts(AlarmKind::WORKER_STUCK));
    EXPECT_STREQ("calls of pool 0 ran longer than the limit", alarmNow(AlarmKind::WORKER_STUCK)->text);
    EXPECT_EQ(stuck->times, alarmNow(AlarmKind::WORKER_STUCK)->times);
    EXPECT_EQ(0, CNetThread::SetStuckLimit(0));
}

TEST_F(AlarmsOfPool, TheEndOfTheWatchIsTheEndOfItsAlarm) {
    Gate gate;
    holdInMessage(gate);
    ASSERT_EQ(0, CNetThread::SetStuckLimit(20));
    EXPECT_EVENTUALLY(lasts(AlarmKind::WORKER_STUCK));
    EXPECT_EQ(0, CNetThread::SetStuckLimit(0));
    EXPECT_FALSE(lasts(AlarmKind::WORKER_STUCK)) << "nobody knows";
    gate.open();
}

// ---- the rows -------------------------------------------------------------------------------------------

TEST(AlarmRows, AreRecentForTenSecondsAfterTheirEnd) {
    AlarmStats alarm{};
    alarm.lasts = 1;
    EXPECT_TRUE(Alarms::is_recent(alarm, 99000000));
    alarm.lasts = 0;
    alarm.ended_us = 5000000;
    EXPECT_TRUE(Alarms::is_recent(alarm, 5000000 + AlarmSpan::HOLD_US - 1));
    EXPECT_FALSE(Alarms::is_recent(alarm, 5000000 + AlarmSpan::HOLD_US));
}

TEST(AlarmRows, HaveAWordForEachKind) {
    EXPECT_STREQ("pool_full", CStats::GetAlarmName(AlarmKind::POOL_FULL));
    EXPECT_STREQ("clock_late", CStats::GetAlarmName(AlarmKind::CLOCK_LATE));
    EXPECT_STREQ("worker_stuck", CStats::GetAlarmName(AlarmKind::WORKER_STUCK));
    EXPECT_STREQ("", CStats::GetAlarmName(static_cast<AlarmKind>(77)));
}

TEST(AlarmRows, AnEmptySnapshotHasNoneAndNoMemory) {
    const CStats empty;
    AlarmStats alarm{};
    MemoryStats memory{};
    EXPECT_EQ(0u, empty.GetAlarmCount());
    EXPECT_EQ(-1, empty.GetAlarm(0, alarm));
    EXPECT_EQ(0u, empty.GetMemoryCount());
    EXPECT_EQ(-1, empty.GetMemory(0, memory));
}

}  // namespace
}  // namespace Orvex::Testing
