// TapLine: what taps see, and what a walk over them survives.
#include "Tool/step/TapLine.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <tuple>
#include <vector>

namespace Orvex::Testing {

using namespace Reticor;

namespace {

// Of one call: the tap, the packet, length, mark and level word.
using Seen = std::tuple<char, const CMediaPacket*, int, int, int>;

struct Tap final : CLevel2Buffer_IF {
    Tap(char its_name, std::vector<Seen>& its_book) : name(its_name), book(its_book) {}
    int Put(CMediaPacket* packet, int len, int mark, int level) override {
        book.emplace_back(name, packet, len, mark, level);
        if (on_put) {
            on_put();
        }
        return result;
    }

    const char name;
    std::vector<Seen>& book;
    int result = 0;
    std::function<void()> on_put;
};

struct Packet final : CMediaPacket {
    int Release() override { return 0; }
    char* GetBuffer() override { return nullptr; }
};

class TapLineOfABuffer : public ::testing::Test {
protected:
    ~TapLineOfABuffer() override {
        const CoreGuard guard(core);
        line.clear();
    }
    TapLine::Added add(Tap& tap) {
        const CoreGuard guard(core);
        return line.add(tap);
    }
    void remove(const CLevel2Buffer_IF* tap) {
        const CoreGuard guard(core);
        line.remove(tap);
    }
    // The names of the taps that saw a packet, in their order.
    std::string show() {
        book.clear();
        const CoreGuard guard(core);
        line.show(&packet, 5, 1, 0x2000003);
        std::string names;
        for (const Seen& one : book) {
            names += std::get<0>(one);
        }
        return names;
    }

    MediaCore core;
    TapLine line;
    Packet packet;
    std::vector<Seen> book;
    Tap a{'a', book};
    Tap b{'b', book};
    Tap c{'c', book};
};

TEST_F(TapLineOfABuffer, EveryTapSeesThePacketAsItCameTheNewestFirst) {
    add(a);
    add(b);
    EXPECT_EQ("ba", show());
    EXPECT_EQ((std::vector<Seen>{{'b', &packet, 5, 1, 0x2000003}, {'a', &packet, 5, 1, 0x2000003}}), book);
    remove(&b);
    EXPECT_EQ("a", show());
}

TEST_F(TapLineOfABuffer, ATapWithANegativeResultLeavesAndMayComeElsewhere) {
    add(a);
    add(b);
    add(c);
    b.result = -1;
    EXPECT_EQ("cba", show()) << "the walk goes on";
    EXPECT_EQ("ca", show());
    TapLine other;
    const CoreGuard guard(core);
    EXPECT_TRUE(other.add(b).entered);
    other.clear();
}

TEST_F(TapLineOfABuffer, ATapIsOnOneListAtMost) {
    TapLine::Added added = add(a);
    EXPECT_TRUE(added.entered);
    EXPECT_FALSE(added.here_already);
    added = add(a);
    EXPECT_TRUE(added.entered);
    EXPECT_TRUE(added.here_already);
    EXPECT_EQ("a", show()) << "it is there once";
    const CoreGuard guard(core);
    TapLine other;
    EXPECT_FALSE(other.add(a).entered);
    EXPECT_EQ(nullptr, other.first());
    line.remove(&a);
    EXPECT_TRUE(other.add(a).entered);
    other.clear();
    EXPECT_TRUE(line.add(a).entered) << "a list that was cleared knows none";
}

TEST_F(TapLineOfABuffer, OneThatIsNotOnTheListIsIgnoredAndNotTouched) {
    add(a);
    remove(&b);
    // As of a tap that has gone: nothing is there.
    const auto* const address = reinterpret_cast<const CLevel2Buffer_IF*>(uintptr_t{4096});
    remove(address);
    EXPECT_EQ("a", show());
}

TEST_F(TapLineOfABuffer, AWalkGoesOnWhenTheTapAfterItHasGone) {
    auto next = std::make_unique<Tap>('n', book);
    add(a);
    add(*next);
    add(c);
    c.on_put = [&] {
        if (next) {
            remove(next.get());
            next.reset();
        }
    };
    EXPECT_EQ("ca", show());
}

TEST_F(TapLineOfABuffer, ATapMayTakeItselfOff) {
    add(a);
    add(b);
    b.on_put = [&] { remove(&b); };
    b.result = -1;
    EXPECT_EQ("ba", show());
    EXPECT_EQ("a", show());
}

TEST_F(TapLineOfABuffer, ATapThatComesInsideAWalkSeesTheNextPacket) {
    add(a);
    a.on_put = [&] { add(b); };
    EXPECT_EQ("a", show());
    EXPECT_EQ("ba", show());
}

}  // namespace
}  // namespace Orvex::Testing
