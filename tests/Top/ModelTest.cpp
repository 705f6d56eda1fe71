// Model: rates from counters, and what is wrong in a process.
#include "top/Model.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Top/Samples.h"

namespace {

using nlohmann::json;
using top::ClassRate;
using top::Model;
using top::PoolRate;

namespace Samples = TopSamples;
using Samples::SECOND;

/// A model that is shown a process once a second.
class ModelOfProcess : public testing::Test {
protected:
    /// Another second has passed; `all` is what the process says now.
    bool look() {
        all["taken_us"] = ++seconds * SECOND;
        return model.add(Samples::read(all), pid);
    }
    json& pool() { return all["pools"][0]; }
    static void grow(json& figure, uint64_t by) { figure = figure.get<uint64_t>() + by; }

    /// A second in which the pool has served that number of messages.
    void work(uint64_t messages, uint64_t cpu_ns = 0) {
        grow(pool()["messages"], messages);
        grow(pool()["calls"], messages);
        grow(pool()["cpu_ns"], cpu_ns);
        look();
    }
    PoolRate rate(double window_s) {
        PoolRate found;
        EXPECT_TRUE(model.rateOfPool(0, window_s, found));
        return found;
    }
    bool hasRate(double window_s) {
        PoolRate found;
        return model.rateOfPool(0, window_s, found);
    }
    /// All workers are in calls, and something waits.
    void hang() {
        pool()["busy"] = 2;
        pool()["queue_length"] = 5;
        all["workers"] = json::array({Samples::worker(11, "-65536", "handle_message", 40),
                                      Samples::worker(12, "-65536", "handle_message", 41)});
    }

    json all = Samples::process(0);
    Model model;
    pid_t pid = 4711;
    uint64_t seconds = 100;
};

TEST_F(ModelOfProcess, OneLookHasNoRates) {
    EXPECT_TRUE(model.isEmpty());
    EXPECT_FALSE(hasRate(1));
    look();
    EXPECT_FALSE(model.isEmpty());
    EXPECT_FALSE(hasRate(1));
    ClassRate of_class;
    EXPECT_FALSE(model.rateOfClass("a", 1, of_class));
    double value = 0;
    EXPECT_FALSE(model.rateOfBuffer("1", 1, value));
    EXPECT_FALSE(model.rateOfInput(1, value, value));
    EXPECT_FALSE(model.lateness(value));
}

TEST_F(ModelOfProcess, TwoLooksGiveRatesByTheSecond) {
    look();
    grow(pool()["socket_events"], 100);
    grow(pool()["messages"], 200);
    grow(pool()["serial_messages"], 50);
    grow(pool()["timers"], 10);
    grow(pool()["calls"], 360);
    grow(pool()["passes"], 70);
    grow(pool()["reports"], 90);
    grow(pool()["cpu_ns"], 500000000);
    ++seconds;  // two have passed
    look();
    const PoolRate found = rate(1);
    EXPECT_DOUBLE_EQ(2, found.seconds);
    EXPECT_DOUBLE_EQ(50, found.events);
    EXPECT_DOUBLE_EQ(125, found.messages);
    EXPECT_DOUBLE_EQ(5, found.timers);
    EXPECT_DOUBLE_EQ(180, found.calls);
    EXPECT_DOUBLE_EQ(35, found.passes);
    EXPECT_DOUBLE_EQ(45, found.reports);
    EXPECT_DOUBLE_EQ(0.125, found.utilisation) << "half a second of four that two workers had";
}

TEST_F(ModelOfProcess, WindowsAreThereOnceTheyHavePassed) {
    look();
    for (int second = 1; second <= 9; ++second) {
        work(10);
    }
    EXPECT_TRUE(hasRate(1));
    EXPECT_FALSE(hasRate(10));
    work(10);
    EXPECT_TRUE(hasRate(10));
    EXPECT_FALSE(hasRate(60));
    for (int second = 11; second <= 60; ++second) {
        work(10);
    }
    EXPECT_TRUE(hasRate(60));
}

TEST_F(ModelOfProcess, EachWindowHasTheRateOfItsTime) {
    look();
    for (int second = 0; second < 60; ++second) {
        work(second < 50 ? 1000 : second < 59 ? 100 : 7);
    }
    EXPECT_DOUBLE_EQ(7, rate(1).messages);
    EXPECT_DOUBLE_EQ((9 * 100 + 7) / 10.0, rate(10).messages);
    EXPECT_DOUBLE_EQ((50 * 1000 + 9 * 100 + 7) / 60.0, rate(60).messages);
    EXPECT_DOUBLE_EQ(60, rate(60).seconds);
}

TEST_F(ModelOfProcess, AnHourOfLooksIsNotKept) {
    look();
    for (int second = 0; second < 3600; ++second) {
        work(second % 2 == 0 ? 10 : 20);
    }
    EXPECT_DOUBLE_EQ(60, rate(60).seconds);
    EXPECT_DOUBLE_EQ(15, rate(60).messages);
    PoolRate hour;
    EXPECT_FALSE(model.rateOfPool(0, 600, hour)) << "that was forgotten";
}

TEST_F(ModelOfProcess, LooksThatComeLateOrEarlyStretchTheWindow) {
    all["taken_us"] = 100 * SECOND;
    model.add(Samples::read(all), pid);
    pool()["messages"] = 30;
    all["taken_us"] = 100 * SECOND + 970000;  // nearly a second
    model.add(Samples::read(all), pid);
    EXPECT_DOUBLE_EQ(0.97, rate(1).seconds);
    pool()["messages"] = 31;
    all["taken_us"] = 100 * SECOND + 1070000;  // a tenth later
    model.add(Samples::read(all), pid);
    EXPECT_DOUBLE_EQ(1.07, rate(1).seconds) << "a tenth of a second is no second";
}

TEST_F(ModelOfProcess, AClockThatStandsStillGivesNoRates) {
    model.add(Samples::read(all), pid);
    pool()["messages"] = 30;
    model.add(Samples::read(all), pid);
    EXPECT_FALSE(hasRate(1));
}

TEST_F(ModelOfProcess, APoolThatHasJustBegunOrEndedHasNoRate) {
    look();
    all["pools"].push_back(Samples::pool(3));
    look();
    PoolRate found;
    EXPECT_FALSE(model.rateOfPool(3, 1, found));
    look();
    EXPECT_TRUE(model.rateOfPool(3, 1, found));
    all["pools"].erase(1);
    look();
    EXPECT_FALSE(model.rateOfPool(3, 1, found));
    EXPECT_FALSE(model.rateOfPool(63, 1, found));
}

TEST_F(ModelOfProcess, ProcessorTimeOfWorkersThatEndedIsNotNegative) {
    pool()["cpu_ns"] = 5 * SECOND * 1000;
    look();
    pool()["cpu_ns"] = 0;
    EXPECT_FALSE(look()) << "it is the same process";
    EXPECT_DOUBLE_EQ(0, rate(1).utilisation);
}

TEST_F(ModelOfProcess, APoolWithoutWorkersHasNoUtilisation) {
    pool()["workers"] = 0;
    look();
    pool()["cpu_ns"] = 1000;
    look();
    EXPECT_GT(1e-3, rate(1).utilisation);
}

TEST_F(ModelOfProcess, AnotherProcessBeginsAnew) {
    look();
    work(1000);
    EXPECT_TRUE(hasRate(1));
    pid = 4712;
    EXPECT_TRUE(look());
    EXPECT_FALSE(hasRate(1));
    EXPECT_FALSE(look());
    EXPECT_EQ(4712, model.process());
}

TEST_F(ModelOfProcess, ACounterThatFellIsOfAnotherProcess) {
    pid = 0;  // it is not known
    work(1000);
    work(1000);
    pool()["messages"] = 10;
    EXPECT_TRUE(look());
    EXPECT_FALSE(hasRate(1));
    pool()["calls"] = 3;
    EXPECT_TRUE(look());
    all["timer_lateness"] = Samples::spread(9, 9);
    EXPECT_FALSE(look());
    all["timer_lateness"] = Samples::spread(8, 8);
    EXPECT_TRUE(look());
    seconds -= 50;
    EXPECT_TRUE(look()) << "its clock went back: another machine";
}

TEST_F(ModelOfProcess, ClassesHaveRatesAndTimes) {
    all["classes"] = json::array({Samples::handlers("Till", 100, 50, 1000000)});
    look();
    all["classes"] =
        json::array({Samples::handlers("Till", 1700, 150, 6000000), Samples::handlers("New", 8)});
    look();
    ClassRate till;
    ASSERT_TRUE(model.rateOfClass("Till", 1, till));
    EXPECT_DOUBLE_EQ(1600, till.calls);
    EXPECT_DOUBLE_EQ(50, till.each_us) << "5 ms for the 100 that were measured";
    EXPECT_DOUBLE_EQ(0.08, till.busy) << "those that were not measured took as long";
    ClassRate fresh;
    ASSERT_TRUE(model.rateOfClass("New", 1, fresh));
    EXPECT_DOUBLE_EQ(8, fresh.calls) << "it began at 0";
    EXPECT_DOUBLE_EQ(0, fresh.each_us);
    EXPECT_FALSE(model.rateOfClass("None", 1, fresh));
}

TEST_F(ModelOfProcess, RecentRatesAreOfTheLongestTimeThatIsThere) {
    all["classes"] = json::array({Samples::handlers("Till", 0)});
    look();
    for (uint64_t second = 1; second <= 10; ++second) {
        all["classes"] = json::array({Samples::handlers("Till", second == 10 ? 9 * 50 + 1000 : second * 50)});
        look();
        if (second == 9) {
            EXPECT_DOUBLE_EQ(50, model.recentRateOfClass("Till", 10).calls);
        }
    }
    EXPECT_DOUBLE_EQ(145, model.recentRateOfClass("Till", 10).calls);
    EXPECT_DOUBLE_EQ(0, model.recentRateOfClass("None", 10).calls);
}

TEST_F(ModelOfProcess, BuffersHaveTheRateOfWhatIsPut) {
    all["media_buffers"] = json::array({{{"buffer", 1}, {"put_bytes", 1000}}});
    look();
    all["media_buffers"] =
        json::array({{{"buffer", 1}, {"put_bytes", 51000}}, {{"buffer", 2}, {"put_bytes", 5}}});
    look();
    double bytes = 0;
    EXPECT_TRUE(model.rateOfBuffer("1", 1, bytes));
    EXPECT_DOUBLE_EQ(50000, bytes);
    EXPECT_FALSE(model.rateOfBuffer("2", 1, bytes)) << "it was not there before";
}

TEST_F(ModelOfProcess, LatenessIsOfTheTimersThatWereDue) {
    double late_us = 0;
    all["timer_lateness"] = Samples::spread(100, 100 * 50000000ull);
    look();
    EXPECT_FALSE(model.lateness(late_us));
    look();
    EXPECT_FALSE(model.lateness(late_us)) << "none was due";
    all["timer_lateness"] = Samples::spread(110, 100 * 50000000ull + 10 * 3000000ull);
    look();
    ASSERT_TRUE(model.lateness(late_us));
    EXPECT_DOUBLE_EQ(3000, late_us) << "what was before is not counted";
}

TEST_F(ModelOfProcess, AHealthyProcessHasNoAlarms) {
    all["classes"] = json::array({Samples::handlers("Till", 100)});
    all["media_senders"] = json::array({Samples::sender("1", "stalled", "stalled for 3.2 s", 3200000)});
    pool()["busy"] = 2;
    for (int second = 0; second < 20; ++second) {
        work(5000, 100000000);
        EXPECT_EQ("", Samples::alarms(model));
    }
}

TEST_F(ModelOfProcess, NothingThatIsNotTheProcessGivesAlarms) {
    EXPECT_EQ("", Samples::alarms(model));
}

TEST_F(ModelOfProcess, APoolWhoseWorkersAllHangIsNamed) {
    work(1000);
    hang();
    work(40);  // until they began to hang
    EXPECT_EQ("", Samples::alarms(model)) << "it may still be busy only";
    look();
    look();
    EXPECT_EQ(
        "! pool 0 hangs: all 2 workers busy, nothing served for 2.0 s, 5 wait\n"
        "! handler::handle_message runs for over 2.0 s, 2 times: threads 11 12 of pool 0\n",
        Samples::alarms(model));
}

TEST_F(ModelOfProcess, WorkersThatAreBusyWithNothingWaitingDoNotHangThePool) {
    work(10);
    hang();
    pool()["queue_length"] = 0;
    look();
    look();
    look();
    EXPECT_EQ(std::string::npos, Samples::alarms(model).find("hangs"));
    EXPECT_NE(std::string::npos, Samples::alarms(model).find("handle_message runs for over"));
}

TEST_F(ModelOfProcess, OneWorkerThatIsLeftKeepsThePoolAlive) {
    work(10);
    hang();
    all["workers"].erase(1);
    pool()["busy"] = 1;
    for (int second = 0; second < 3; ++second) {
        work(10);
    }
    EXPECT_EQ("! handler::handle_message runs for over 2.0 s: thread 11 of pool 0, handler -65536\n",
              Samples::alarms(model));
}

TEST_F(ModelOfProcess, ACallThatHasChangedIsNotTheSame) {
    hang();
    pool()["queue_length"] = 0;
    look();
    all["workers"][0]["calls"] = 41;  // another call of the same operation
    all["workers"][1]["call"] = "handle_timeout";
    look();
    EXPECT_EQ("", Samples::alarms(model));
    all["workers"][0]["handler"] = "-131072";
    all["workers"][1]["handler"] = "0";
    look();
    EXPECT_EQ("", Samples::alarms(model));
    look();
    EXPECT_NE(std::string::npos, Samples::alarms(model).find("thread 11 of pool 0, handler -131072"));
}

TEST_F(ModelOfProcess, CallsThatLastAreNamedByTheirClass) {
    hang();
    look();
    EXPECT_TRUE(model.namelessCalls().empty()) << "they have just begun";
    look();
    EXPECT_EQ((std::vector<std::string>{"-65536", "-65536"}), model.namelessCalls());
    model.nameHandlers({{"-1", "Other"}, {"-65536", "Shop::Report"}});
    EXPECT_TRUE(model.namelessCalls().empty());
    EXPECT_NE(std::string::npos,
              Samples::alarms(model).find("! Shop::Report::handle_message runs for over 1"));
}

TEST_F(ModelOfProcess, AHandlerThatNobodyKnowsIsAskedForOnce) {
    hang();
    look();
    look();
    model.nameHandlers({});
    EXPECT_TRUE(model.namelessCalls().empty());
    EXPECT_NE(std::string::npos, Samples::alarms(model).find("handler::handle_message runs"));
}

TEST_F(ModelOfProcess, NobodyIsAskedForAClassThatIsTold) {
    hang();
    all["workers"][0]["class"] = all["workers"][1]["class"] = "Shop::Till";
    look();
    look();
    EXPECT_TRUE(model.namelessCalls().empty());
    EXPECT_NE(std::string::npos, Samples::alarms(model).find("Shop::Till::handle_message runs"));
}

TEST_F(ModelOfProcess, ClassesAndCallsOfAProcessThatHasGoneAreForgotten) {
    hang();
    look();
    look();
    model.nameHandlers({{"-65536", "Shop::Report"}});
    pid = 5;
    look();
    EXPECT_EQ("", Samples::alarms(model));
    look();
    EXPECT_EQ(2u, model.namelessCalls().size()) << "the same ids are of other handlers";
}

TEST_F(ModelOfProcess, ACallOnAThreadOutsideOfPoolsHasNone) {
    all["workers"] = json::array({Samples::worker(99, "-65536", "handle_close", 1, -1)});
    look();
    look();
    EXPECT_EQ(std::string::npos, Samples::alarms(model).find("of pool"));
    EXPECT_NE(std::string::npos, Samples::alarms(model).find("thread 99, handler -65536"));
}

TEST_F(ModelOfProcess, CallsThatRunForLongByTheProcesssWordAreToldUntilTheyAreSeen) {
    hang();
    all["alarms"] =
        json::array({Samples::alarm("worker_stuck", true, 2, "2 calls of pool 0 run longer than the limit")});
    look();
    EXPECT_EQ("! 2 calls of pool 0 run longer than the limit\n", Samples::alarms(model));
    look();
    EXPECT_EQ(std::string::npos, Samples::alarms(model).find("the limit")) << "both are named one by one now";
    all["alarms"][0]["amount"] = 3;
    look();
    EXPECT_NE(std::string::npos, Samples::alarms(model).find("the limit")) << "there is one more";
    all["alarms"][0]["amount"] = 1;
    all["alarms"][0]["pool"] = 1;
    look();
    EXPECT_NE(std::string::npos, Samples::alarms(model).find("the limit")) << "of another pool";
}

TEST_F(ModelOfProcess, AQueueThatGrowsIsNamed) {
    pool()["busy"] = 2;
    for (uint64_t second = 0; second <= 10; ++second) {
        EXPECT_EQ("", Samples::alarms(model));
        pool()["queue_length"] = 100 + 50 * second;
        work(10);
    }
    EXPECT_EQ("- pool 0 does not keep up: all 2 workers busy, 600 wait, 100 did 10 s ago\n",
              Samples::alarms(model));
    pool()["busy"] = 1;
    work(10);
    EXPECT_EQ("", Samples::alarms(model)) << "one is free";
}

TEST_F(ModelOfProcess, WhatTheProcessItselfCallsAnAlarmIsToldWithItsTimes) {
    all["alarms"] =
        json::array({Samples::alarm("pool_full", true, 12, "pool 0 is full: 12 sockets are left out"),
                     Samples::alarm("clock_late", true, 1, "timers of pool 0 are late")});
    all["alarms"][0]["since_us"] = (seconds - 2) * SECOND;
    all["alarms"][1]["times"] = 3;
    look();
    EXPECT_EQ(
        "! pool 0 is full: 12 sockets are left out, for 3.0 s\n"
        "! timers of pool 0 are late, 3 times so far\n",
        Samples::alarms(model));
    all["alarms"][0]["amount"] = 0;
    all["alarms"][0]["text"] = "pool 0 is full: no place is left for another socket";
    all["alarms"].erase(1);
    look();
    EXPECT_EQ("- pool 0 is full: no place is left for another socket, for 4.0 s\n", Samples::alarms(model))
        << "nobody suffers yet";
}

TEST_F(ModelOfProcess, AlarmsThatAreOverAreToldForTenSeconds) {
    all["alarms"] = json::array({Samples::alarm("pool_full", false, 0, "pool 0 was full")});
    all["alarms"][0]["ended_us"] = seconds * SECOND;
    for (int second = 0; second < 9; ++second) {
        look();
        EXPECT_EQ("- pool 0 was full\n", Samples::alarms(model)) << second;
    }
    look();
    EXPECT_EQ("", Samples::alarms(model));
}

TEST_F(ModelOfProcess, AnAlarmWithoutAWordIsNone) {
    all["alarms"] = json::array({Samples::alarm("pool_full", true, 1, ""), 7, "full"});
    look();
    EXPECT_EQ("", Samples::alarms(model));
}

TEST_F(ModelOfProcess, RefusalsOfTheSystemAreNamedForAMinute) {
    pool()["epoll_refused"] = 5;
    look();
    EXPECT_EQ("", Samples::alarms(model)) << "nobody knows when that was";
    pool()["epoll_refused"] = 8;
    look();
    EXPECT_EQ("! pool 0: the system had no room for a socket 3 times (fs.epoll.max_user_watches)\n",
              Samples::alarms(model));
    for (int second = 0; second < 70; ++second) {
        look();
    }
    EXPECT_EQ("", Samples::alarms(model));
}

TEST_F(ModelOfProcess, CopiesOfClosedSocketsAreNamed) {
    look();
    pool()["strays"] = 40;
    pool()["rebuilds"] = 1;
    look();
    EXPECT_EQ("- pool 0: a socket was closed that somebody has a copy of (40 strays, 1 rebuilds)\n",
              Samples::alarms(model));
}

TEST_F(ModelOfProcess, APollerThatSpinsIsNamed) {
    look();
    grow(pool()["passes"], 50000);
    work(10);
    EXPECT_EQ("- pool 0 spins: 50 k passes a second, and hardly anything is served\n",
              Samples::alarms(model));
    grow(pool()["passes"], 50000);
    work(40000);
    EXPECT_EQ("", Samples::alarms(model)) << "there is much to do";
}

TEST_F(ModelOfProcess, LateTimersAreNamed) {
    look();
    all["timer_lateness"] = Samples::spread(10, 10 * 19000000ull);
    look();
    EXPECT_EQ("", Samples::alarms(model));
    all["timer_lateness"] = Samples::spread(20, 10 * 19000000ull + 10 * 61000000ull);
    look();
    EXPECT_EQ("- timers are late by 40 ms on average\n", Samples::alarms(model));
}

TEST_F(ModelOfProcess, ANewerVersionIsSaid) {
    all["version"] = 3;
    look();
    EXPECT_EQ("- the process tells version 3 of its figures; this program knows 1\n", Samples::alarms(model));
}

TEST_F(ModelOfProcess, TheWorstComesFirst) {
    all["version"] = 2;
    all["alarms"] = json::array({Samples::alarm("pool_full", false, 0, "pool 0 was full"),
                                 Samples::alarm("pool_full", true, 1, "pool 1 is full")});
    all["alarms"][0]["ended_us"] = all["alarms"][1]["since_us"] = (seconds + 1) * SECOND;
    look();
    const std::vector<top::Alarm> alarms = model.alarms();
    ASSERT_EQ(3u, alarms.size());
    EXPECT_TRUE(alarms[0].is_bad);
    EXPECT_EQ("pool 1 is full", alarms[0].text);
    EXPECT_FALSE(alarms[1].is_bad);
    EXPECT_FALSE(alarms[2].is_bad);
}

/// A relay that is looked at once a second.
class ModelOfRelay : public testing::Test {
protected:
    void look() {
        ++seconds;
        model.add(Samples::read(all, seconds * SECOND), 0);
    }
    json all = Samples::relay();
    Model model;
    uint64_t seconds = 100;
};

TEST_F(ModelOfRelay, TellsTheRateOfItsInput) {
    look();
    all["input"]["frames"] = 125;
    all["input"]["bytes"] = 2500000;
    look();
    double frames = 0;
    double bytes = 0;
    ASSERT_TRUE(model.rateOfInput(1, frames, bytes));
    EXPECT_DOUBLE_EQ(25, frames);
    EXPECT_DOUBLE_EQ(500000, bytes);
    ASSERT_TRUE(model.rateOfBuffer("1", 1, bytes));
    EXPECT_DOUBLE_EQ(500000, bytes);
    EXPECT_EQ("", Samples::alarms(model));
}

TEST_F(ModelOfRelay, ThatBeganAnewIsSeenByItsInput) {
    look();
    all["input"]["bytes"] = 10;
    ++seconds;
    EXPECT_TRUE(model.add(Samples::read(all, seconds * SECOND), 0));
}

TEST_F(ModelOfRelay, SaysThatItIsFull) {
    all["totals"]["clients"] = 100;
    look();
    EXPECT_EQ("! the relay is full: 100 clients\n", Samples::alarms(model));
    all["totals"].erase("max_clients");
    look();
    EXPECT_EQ("", Samples::alarms(model));
}

TEST_F(ModelOfRelay, SaysWhoWasRefusedInTheLastMinute) {
    all["totals"]["refused"] = 5;
    look();
    EXPECT_EQ("", Samples::alarms(model));
    all["totals"]["refused"] = 7;
    all["totals"]["turned_away"] = 1;
    look();
    EXPECT_EQ("- 2 clients refused, 1 connections turned away in the last minute\n", Samples::alarms(model));
}

TEST_F(ModelOfRelay, SaysThatNoPictureComes) {
    for (int second = 0; second <= 10; ++second) {
        EXPECT_EQ("", Samples::alarms(model));
        look();
    }
    EXPECT_EQ("! no picture has come in for 10 s\n", Samples::alarms(model));
    all["input"]["ended"] = true;
    look();
    EXPECT_EQ("- the input has ended\n", Samples::alarms(model));
}

}  // namespace
