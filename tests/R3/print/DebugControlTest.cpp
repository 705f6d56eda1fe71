// CDebugSocket::DebugControl: each type sets what it says, and nothing else.
#include "R3/print/DebugSocket.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

#include "support/LogCapture.h"
#include "support/SeededRandom.h"

namespace {

using Gate = Orvex::Reticor::CDebugSocket;
using Orvex::Testing::LogCapture;
using Orvex::Testing::SeededRandom;

// All that it may set, in the order of the types.
struct GateState {
    bool all = false;
    bool read = false;
    bool write = false;
    bool exception = false;
    bool by_socket = false;
    int64_t socket = -1;
    bool by_handler = false;
    int64_t handler = 0;
    bool off = true;
    bool dense = false;

    static GateState now() {
        return {Gate::socket_all, Gate::socket_read,   Gate::socket_write,      Gate::socket_exception,
                Gate::socket_fd,  Gate::socket_fd_num, Gate::socket_nethandler, Gate::socket_nethandler_num,
                Gate::socket_off, Gate::socket_dendity};
    }
    // As the table in the header says. False for a type that is not in it.
    bool control(int type, bool on, int64_t value) {
        const std::array<bool*, 4> classes = {&all, &read, &write, &exception};
        if (type >= 0 && type < 4) {
            *classes[static_cast<size_t>(type)] = on;
        } else if (type == 4) {
            by_socket = on;
            socket = value;
        } else if (type == 5) {
            by_handler = on;
            handler = value;
        } else if (type == 6) {
            off = on;
        } else if (type == 7) {
            all = read = write = exception = by_socket = by_handler = dense = on;
            socket = -1;
            handler = 0;
        } else if (type == 8) {
            dense = on;
        } else {
            return false;
        }
        return true;
    }
    bool matches(int64_t wanted_socket, int64_t wanted_handler) const {
        const bool any_class = all || read || write || exception;
        const bool filtered = by_socket || by_handler;
        return any_class && off && (!filtered || wanted_socket == socket || wanted_handler == handler);
    }
};

void expect_state(const GateState& expected) {
    const GateState now = GateState::now();
    EXPECT_EQ(expected.all, now.all);
    EXPECT_EQ(expected.read, now.read);
    EXPECT_EQ(expected.write, now.write);
    EXPECT_EQ(expected.exception, now.exception);
    EXPECT_EQ(expected.by_socket, now.by_socket);
    EXPECT_EQ(expected.socket, now.socket);
    EXPECT_EQ(expected.by_handler, now.by_handler);
    EXPECT_EQ(expected.handler, now.handler);
    EXPECT_EQ(expected.off, now.off);
    EXPECT_EQ(expected.dense, now.dense);
}

TEST(DebugControl, EachTypeSetsWhatTheTableSaysInAnyOrder) {
    SeededRandom random;
    const LogCapture log;
    GateState expected = GateState::now();
    size_t refused = 0;
    for (int step = 0; step < 3000 && !testing::Test::HasFailure(); ++step) {
        const int type = random.between(-2, 10);
        const bool on = random.oneIn(2);
        const auto value = random.between<int64_t>(-3, 3);
        const bool known = expected.control(type, on, value);
        ASSERT_EQ(known, Gate::DebugControl(type, on, value)) << type;
        refused += known ? 0 : 1;
        expect_state(expected);
        const auto socket = random.between<int64_t>(-3, 3);
        const auto handler = random.between<int64_t>(-3, 3);
        ASSERT_EQ(expected.matches(socket, handler), Gate::matches(socket, handler));
        ASSERT_EQ(expected.dense, Gate::passes_density());
    }
    EXPECT_EQ(refused, log.count(2, "Set DebugControl Failed.\n")) << "each one with a line";
    EXPECT_EQ(refused, log.lines().size());
}

TEST(DebugControl, ALineOfARefusalHasNoStart) {
    const LogCapture log;
    EXPECT_FALSE(Gate::DebugControl(9, true, 0));
    ASSERT_EQ(1U, log.lines().size());
    EXPECT_EQ("Set DebugControl Failed.\n", log.lines()[0].full);
    EXPECT_EQ("Src/R3/DebugSocket.cpp", log.lines()[0].file);
}

TEST(DebugControl, NumbersKeepAllTheirBits) {
    for (const int64_t number : {INT64_MIN, INT64_MAX, int64_t{-6553600}, int64_t{1} << 40}) {
        EXPECT_TRUE(Gate::DebugControl(4, true, number));
        EXPECT_TRUE(Gate::DebugControl(5, true, number));
        EXPECT_TRUE(Gate::DebugControl(0, true, 0));
        EXPECT_EQ(number, Gate::socket_fd_num);
        EXPECT_EQ(number, Gate::socket_nethandler_num);
        EXPECT_TRUE(Gate::matches(number, 1));
        EXPECT_TRUE(Gate::matches(1, number));
        EXPECT_FALSE(Gate::matches(number - (number > 0 ? 1 : -1), 1));
    }
    Gate::DebugControl(7, false, 0);
}

// Off again, the filters have their first numbers, with which nothing real is found.
TEST(DebugControl, AllOffForgetsTheNumbers) {
    Gate::DebugControl(4, true, 17);
    Gate::DebugControl(5, true, -6553600);
    Gate::DebugControl(7, false, 99);
    EXPECT_EQ(-1, Gate::socket_fd_num);
    EXPECT_EQ(0, Gate::socket_nethandler_num);
    Gate::DebugControl(7, true, 99);
    EXPECT_FALSE(Gate::matches(17, -6553600)) << "everything on is everything filtered";
    EXPECT_TRUE(Gate::matches(-1, 5));
    Gate::DebugControl(7, false, 0);
}

}  // namespace
