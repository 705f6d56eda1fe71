// write_chrome_trace: what is drawn of which events.
#include "trace/ChromeTrace.h"

#include <gtest/gtest.h>

#include <clocale>
#include <string>

#include "Trace/MadeDump.h"
#include "Trace/TraceReader.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

constexpr uint32_t FIRST_THREAD = 77;
constexpr uint32_t OTHER_THREAD = 78;
constexpr uint64_t TILL_ROW = uint64_t{5} << TRACE_ROW_SHIFT;
constexpr int MESSAGE_CALL = 7;
constexpr int CLOSE_CALL = 8;
constexpr int INPUT_CALL = 1;
constexpr int OUTPUT_CALL = 2;

class Drawing : public ::testing::Test {
protected:
    Drawing() { made.addClass(5, "N4Shop4TillE"); }

    static TraceEvent at(uint64_t ns, int what, uint64_t object = 0) {
        return MadeDump::event(ns, what, object);
    }
    TraceReader draw() {
        std::string why;
        const auto dump = trace::read_dump(made.bytes(), why);
        EXPECT_TRUE(dump) << why;
        TraceReader reader = drawn(*dump);
        reader.expectInOrder();
        return reader;
    }

    MadeDump made;
};

TEST_F(Drawing, ACallIsASliceWithClassAndOperation) {
    made.addThread(FIRST_THREAD, {at(1000, TRACE_ENTER + MESSAGE_CALL, TILL_ROW | 0x10),
                                  at(3500, TRACE_LEAVE + MESSAGE_CALL, 0x10)});
    const TraceReader picture = draw();
    const auto slices = picture.slices("Shop::Till handle_message");
    ASSERT_EQ(1u, slices.size());
    EXPECT_EQ(1000, slices[0].from_ns);
    EXPECT_EQ(3500, slices[0].to_ns);
    EXPECT_EQ(std::to_string(static_cast<int64_t>(0xFF00000000000010)), slices[0].args.at("handler"));
    EXPECT_EQ("pool 3: worker", picture.threads.at(FIRST_THREAD));
    EXPECT_EQ("reticor 4711", picture.process);
}

TEST_F(Drawing, ACloseInsideACallLiesInside) {
    made.addThread(FIRST_THREAD,
                   {at(10, TRACE_ENTER + MESSAGE_CALL, TILL_ROW | 1), at(20, TRACE_ENTER + CLOSE_CALL, 2),
                    at(30, TRACE_LEAVE + CLOSE_CALL, 2), at(40, TRACE_LEAVE + MESSAGE_CALL, 1)});
    const TraceReader picture = draw();
    EXPECT_EQ(1u, picture.slices("Shop::Till handle_message").size());
    EXPECT_EQ(1u, picture.slices("a handler handle_close").size());
}

TEST_F(Drawing, ACallThatStillRunsReachesToTheDump) {
    made.addThread(FIRST_THREAD, {at(10, TRACE_ENTER + MESSAGE_CALL, TILL_ROW | 1)});
    const auto slices = draw().slices("Shop::Till");
    ASSERT_EQ(1u, slices.size());
    EXPECT_EQ(100000, slices[0].to_ns);
    EXPECT_EQ(false, slices[0].args.at("ended"));
}

TEST_F(Drawing, ACallWhoseBeginningWasOverwrittenBeginsWithTheThread) {
    made.addThread(FIRST_THREAD, {at(10, TRACE_ENTER + CLOSE_CALL, 2), at(20, TRACE_LEAVE + CLOSE_CALL, 2),
                                  at(40, TRACE_LEAVE + MESSAGE_CALL, 1)});
    const auto slices = draw().slices("handle_message");
    ASSERT_EQ(1u, slices.size());
    EXPECT_EQ(10, slices[0].from_ns);
    EXPECT_EQ("earlier", slices[0].args.at("begun"));
}

TEST_F(Drawing, ALostEndEndsWithTheCallAround) {
    made.addThread(FIRST_THREAD,
                   {at(10, TRACE_ENTER + MESSAGE_CALL, 1), at(20, TRACE_ENTER + CLOSE_CALL, 2),
                    at(40, TRACE_LEAVE + MESSAGE_CALL, 1), at(50, TRACE_LEAVE + CLOSE_CALL, 9)});
    const TraceReader picture = draw();
    EXPECT_EQ(40, picture.slices("handle_close").at(0).to_ns);
    EXPECT_EQ(40, picture.slices("handle_message").at(0).to_ns);
}

TEST_F(Drawing, AnArrowGoesFromThePushToTheCall) {
    const uint64_t record = 0xABC0 | uint64_t{101} << TRACE_ADDRESS_SHIFT;
    made.addThread(FIRST_THREAD, {at(10, TRACE_ENTER + INPUT_CALL, 1), at(15, TRACE_PUSH + 1, record),
                                  at(20, TRACE_LEAVE + INPUT_CALL, 1)});
    made.addThread(OTHER_THREAD,
                   {at(100, TRACE_POP + 1, record), at(110, TRACE_ENTER + MESSAGE_CALL, TILL_ROW | 2),
                    at(120, TRACE_LEAVE + MESSAGE_CALL, 2)});
    const TraceReader picture = draw();
    ASSERT_EQ(1u, picture.arrows.size());
    const DrawnArrow& arrow = picture.arrows.begin()->second;
    EXPECT_EQ(int64_t{FIRST_THREAD}, arrow.from_thread);
    EXPECT_EQ(int64_t{OTHER_THREAD}, arrow.to_thread);
    EXPECT_EQ(15, arrow.from_ns);
    EXPECT_EQ(110, arrow.to_ns);
    ASSERT_EQ(1u, picture.spansNamed("wait of message 101"));
    EXPECT_EQ(15, picture.spans.begin()->second.from_ns);
    EXPECT_EQ(100, picture.spans.begin()->second.to_ns);
    EXPECT_TRUE(picture.slices("push").empty()) << "the call holds the arrow";
}

TEST_F(Drawing, APushOutsideOfCallsHasASliceThatHoldsTheArrow) {
    made.addThread(FIRST_THREAD, {at(15, TRACE_PUSH, 0xABC0)});
    made.addThread(OTHER_THREAD, {at(100, TRACE_POP, 0xABC0), at(110, TRACE_ENTER + INPUT_CALL, 2),
                                  at(120, TRACE_LEAVE + INPUT_CALL, 2), at(130, TRACE_ENTER + OUTPUT_CALL, 2),
                                  at(140, TRACE_LEAVE + OUTPUT_CALL, 2)});
    const TraceReader picture = draw();
    EXPECT_EQ(1u, picture.slices("push socket 0").size());
    EXPECT_EQ(1u, picture.arrowsNamed("queue")) << "to the first call alone";
}

// The record of the one is used again for another one, while a pop was lost.
TEST_F(Drawing, ARecordIsPairedWithItsLastPush) {
    made.addThread(FIRST_THREAD, {at(10, TRACE_PUSH + 1, 0xABC0), at(50, TRACE_PUSH + 1, 0xABC0)});
    made.addThread(OTHER_THREAD, {at(100, TRACE_POP + 1, 0xABC0), at(110, TRACE_ENTER + MESSAGE_CALL, 2),
                                  at(120, TRACE_LEAVE + MESSAGE_CALL, 2), at(200, TRACE_POP + 1, 0xABC0)});
    const TraceReader picture = draw();
    ASSERT_EQ(1u, picture.arrows.size());
    EXPECT_EQ(50, picture.arrows.begin()->second.from_ns);
    EXPECT_EQ(1u, picture.spans.size()) << "one pop was not pushed";
}

TEST_F(Drawing, ATakenRecordWithoutACallHasNoArrow) {
    made.addThread(FIRST_THREAD, {at(10, TRACE_PUSH + 1, 0xABC0), at(20, TRACE_POP + 1, 0xABC0),
                                  at(30, TRACE_POP + 3, 0xDEF0), at(40, TRACE_ENTER + MESSAGE_CALL, 2),
                                  at(50, TRACE_LEAVE + MESSAGE_CALL, 2)});
    EXPECT_TRUE(draw().arrows.empty());
}

TEST_F(Drawing, ATimersRecordDoesNotLeadToAMessage) {
    made.addThread(FIRST_THREAD,
                   {at(10, TRACE_PUSH + 3, 0xABC0), at(20, TRACE_POP + 3, 0xABC0),
                    at(40, TRACE_ENTER + MESSAGE_CALL, 2), at(50, TRACE_LEAVE + MESSAGE_CALL, 2)});
    EXPECT_TRUE(draw().arrows.empty());
}

TEST_F(Drawing, AnArrowGoesFromAFrameToEachClient) {
    const auto sent = [](uint64_t sender, uint64_t frame) {
        return (sender & TRACE_SHORT_MASK) | frame << TRACE_SHORT_SHIFT;
    };
    made.addThread(FIRST_THREAD, {at(10, TRACE_FRAME_PUT, 5 | uint64_t{3} << TRACE_ADDRESS_SHIFT),
                                  at(20, TRACE_FRAME_SENT, sent(0xFFFFFF0100, 5))});
    made.addThread(OTHER_THREAD, {at(30, TRACE_FRAME_SENT, sent(0xFFFFFF0200, 5)),
                                  at(40, TRACE_FRAME_SENT, sent(0xFFFFFF0300, 6)),
                                  at(50, TRACE_FRAME_SENT, sent(0xFFFFFF0300, 0))});
    const TraceReader picture = draw();
    EXPECT_EQ(2u, picture.arrowsNamed("frame")) << "of frame 6 nobody knows, and 0 is none";
    EXPECT_EQ(4u, picture.slices("frame sent").size());
    EXPECT_EQ(std::to_string(-65280), picture.slices("frame sent").at(0).args.at("sender"));
    ASSERT_EQ(1u, picture.slices("key frame put").size());
    EXPECT_EQ(1, picture.slices("key frame put")[0].args.at("channel"));
}

TEST_F(Drawing, ABlockedSenderIsASpan) {
    made.addThread(FIRST_THREAD, {at(10, TRACE_BLOCKED, 0x10), at(500, TRACE_FREE, 0x10),
                                  at(600, TRACE_FREE, 0x10), at(700, TRACE_BLOCKED, 0x11)});
    const TraceReader picture = draw();
    ASSERT_EQ(2u, picture.spansNamed("blocked"));
    for (const auto& [id, span] : picture.spans) {
        EXPECT_EQ(span.from_ns == 10 ? 500 : 100000, span.to_ns);
    }
}

TEST_F(Drawing, ASenderThatWasBlockedWhileTheDumpWasWrittenIsBlockedForNoTime) {
    made.addThread(FIRST_THREAD, {at(100700, TRACE_BLOCKED, 2)});  // the dump began at 100000
    const TraceReader picture = draw();
    ASSERT_EQ(1u, picture.spansNamed("blocked"));
    EXPECT_EQ(100700, picture.spans.begin()->second.from_ns);
    EXPECT_EQ(100700, picture.spans.begin()->second.to_ns);
}

TEST_F(Drawing, FileTasksAreSlices) {
    made.addThread(FIRST_THREAD, {at(10, TRACE_TASK_BEGIN, 0x10), at(50, TRACE_TASK_END, 0x10),
                                  at(60, TRACE_TASK_BEGIN, 0x10 | uint64_t{1} << TRACE_ADDRESS_SHIFT),
                                  at(70, TRACE_TASK_END, 0x10 | uint64_t{1} << TRACE_ADDRESS_SHIFT)});
    const TraceReader picture = draw();
    EXPECT_EQ(40, picture.slices("file: write").at(0).to_ns - picture.slices("file: write").at(0).from_ns);
    EXPECT_EQ(1u, picture.slices("file: read").size());
}

TEST_F(Drawing, TheRestAreInstants) {
    made.addThread(
        FIRST_THREAD,
        {at(10, TRACE_READY, uint64_t{1} << 32 | 7),
         at(20, TRACE_DUE,
            (static_cast<uint64_t>(-6553600) & TRACE_SHORT_MASK) | uint64_t{42} << TRACE_SHORT_SHIFT),
         at(30, TRACE_FRAME_DROPPED, uint64_t{2} << TRACE_SHORT_SHIFT), at(40, 0xFE, 1)});
    const TraceReader picture = draw();
    ASSERT_EQ(3u, picture.instants.size()) << "what nobody knows is passed over";
    EXPECT_EQ("socket 7 ready", picture.instants[0].at("name"));
    EXPECT_EQ("timer due", picture.instants[1].at("name"));
    EXPECT_EQ(42, picture.instants[1].at("args").at("late_us"));
    EXPECT_EQ("-6553600", picture.instants[1].at("args").at("timer"));
    EXPECT_EQ("frame dropped: no key frame", picture.instants[2].at("name"));
}

TEST_F(Drawing, NamesCannotBreakOutOfTheText) {
    made.addClass(6, "x\",\"y\\\n\x01\xff{}");
    made.addThread(FIRST_THREAD, {at(10, TRACE_ENTER + MESSAGE_CALL, uint64_t{6} << TRACE_ROW_SHIFT),
                                  at(20, TRACE_LEAVE + MESSAGE_CALL, 0)});
    EXPECT_EQ(1u, draw().slices("x\",\"y\\???{} handle_message").size());
}

TEST(DrawnNothing, IsATraceWithoutEvents) {
    const TraceReader picture = drawn(trace::Dump());
    EXPECT_TRUE(picture.threads.empty());
    EXPECT_EQ("reticor 0", picture.process);
}

}  // namespace
}  // namespace Orvex::Testing
