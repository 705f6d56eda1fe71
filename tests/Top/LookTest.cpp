// Look: what a process says is read as far as it can be, and nothing that stands there harms.
#include "top/Look.h"

#include <cstdint>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "Top/Samples.h"

namespace {

using nlohmann::json;
using top::Look;
using top::readClassesOfHandlers;
using top::UNKNOWN;

namespace Samples = TopSamples;

std::string refusal(const std::string& text) {
    Look look;
    std::string wrong;
    return look.read(text, 0, wrong) ? "read" : wrong;
}

/// A process that has something in every list.
json whole_process() {
    json all = Samples::process(17);
    json& pool = all["pools"][0];
    int value = 100;
    for (auto& [name, figure] : pool.items()) {
        if (figure.is_number() && name != "pool") {
            figure = value++;
        }
    }
    pool["wait"] = Samples::spread(5, 50, 9);
    all["workers"].push_back(Samples::worker(4711, "-65536", "handle_input", 12));
    all["workers"].push_back(Samples::worker(4712, "0", "", 13));
    all["classes"].push_back(Samples::handlers("Shop::Till", 6021, 1333, 5870000));
    all["media_buffers"].push_back(
        {{"buffer", 1}, {"senders", 3}, {"frames", 25}, {"bytes", 1000}, {"put_bytes", 9000}});
    all["media_senders"].push_back(
        Samples::sender("-131072", "slow_reader", "reads 1.2 of 4.0 Mbit/s", 1500));
    return all;
}

TEST(LookAtProcess, ReadsTheFiguresOfAPool) {
    const json all = whole_process();
    const json& told = all["pools"][0];
    const Look look = Samples::read(all);
    ASSERT_EQ(1u, look.pools.size());
    const top::PoolRow& pool = look.pools[0];
    EXPECT_EQ(0, pool.pool);
    EXPECT_EQ(told["workers"], pool.workers);
    EXPECT_EQ(told["busy"], pool.busy);
    EXPECT_EQ(told["cpu_ns"], pool.cpu_ns);
    EXPECT_EQ(told["queue_length"], pool.queue);
    EXPECT_EQ(told["calls"], pool.calls);
    EXPECT_EQ(told["socket_events"], pool.events);
    EXPECT_EQ(told["messages"].get<uint64_t>() + told["serial_messages"].get<uint64_t>(), pool.messages);
    EXPECT_EQ(told["timers"], pool.timers);
    EXPECT_EQ(told["passes"], pool.passes);
    EXPECT_EQ(told["reports"], pool.reports);
    EXPECT_EQ(told["strays"], pool.strays);
    EXPECT_EQ(told["rebuilds"], pool.rebuilds);
    EXPECT_EQ(told["epoll_refused"], pool.epoll_refused);
    EXPECT_EQ(told["sockets"], pool.sockets);
    EXPECT_EQ(told["sockets_without_place"], pool.without_place);
    EXPECT_EQ(told["places_left_read"], pool.left_read);
    EXPECT_EQ(told["timers_armed"], pool.timers_armed);
    EXPECT_EQ(5u, pool.wait.count);
    EXPECT_EQ(50u, pool.wait.sum_ns);
    EXPECT_EQ(9u, pool.wait.p99_ns);
    EXPECT_EQ(0u, pool.run.count);
}

TEST(LookAtProcess, ReadsTheProcessItself) {
    json all = whole_process();
    all["timing"] = true;
    all["stuck"] = 2;
    all["stuck_ever"] = 5;
    all["timer_lateness"] = Samples::spread(8, 800, 99);
    const Look look = Samples::read(all, 55);
    EXPECT_FALSE(look.is_relay);
    EXPECT_EQ(1u, look.version);
    EXPECT_EQ(17u, look.taken_us) << "its own clock, not ours";
    EXPECT_EQ(0, look.pid) << "nothing is told of it";
    all["pid"] = 4712;
    EXPECT_EQ(4712, Samples::read(all).pid);
    EXPECT_TRUE(look.timing);
    EXPECT_EQ(2u, look.handlers);
    EXPECT_EQ(1u, look.timers_armed);
    EXPECT_EQ(2u, look.stuck);
    EXPECT_EQ(5u, look.stuck_ever);
    EXPECT_EQ(8u, look.lateness.count);
    EXPECT_EQ(800u, look.lateness.sum_ns);
}

TEST(LookAtProcess, ReadsWorkersAndTheHandlersThatTheyAreIn) {
    const Look look = Samples::read(whole_process());
    ASSERT_EQ(2u, look.workers.size());
    EXPECT_EQ(4711, look.workers[0].thread);
    EXPECT_EQ("-65536", look.workers[0].handler);
    EXPECT_EQ("handle_input", look.workers[0].call);
    EXPECT_EQ(12u, look.workers[0].calls);
    EXPECT_EQ("", look.workers[0].class_name);
    EXPECT_EQ("", look.workers[1].handler) << "0 is none";
}

TEST(LookAtProcess, TakesTheClassOfAWorkersHandlerWhereItIsTold) {
    json all = whole_process();
    all["workers"][0]["class"] = "Shop::Report";
    EXPECT_EQ("Shop::Report", Samples::read(all).workers[0].class_name);
}

TEST(LookAtProcess, ReadsClassesBuffersAndSenders) {
    const Look look = Samples::read(whole_process());
    ASSERT_EQ(1u, look.classes.size());
    EXPECT_EQ("Shop::Till", look.classes[0].name);
    EXPECT_EQ(6021u, look.classes[0].calls);
    EXPECT_EQ(1333u, look.classes[0].timed);
    EXPECT_EQ(5870000u, look.classes[0].time_ns);
    ASSERT_EQ(1u, look.buffers.size());
    EXPECT_EQ("1", look.buffers[0].buffer);
    EXPECT_EQ(3u, look.buffers[0].senders);
    EXPECT_EQ(9000u, look.buffers[0].put_bytes);
    ASSERT_EQ(1u, look.senders.size());
    EXPECT_EQ("-131072", look.senders[0].name);
    EXPECT_EQ("slow_reader", look.senders[0].verdict);
    EXPECT_EQ("reads 1.2 of 4.0 Mbit/s", look.senders[0].why);
    EXPECT_EQ(1500u, look.senders[0].lag_us);
    EXPECT_EQ(7u, look.senders[0].dropped) << "by all three causes";
    EXPECT_EQ(400u, look.senders[0].stream_rate);
    EXPECT_EQ(300u, look.senders[0].taken_rate);
}

TEST(LookAtProcess, ObjectsHaveTheFiguresThatTheyTell) {
    json all = whole_process();
    all["objects"] = {{{"kind", "file"}, {"id", "-65536"}, {"written_bytes", 10}, {"device_errors", 1}},
                      {{"kind", "tick"}, {"id", "-131072"}, {"period_us", "soon"}, {"ticks", 3}},
                      {{"written_bytes", -1}}};
    const Look look = Samples::read(all);
    ASSERT_EQ(3u, look.objects.size());
    EXPECT_EQ("file", look.objects[0].kind);
    EXPECT_EQ("-65536", look.objects[0].name);
    EXPECT_EQ(10u, look.objects[0].figure("written_bytes"));
    EXPECT_EQ(1u, look.objects[0].figure("device_errors"));
    EXPECT_EQ(0u, look.objects[0].figure("read_bytes")) << "which it does not tell";
    ASSERT_EQ(1u, look.objects[1].figures.size()) << "a word is not a figure";
    EXPECT_EQ(3u, look.objects[1].figure("ticks"));
    EXPECT_EQ("", look.objects[2].kind);
    EXPECT_EQ(0u, look.objects[2].figure("written_bytes")) << "nothing is less than nothing";
}

TEST(LookAtProcess, ABufferHasAllThatItHoldsWhereThatIsTold) {
    json all = whole_process();
    EXPECT_EQ(25u, Samples::read(all).buffers.at(0).frames);
    EXPECT_EQ(1000u, Samples::read(all).buffers.at(0).bytes);
    all["media_buffers"][0]["held_frames"] = 40;
    all["media_buffers"][0]["held_bytes"] = 2000;
    EXPECT_EQ(40u, Samples::read(all).buffers.at(0).frames);
    EXPECT_EQ(2000u, Samples::read(all).buffers.at(0).bytes);
}

TEST(LookAtProcess, ReadsMemoryWithEachKindOnce) {
    json all = Samples::process(5);
    all["memory"] =
        json::array({{{"kind", "free_records"}, {"piece_bytes", 112}, {"pieces", 3}, {"bytes", 336}},
                     {{"kind", "thread_blocks"}, {"piece_bytes", 8}, {"pieces", 2}, {"bytes", 16}},
                     {{"kind", "thread_blocks"}, {"piece_bytes", 64}, {"pieces", 1}, {"bytes", 64}},
                     "nonsense"});
    const Look look = Samples::read(all);
    ASSERT_EQ(2u, look.memory.size());
    EXPECT_EQ("free_records", look.memory[0].kind);
    EXPECT_EQ(3u, look.memory[0].pieces);
    EXPECT_EQ("thread_blocks", look.memory[1].kind);
    EXPECT_EQ(3u, look.memory[1].pieces);
    EXPECT_EQ(80u, look.memory[1].bytes);
    EXPECT_TRUE(Samples::read(Samples::process(5)).memory.empty());
}

TEST(LookAtProcess, ReadsTheAlarmsThatItTells) {
    json all = Samples::process(5);
    all["alarms"] = json::array({Samples::alarm("worker_stuck", true, 4, "calls run"), 7});
    all["alarms"][0]["pool"] = -1;
    all["alarms"][0]["times"] = 9;
    const Look look = Samples::read(all);
    ASSERT_EQ(1u, look.alarms.size());
    EXPECT_EQ("worker_stuck", look.alarms[0].kind);
    EXPECT_EQ(-1, look.alarms[0].pool);
    EXPECT_TRUE(look.alarms[0].lasts);
    EXPECT_EQ(4u, look.alarms[0].amount);
    EXPECT_EQ(9u, look.alarms[0].times);
    EXPECT_EQ(1u, look.alarms[0].since_us);
    EXPECT_EQ("calls run", look.alarms[0].text);
    EXPECT_TRUE(Samples::read(Samples::process(5)).alarms.empty());
}

TEST(LookAtProcess, ObjectsAreNotNeeded) {
    json all = whole_process();
    all.erase("objects");
    EXPECT_TRUE(Samples::read(all).objects.empty());
    all["objects"] = "many";
    EXPECT_TRUE(Samples::read(all).objects.empty());
    all["objects"] = {1, "two", nullptr};
    EXPECT_TRUE(Samples::read(all).objects.empty());
}

TEST(LookAtProcess, AProcessWithoutAPoolIsOneToo) {
    json all = Samples::process(5);
    all["pools"] = json::array();
    EXPECT_TRUE(Samples::read(all).pools.empty());
}

TEST(LookAtProcess, ReadsANewerVersionAsFarAsItIsKnown) {
    json all = whole_process();
    all["version"] = 7;
    all["pools"][0]["something_new"] = {{"deep", {1, 2, 3}}};
    all["more"] = "than that";
    const Look look = Samples::read(all);
    EXPECT_EQ(7u, look.version);
    EXPECT_EQ(1u, look.pools.size());
    EXPECT_EQ("Shop::Till", look.classes[0].name);
}

TEST(LookAtProcess, WhatIsMissingIsNothingOrUnknown) {
    const Look look = Samples::read(json::parse(R"({"version":1,"pools":[{}],"workers":[{}],"classes":[{}],
        "media_senders":[{}],"media_buffers":[{}]})"),
                                    99);
    EXPECT_EQ(99u, look.taken_us) << "ours, since it tells none";
    EXPECT_EQ(0u, look.pools.at(0).workers);
    EXPECT_EQ(UNKNOWN, look.pools.at(0).left_read) << "unknown is not full";
    EXPECT_EQ("", look.workers.at(0).handler);
    EXPECT_EQ("", look.classes.at(0).name);
    EXPECT_EQ(UNKNOWN, look.senders.at(0).stream_rate);
    EXPECT_EQ(UNKNOWN, look.buffers.at(0).senders);
}

TEST(LookAtProcess, FiguresOfTheWrongTypeAreNothing) {
    for (const json& odd :
         {json("12"), json(nullptr), json(true), json::array({1}), json::object(), json(-4), json(-0.5)}) {
        json all = whole_process();
        all["pools"][0]["workers"] = odd;
        all["pools"][0]["wait"] = odd;
        all["timer_lateness"] = odd;
        all["handlers"] = odd;
        const Look look = Samples::read(all);
        EXPECT_EQ(0u, look.pools.at(0).workers) << odd;
        EXPECT_EQ(0u, look.pools.at(0).wait.count) << odd;
        EXPECT_EQ(0u, look.lateness.count) << odd;
        EXPECT_EQ(0u, look.handlers) << odd;
    }
}

TEST(LookAtProcess, FiguresMayHaveAPointAndBeHuge) {
    json all = whole_process();
    all["handlers"] = 12.9;
    all["timers_armed"] = 1e300;
    all["stuck"] = UINT64_MAX;
    const Look look = Samples::read(all);
    EXPECT_EQ(12u, look.handlers);
    EXPECT_EQ(9000000000000000000u, look.timers_armed);
    EXPECT_EQ(UINT64_MAX, look.stuck);
}

TEST(LookAtProcess, NamesOfTheWrongTypeAreEmpty) {
    for (const json& odd : {json(nullptr), json(true), json(1.5), json::array({"a"}), json::object()}) {
        json all = whole_process();
        all["classes"][0]["class"] = odd;
        all["workers"][0]["handler"] = odd;
        all["media_senders"][0]["why"] = odd;
        const Look look = Samples::read(all);
        EXPECT_EQ("", look.classes.at(0).name) << odd;
        EXPECT_EQ("", look.workers.at(0).handler) << odd;
        EXPECT_EQ("", look.senders.at(0).why) << odd;
    }
}

TEST(LookAtProcess, ListsOfTheWrongTypeAreEmptyAndOddRowsAreLeftOut) {
    for (const json& odd : {json("rows"), json(nullptr), json(3), json::object({{"a", 1}})}) {
        json all = whole_process();
        all["classes"] = odd;
        all["media_senders"] = odd;
        const Look look = Samples::read(all);
        EXPECT_TRUE(look.classes.empty()) << odd;
        EXPECT_TRUE(look.senders.empty()) << odd;
    }
    json all = whole_process();
    all["classes"].push_back(5);
    all["classes"].push_back(nullptr);
    all["classes"].push_back(Samples::handlers("Last", 1));
    const Look look = Samples::read(all);
    ASSERT_EQ(2u, look.classes.size());
    EXPECT_EQ("Last", look.classes[1].name);
}

TEST(LookAtProcess, ManyRowsAreRead) {
    json all = whole_process();
    for (int i = 0; i < 5000; ++i) {
        all["media_senders"].push_back(Samples::sender(std::to_string(i), "keeps_up", "keeps up", 0));
    }
    EXPECT_EQ(5001u, Samples::read(all).senders.size());
}

TEST(LookAtRelay, ReadsClientsAsSenders) {
    const Look look = Samples::read(Samples::relay(), 42);
    EXPECT_TRUE(look.is_relay);
    EXPECT_EQ(42u, look.taken_us);
    ASSERT_EQ(1u, look.senders.size());
    const top::SenderRow& row = look.senders[0];
    EXPECT_EQ("127.0.0.1:4711", row.name);
    EXPECT_EQ("keeps_up", row.verdict);
    EXPECT_EQ(1200000u, row.lag_us);
    EXPECT_EQ(1500u, row.lag_bytes) << "what the kernel holds included";
    EXPECT_EQ(800000u, row.taken_rate) << "bits";
    EXPECT_EQ(7u, row.dropped);
    EXPECT_FALSE(row.has_left);
}

TEST(LookAtProcess, SendersThatHaveEndedComeAfterThoseThatAreThere) {
    json all = Samples::process(1);
    all["media_senders_ended"].push_back(Samples::sender("-9", "stalled", "stalled for 3.0 s", 3000000));
    all["media_senders"].push_back(Samples::sender("-1", "keeps_up", "keeps up", 0));
    const Look look = Samples::read(all);
    ASSERT_EQ(2u, look.senders.size());
    EXPECT_EQ("-1", look.senders[0].name);
    EXPECT_FALSE(look.senders[0].has_left);
    EXPECT_EQ("-9", look.senders[1].name);
    EXPECT_TRUE(look.senders[1].has_left);
    EXPECT_EQ("stalled for 3.0 s", look.senders[1].why);
}

TEST(LookAtRelay, ThoseThatHaveLeftComeAfterThose) {
    json all = Samples::relay();
    all["ended"].push_back(
        {{"number", 3}, {"address", "10.0.0.1:5"}, {"verdict", "stalled"}, {"why", "stalled for 3.0 s"}});
    const Look look = Samples::read(all);
    ASSERT_EQ(2u, look.senders.size());
    EXPECT_TRUE(look.senders[1].has_left);
    EXPECT_EQ("stalled for 3.0 s", look.senders[1].why);
}

TEST(LookAtRelay, ReadsItsInputItsTotalsAndItsBuffer) {
    json all = Samples::relay();
    all["totals"]["stalled"] = 2;
    all["totals"]["turned_away"] = 9;
    all["totals"]["refused"] = 4;
    all["input"]["ended"] = true;
    const Look look = Samples::read(all);
    EXPECT_EQ("/live.mjpg", look.relay.live);
    EXPECT_EQ(100u, look.relay.frames);
    EXPECT_EQ(2000000u, look.relay.bytes);
    EXPECT_EQ(1u, look.relay.clients);
    EXPECT_EQ(100u, look.relay.most_clients);
    EXPECT_EQ(2u, look.relay.hung_up);
    EXPECT_EQ(9u, look.relay.turned_away);
    EXPECT_EQ(4u, look.relay.refused);
    EXPECT_TRUE(look.relay.input_ended);
    ASSERT_EQ(1u, look.buffers.size());
    EXPECT_EQ(3u, look.buffers[0].frames);
    EXPECT_EQ(60000u, look.buffers[0].bytes);
    EXPECT_EQ(1u, look.buffers[0].senders);
    EXPECT_EQ(2000000u, look.buffers[0].put_bytes);
}

TEST(LookAtRelay, OddClientsAreRowsWithoutFigures) {
    json all = Samples::relay();
    all["clients"] = json::array({5, nullptr, json::object({{"lag_ms", "late"}})});
    all["buffer"] = 7;
    all["input"] = nullptr;
    all["ended"] = "nobody";
    const Look look = Samples::read(all);
    EXPECT_EQ(3u, look.senders.size());
    EXPECT_EQ(0u, look.senders[2].lag_us);
    EXPECT_TRUE(look.buffers.empty());
    EXPECT_EQ("", look.relay.live);
}

TEST(LookAtNonsense, IsRefusedWithAReason) {
    EXPECT_EQ("its answer is cut off, or not JSON", refusal(""));
    EXPECT_EQ("its answer is cut off, or not JSON", refusal("no memory\n"));
    EXPECT_EQ("its answer is cut off, or not JSON", refusal("\xff\xfe\x00\x01"));
    EXPECT_EQ("its answer is cut off, or not JSON", refusal("{\"version\":1,\"pools\":[]"));
    EXPECT_EQ("its answer is cut off, or not JSON", refusal("{\"version\":1,\"pools\":[]} and more"));
    EXPECT_EQ("its answer is cut off, or not JSON", refusal("{\"version\":1e999,\"pools\":[]}"));
    EXPECT_EQ("its answer is cut off, or not JSON",
              refusal("{\"a\":\"\xc0\xaf\",\"version\":1,\"pools\":[]}"));
    const std::string other = "its answer is JSON, but not the figures of a process or a relay";
    EXPECT_EQ(other, refusal("null"));
    EXPECT_EQ(other, refusal("5"));
    EXPECT_EQ(other, refusal("[]"));
    EXPECT_EQ(other, refusal("{}"));
    EXPECT_EQ(other, refusal("{\"version\":1}"));
    EXPECT_EQ(other, refusal("{\"pools\":[]}"));
    EXPECT_EQ(other, refusal("{\"version\":0,\"pools\":[]}"));
    EXPECT_EQ(other, refusal("{\"version\":\"1\",\"pools\":[]}"));
    EXPECT_EQ(other, refusal("{\"version\":-1,\"pools\":[]}"));
    EXPECT_EQ(other, refusal("{\"version\":1,\"pools\":{}}"));
    EXPECT_EQ(other, refusal("{\"clients\":[]}"));
    EXPECT_EQ(other, refusal("{\"clients\":{},\"totals\":{}}"));
}

TEST(LookAtNonsense, LeavesWhatWasThere) {
    Look look = Samples::read(whole_process());
    std::string wrong;
    EXPECT_FALSE(look.read("{", 0, wrong));
    EXPECT_EQ(1u, look.pools.size());
    EXPECT_EQ("Shop::Till", look.classes.at(0).name);
}

TEST(LookAtNonsense, DeepNestingIsRefusedBeforeItIsTakenApart) {
    const std::string deep(200000, '[');
    EXPECT_EQ("its answer is nested too deeply", refusal(deep));
    EXPECT_EQ("its answer is nested too deeply", refusal("{\"version\":1,\"pools\":[],\"x\":" + deep));
    // In a string they are letters, also after one that is escaped.
    EXPECT_EQ("read", refusal("{\"version\":1,\"pools\":[],\"x\":\"\\\"" + deep + "\"}"));
    EXPECT_EQ("its answer is cut off, or not JSON", refusal("\"\\"));
    EXPECT_EQ("its answer is cut off, or not JSON", refusal(std::string(200000, ']')));
    const auto nested = [](size_t depth) {
        return "{\"version\":1,\"pools\":[],\"x\":" + std::string(depth, '[') + std::string(depth, ']') + "}";
    };
    EXPECT_EQ("read", refusal(nested(Look::MOST_DEPTH - 1)));
    EXPECT_EQ("its answer is nested too deeply", refusal(nested(Look::MOST_DEPTH)));
}

TEST(LookAtNonsense, AnAnswerThatIsCutOffAnywhereIsRefused) {
    const std::string text = whole_process().dump();
    for (size_t length = 0; length < text.size(); length += 3) {
        ASSERT_EQ("its answer is cut off, or not JSON", refusal(text.substr(0, length))) << length;
    }
}

/// Bytes that were turned over on the way, a thousand times from a printed seed.
TEST(LookAtNonsense, SurvivesBytesThatWereChanged) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const std::string process = whole_process().dump();
    const std::string relay = Samples::relay().dump();
    size_t readable = 0;
    for (int round = 0; round < 1000; ++round) {
        std::string text = round % 2 == 0 ? process : relay;
        for (int change = 0; change < 3; ++change) {
            const char letters[] = "0123456789-.e[]{}\",:x\\\x80";
            text[random() % text.size()] = letters[random() % (sizeof letters - 1)];
        }
        Look look;
        std::string wrong;
        const bool was_read = look.read(text, 0, wrong);
        EXPECT_NE(was_read, !wrong.empty());
        readable += was_read ? 1 : 0;
    }
    EXPECT_GT(readable, 0u) << "some of it was read";
}

TEST(LookAtHandlers, ReadsIdsAndClasses) {
    const auto found = readClassesOfHandlers(
        "age_s       pool id                 state     refs  socks timers class\n"
        "3.036       0    -6553600           open      3     1     0      Shop::Till\n"
        "            taken 2, given back 0: Shop::Desk::Open(int, long) const, shop+0x1a2f\n"
        "            held by the library for itself: 1\n"
        "3.036       1    -6619136           closing   1     0     0      std::pair<int, long>\n");
    ASSERT_EQ(2u, found.size());
    EXPECT_EQ("-6553600", found[0].first);
    EXPECT_EQ("Shop::Till", found[0].second);
    EXPECT_EQ("-6619136", found[1].first);
    EXPECT_EQ("std::pair<int, long>", found[1].second) << "a class may have blanks in its name";
}

TEST(LookAtHandlers, OddLinesAreLeftOut) {
    EXPECT_TRUE(readClassesOfHandlers("").empty());
    EXPECT_TRUE(readClassesOfHandlers("titles only").empty());
    EXPECT_TRUE(readClassesOfHandlers("titles\n\n1 2 3\n1 0 -5 open 1 0 0\n\xff\xff\n").empty());
}

}  // namespace
