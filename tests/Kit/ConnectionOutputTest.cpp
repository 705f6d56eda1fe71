// ConnectionOutput: what is sent, kept and refused, and what its owner is told.
#include "Kit/ConnectionOutput.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <Infra/Time.h>

#include "support/socket/Allocations.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor::Kit;
using namespace std::chrono_literals;
using Infra::CTime;
using Written = ConnectionOutput::Written;
using Flushed = ConnectionOutput::Flushed;

class ConnectionOutputToAPeer : public ::testing::Test {
protected:
    ConnectionOutputToAPeer() {
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
        options.max_output = 800;
    }
    ~ConnectionOutputToAPeer() override {
        hang_up();
        ::close(ends[0]);
    }

    void hang_up() {
        if (ends[1] >= 0) {
            ::close(std::exchange(ends[1], -1));
        }
    }
    /// The system takes nothing from now on.
    void fill() {
        const std::string block(4096, 'f');
        ssize_t taken = 0;
        while ((taken = ::send(ends[0], block.data(), block.size(), MSG_DONTWAIT)) > 0) {
            filled += static_cast<size_t>(taken);
        }
    }
    /// What the peer has been sent after what filled the socket.
    std::string received() {
        std::string all;
        char bytes[65536];
        ssize_t got = 0;
        while ((got = ::recv(ends[1], bytes, sizeof bytes, MSG_DONTWAIT)) > 0) {
            all.append(bytes, static_cast<size_t>(got));
        }
        has_ended = got == 0;
        const size_t of_filling = std::min(filled, all.size());
        filled -= of_filling;
        return all.substr(of_filling);
    }
    Written write(ConnectionOutput& output, const std::vector<std::string_view>& pieces) {
        size_t total = 0;
        for (const std::string_view piece : pieces) {
            total += piece.size();
        }
        return output.write(pieces.data(), pieces.size(), total);
    }

    /// A time of the clock after all that were before.
    static uint64_t next_microsecond() {
        const uint64_t now = CTime::getCurrentMicroSecond();
        uint64_t next = now;
        while (next == now) {
            next = CTime::getCurrentMicroSecond();
        }
        return next;
    }

    int ends[2] = {-1, -1};
    size_t filled = 0;
    bool has_ended = false;
    ConnectionOptions options;
};

TEST_F(ConnectionOutputToAPeer, WhatTheSystemTakesDoesNotWait) {
    ConnectionOutput output(options);
    output.open(ends[0]);
    EXPECT_EQ(Written::SENT, output.write("one "));
    EXPECT_EQ(Written::SENT, write(output, {"two ", "three"}));
    EXPECT_EQ(0U, output.waiting());
    EXPECT_EQ("one two three", received());
}

TEST_F(ConnectionOutputToAPeer, WhatItDoesNotTakeWaitsInItsOrder) {
    ConnectionOutput output(options);
    output.open(ends[0]);
    fill();
    EXPECT_EQ(Written::BEGINS, output.write("one "));
    EXPECT_EQ(Written::WAITS, write(output, {"two ", "three "}));
    EXPECT_EQ("", received());
    EXPECT_EQ(Written::WAITS, output.write("four")) << "there is room, and others come first";
    EXPECT_EQ(18U, output.waiting());
    EXPECT_EQ("", received());

    EXPECT_EQ(Flushed::ALL, output.flush());
    EXPECT_EQ(0U, output.waiting());
    output.go_on();
    EXPECT_EQ(Written::SENT, output.write(" five"));
    EXPECT_EQ("one two three four five", received());
    EXPECT_FALSE(has_ended);
}

TEST_F(ConnectionOutputToAPeer, PiecesBeyondThoseOfOneCallWait) {
    ConnectionOutput output(options);
    output.open(ends[0]);
    const std::vector<std::string_view> pieces(70, "ab");
    EXPECT_EQ(Written::BEGINS, write(output, pieces));
    EXPECT_EQ(12U, output.waiting());
    EXPECT_EQ(Flushed::ALL, output.flush());
    std::string all;
    for (const std::string_view piece : pieces) {
        all += piece;
    }
    EXPECT_EQ(all, received());
}

TEST_F(ConnectionOutputToAPeer, WhatDoesNotFitIsRefusedByThePolicy) {
    for (const auto& expected : {std::pair(OutputPolicy::PAUSE_READING, Written::REFUSED),
                                 std::pair(OutputPolicy::DROP, Written::DROPPED),
                                 std::pair(OutputPolicy::CLOSE, Written::OVERFLOWED)}) {
        options.policy = expected.first;
        ConnectionOutput output(options);
        output.open(ends[0]);
        fill();
        const std::string bytes(801, 'b');
        EXPECT_EQ(expected.second, output.write(bytes)) << "more than ever fits";
        EXPECT_EQ(0U, output.waiting());
        EXPECT_EQ(Written::BEGINS, output.write(std::string_view(bytes).substr(0, 700)));
        EXPECT_EQ(expected.second, output.write(std::string_view(bytes).substr(0, 101)));
        EXPECT_EQ(700U, output.waiting());
        EXPECT_EQ(Written::WAITS, output.write(std::string_view(bytes).substr(0, 100)));
        EXPECT_EQ(expected.second, output.write("b"));
    }
}

TEST_F(ConnectionOutputToAPeer, PeerIsReadUntilAQuarterWaitsAndAgainFromAnEighth) {
    ConnectionOutput output(options);
    output.open(ends[0]);
    fill();
    const std::string bytes(200, 'b');
    EXPECT_EQ(Written::BEGINS, output.write(bytes));
    EXPECT_FALSE(output.is_crowded());
    EXPECT_EQ(Flushed::WAITS, output.flush());
    EXPECT_EQ(Written::WAITS, output.write("b"));
    EXPECT_TRUE(output.is_crowded());

    options.max_output = 8 * 201;
    EXPECT_EQ(Flushed::EASED, output.flush());
    options.max_output = 8 * 201 - 1;
    EXPECT_EQ(Flushed::WAITS, output.flush());
}

TEST_F(ConnectionOutputToAPeer, OtherPoliciesReadOn) {
    options.policy = OutputPolicy::DROP;
    ConnectionOutput output(options);
    output.open(ends[0]);
    fill();
    EXPECT_EQ(Written::BEGINS, output.write(std::string(800, 'b')));
    EXPECT_FALSE(output.is_crowded());
}

TEST_F(ConnectionOutputToAPeer, AgeCountsFromWhatWasTakenLast) {
    options.max_output_age = 1h;
    const int64_t hour = 3600000000;
    ConnectionOutput output(options);
    output.open(ends[0]);
    EXPECT_EQ(-1, output.age_left(CTime::getCurrentMicroSecond()));
    fill();
    const uint64_t before = CTime::getCurrentMicroSecond();
    output.write("b");
    const uint64_t after = next_microsecond();
    EXPECT_GE(output.age_left(before), hour);
    EXPECT_LE(output.age_left(after), hour);
    EXPECT_EQ(1, output.age_left(after) - output.age_left(after + 1));
    EXPECT_EQ(0, output.age_left(after + 3600000000));

    next_microsecond();
    output.write("c");
    EXPECT_EQ(Flushed::EASED, output.flush());
    EXPECT_LE(output.age_left(after), hour) << "nothing was taken";
}

TEST_F(ConnectionOutputToAPeer, LongOutputGoesInPartsAndIsAsOldAsItsLast) {
    options.max_output_age = 1h;
    options.max_output = 4 << 20;
    ConnectionOutput output(options);
    output.open(ends[0]);
    std::string bytes(2 << 20, ' ');
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<char>(i % 251);
    }
    EXPECT_EQ(Written::BEGINS, output.write(bytes));
    std::string all = received();
    int parts = 0;
    for (Flushed flushed = Flushed::WAITS; flushed != Flushed::ALL && parts < 1000; ++parts) {
        const uint64_t before = next_microsecond();
        flushed = output.flush();
        if (flushed != Flushed::ALL) {
            EXPECT_GE(output.age_left(before), 3600000000);
        }
        all += received();
    }
    EXPECT_GT(parts, 2);
    EXPECT_TRUE(bytes == all);
}

TEST_F(ConnectionOutputToAPeer, RoomOfALongOutputIsGivenBackAndThatOfAShortOneKept) {
    options.max_output = 1 << 20;
    ConnectionOutput output(options);
    output.open(ends[0]);
    const auto allocations_of = [&](size_t length) {
        const std::string bytes(length, 'b');
        fill();
        const size_t before = allocationCount();
        EXPECT_EQ(Written::BEGINS, output.write(bytes));
        const size_t allocated = allocationCount() - before;
        received();
        EXPECT_EQ(Flushed::ALL, output.flush());
        received();
        return allocated;
    };
    EXPECT_EQ(1U, allocations_of(1000));
    EXPECT_EQ(0U, allocations_of(1000));
    EXPECT_EQ(1U, allocations_of(100000));
    EXPECT_EQ(1U, allocations_of(1000));
}

TEST_F(ConnectionOutputToAPeer, TimeOfBytesThatMovedIsNotedForAnIdleTimeOut) {
    ConnectionOutput without(options);
    without.open(ends[0]);
    EXPECT_EQ(Written::SENT, write(without, {"b", "c"}));
    EXPECT_EQ(0U, without.moved_us());
    EXPECT_EQ("bc", received());

    options.idle_timeout = 1h;
    ConnectionOutput output(options);
    output.open(ends[0]);
    fill();
    EXPECT_EQ(Written::BEGINS, output.write("b"));
    EXPECT_EQ(0U, output.moved_us()) << "none has";
    received();
    const uint64_t before = CTime::getCurrentMicroSecond();
    EXPECT_EQ(Flushed::ALL, output.flush());
    const uint64_t flushed = output.moved_us();
    EXPECT_GE(flushed, before);
    output.go_on();
    const uint64_t later = CTime::getCurrentMicroSecond();
    EXPECT_EQ(Written::SENT, output.write("c"));
    EXPECT_GE(output.moved_us(), later);
}

TEST_F(ConnectionOutputToAPeer, OurDirectionEndsAfterAllThatWaits) {
    ConnectionOutput output(options);
    output.open(ends[0]);
    fill();
    EXPECT_EQ(Written::BEGINS, output.write("last"));
    EXPECT_TRUE(output.finish());
    EXPECT_FALSE(output.finish());
    EXPECT_EQ(Written::REFUSED, output.write("more"));
    EXPECT_EQ("", received());
    EXPECT_FALSE(has_ended);
    EXPECT_EQ(Flushed::ALL, output.flush());
    output.go_on();
    EXPECT_EQ("last", received());
    EXPECT_TRUE(has_ended);
    EXPECT_EQ(Written::REFUSED, output.write("more"));
}

TEST_F(ConnectionOutputToAPeer, OurDirectionEndsAtOnceIfNothingWaits) {
    ConnectionOutput output(options);
    output.open(ends[0]);
    EXPECT_TRUE(output.finish());
    EXPECT_EQ("", received());
    EXPECT_TRUE(has_ended);
}

TEST_F(ConnectionOutputToAPeer, OnceSealedItTakesNothingAndSendsTheRest) {
    ConnectionOutput output(options);
    output.open(ends[0]);
    fill();
    EXPECT_EQ(Written::BEGINS, output.write("rest"));
    output.seal();
    EXPECT_EQ(Written::REFUSED, output.write("more"));
    EXPECT_FALSE(output.finish());
    EXPECT_EQ("", received());
    EXPECT_EQ(Flushed::ALL, output.flush());
    EXPECT_EQ("rest", received());
    EXPECT_FALSE(has_ended);
}

TEST_F(ConnectionOutputToAPeer, SaysThatThePeerIsLost) {
    ConnectionOutput plain(options);
    plain.open(ends[0]);
    ConnectionOutput waits(options);
    waits.open(ends[0]);
    fill();
    EXPECT_EQ(Written::BEGINS, waits.write("b"));
    hang_up();
    EXPECT_EQ(Written::LOST, plain.write("b"));
    EXPECT_EQ(Written::LOST, write(plain, {"b", "c"}));
    EXPECT_EQ(Flushed::LOST, waits.flush());
    waits.clear();
    EXPECT_EQ(0U, waits.waiting());
    EXPECT_EQ(Flushed::ALL, waits.flush());
}

TEST_F(ConnectionOutputToAPeer, SaysThatThereIsNoMemory) {
    ConnectionOutput output(options);
    output.open(ends[0]);
    fill();
    const std::string bytes(700, 'b');
    const NoMemory none;
    EXPECT_EQ(Written::NO_MEMORY, output.write(bytes));
}

}  // namespace
}  // namespace Orvex::Testing
