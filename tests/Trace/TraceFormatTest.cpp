// The rules of the trace event format: that their check finds what breaks them, and that whatever a dump
// holds is drawn by them.
#include "Trace/TraceFormat.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Trace/MadeDump.h"
#include "Trace/TraceReader.h"
#include "support/SeededRandom.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

// The faults of a file with these events.
std::vector<std::string> faultsIn(const std::string& events) {
    return TraceFormat::faultsOf(nlohmann::json::parse("{\"traceEvents\":[" + events + "]}"));
}

// An event with what each one has, and `more`.
std::string eventOf(const std::string& phase, const std::string& ts, const std::string& more = "") {
    return R"({"ph":")" + phase + R"(","pid":1,"tid":2,"name":"n","ts":)" + ts + more + "}";
}

const std::string ID = R"(,"cat":"c","id":"7")";

TEST(TraceFormat, WhatKeepsTheRulesHasNoFaults) {
    const std::string good =
        eventOf("X", "1", R"(,"dur":0,"args":{})") + "," + eventOf("B", "1") + "," + eventOf("B", "1.5") +
        "," + eventOf("E", "2") + "," + eventOf("E", "2") + "," + eventOf("b", "3", ID) + "," +
        eventOf("e", "3", ID) + "," + eventOf("b", "4", ID) + "," + eventOf("e", "5", ID) + "," +
        eventOf("s", "1", ID) + "," + eventOf("f", "1", ID + R"(,"bp":"e")") + "," +
        eventOf("i", "9", R"(,"s":"p")") +
        R"(,{"ph":"M","pid":1,"tid":2,"ts":0,"name":"thread_name","args":{"name":"worker"}})";
    EXPECT_EQ(std::vector<std::string>{}, faultsIn(good));
    EXPECT_EQ(std::vector<std::string>{}, faultsIn(""));
}

TEST(TraceFormat, EachBrokenRuleIsAFault) {
    const std::vector<std::string> broken{
        R"("text")",
        R"({"pid":1,"tid":2,"name":"n","ts":1})",
        eventOf("XX", "1", R"(,"dur":1)"),
        eventOf("Q", "1"),
        R"({"ph":"i","pid":1,"tid":2,"ts":1})",
        R"({"ph":"i","pid":"1","tid":2,"name":"n","ts":1})",
        R"({"ph":"i","pid":1,"tid":2.5,"name":"n","ts":1})",
        R"({"ph":"i","pid":1,"tid":2,"name":"n"})",
        eventOf("i", "-1"),
        eventOf("i", R"("1")"),
        eventOf("i", "1", R"(,"s":"x")"),
        eventOf("i", "1", R"(,"cat":4)"),
        eventOf("i", "1", R"(,"args":[])"),
        eventOf("X", "1"),
        eventOf("X", "1", R"(,"dur":-1)"),
        eventOf("B", "1"),
        eventOf("E", "1"),
        eventOf("B", "2") + "," + eventOf("E", "1"),
        eventOf("b", "1", ID),
        eventOf("e", "1", ID),
        eventOf("b", "1") + "," + eventOf("e", "2"),
        eventOf("b", "2", ID) + "," + eventOf("e", "1", ID),
        eventOf("b", "1", ID) + "," + eventOf("b", "1", ID) + "," + eventOf("e", "2", ID),
        eventOf("s", "1", ID),
        eventOf("f", "1", ID),
        eventOf("s", "2", ID) + "," + eventOf("f", "1", ID),
        eventOf("s", "1", ID) + "," + eventOf("f", "1", ID + R"(,"bp":"b")"),
        eventOf("s", "1", ID + R"(,"bp":"e")") + "," + eventOf("f", "1", ID),
        eventOf("s", "1", ID) + "," + eventOf("f", "1", R"(,"cat":"other","id":"7")"),
        eventOf("s", "1", ID) + "," + eventOf("f", "1", ID) + "," + eventOf("s", "2", ID) + "," +
            eventOf("f", "2", ID),
        eventOf("M", "0"),
        R"({"ph":"M","pid":1,"tid":2,"ts":0,"name":"thread_name","args":{}})",
    };
    for (const std::string& events : broken) {
        EXPECT_NE(0u, faultsIn(events).size()) << events;
    }
    for (const char* const whole :
         {"[]", "{}", R"({"traceEvents":4})", R"({"traceEvents":[],"displayTimeUnit":"us"})"}) {
        EXPECT_EQ(1u, TraceFormat::faultsOf(nlohmann::json::parse(whole)).size()) << whole;
    }
}

// The kinds that a dump has, and some that it does not have. Few objects, so that ends meet their beginnings.
TraceEvent anyEvent(SeededRandom& random, uint64_t ns) {
    const int what = random.oneIn(8) ? random.between(0, 255) : random.between(0, 0x3F);
    uint64_t object = random.between(uint64_t{1}, uint64_t{6});
    if (random.oneIn(2)) {
        object |= random.between(uint64_t{0}, uint64_t{3}) << TRACE_ADDRESS_SHIFT;
    }
    if (random.oneIn(3)) {
        object |= random.between(uint64_t{0}, uint64_t{7}) << TRACE_SHORT_SHIFT;
    }
    return MadeDump::event(ns, what, random.oneIn(20) ? random.engine()() : object);
}

TEST(TraceFormat, WhateverEventsADumpHoldsAreDrawnByTheRules) {
    SeededRandom random;
    for (int round = 0; round < 200 && !::testing::Test::HasFailure(); ++round) {
        MadeDump made;
        made.addClass(5, "N4Shop4TillE");
        for (uint32_t thread = 70; thread < 74; ++thread) {
            std::vector<TraceEvent> events;
            // Some are later than the dump's beginning: threads go on while it is written.
            uint64_t ns = random.between(uint64_t{0}, uint64_t{120000});
            for (int i = random.between(1, static_cast<int>(MadeDump::PLACES)); i > 0; --i) {
                ns += random.between(uint64_t{2}, uint64_t{4000});
                events.push_back(anyEvent(random, ns));
            }
            made.addThread(thread, events);
        }
        std::string why;
        const auto dump = trace::read_dump(made.bytes(), why);
        ASSERT_TRUE(dump) << why;
        drawn(*dump).expectInOrder();
    }
}

}  // namespace
}  // namespace Orvex::Testing
