// ChannelBook beside all frames that it was told of: everything it says can be counted there.
#include "Tool/frame/ChannelBook.h"

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

#include <Reticor/MediaPacket.h>

#include "support/SeededRandom.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

class ChannelBookModel : public ::testing::Test {
protected:
    struct Known {
        int channel;
        bool key;
        bool disposable;
        uint64_t ordinal;
        uint64_t complete_us;
    };

    void enter(SeededRandom& random) {
        // Three channels of different habits: pictures, sound, and one that changes.
        const int channel = random.between(0, 2);
        const bool key = channel == 1 || (channel == 0 ? random.oneIn(8) : random.oneIn(2));
        const int level = random.between(2, 10);
        now_us += random.between<uint64_t>(1, 40000);
        CFrame& frame = frames.emplace_back();
        frame.m_level = mediaLevel(channel, key ? 1 : level);
        frame.m_key_mask = key ? frame.channel_bit() : uint8_t{0};
        frame.m_ordinal = ++ordinals[channel];
        frame.m_complete_us = now_us;
        book.enter(frame);
        const bool disposable = !key && disposable_level != 0 && level >= disposable_level;
        EXPECT_EQ(needed(channel), frame.m_needed_before);
        EXPECT_EQ(disposable, frame.m_disposable);
        known.push_back({channel, key, disposable, frame.m_ordinal, now_us});
    }

    uint64_t needed(int channel) const {
        uint64_t count = 0;
        for (const Known& one : known) {
            count += one.channel == channel && !one.disposable ? 1 : 0;
        }
        return count;
    }
    // The frames of a channel, the youngest first, by their places among all.
    std::vector<size_t> youngest_first(int channel) const {
        std::vector<size_t> found;
        for (size_t i = known.size(); i-- > 0;) {
            if (known[i].channel == channel) {
                found.push_back(i);
            }
        }
        return found;
    }
    uint64_t group_us(int channel) const {
        std::vector<uint64_t> keys_us;
        for (const size_t i : youngest_first(channel)) {
            if (known[i].key) {
                keys_us.push_back(known[i].complete_us);
            }
        }
        return keys_us.size() < 2 ? 0 : keys_us[0] - keys_us[1];
    }
    bool all_keys(int channel) const {
        const std::vector<size_t> own = youngest_first(channel);
        return own.size() >= 2 && known[own[0]].key && known[own[1]].key;
    }
    bool predicts(int channel) const {
        const std::vector<size_t> own = youngest_first(channel);
        return !own.empty() && known.size() - (own[0] + 1) < ChannelBook::RECENT_FRAMES && !all_keys(channel);
    }
    void expect_same(SeededRandom& random) {
        const auto mask = static_cast<uint8_t>(random.between(0, 255));
        for (int channel = 0; channel < ChannelBook::CHANNELS; ++channel) {
            const bool wanted = (mask & 1U << channel) != 0;
            ASSERT_EQ(group_us(channel), book.group_us(channel)) << channel;
            ASSERT_EQ(wanted && predicts(channel), (book.predicting(mask) & 1U << channel) != 0) << channel;
            bool other_predicts = false;
            for (int other = 0; other < ChannelBook::CHANNELS; ++other) {
                other_predicts =
                    other_predicts || (other != channel && (mask & 1U << other) != 0 && predicts(other));
            }
            ASSERT_EQ(all_keys(channel) && other_predicts, book.follows(channel, mask)) << channel;
        }
        const size_t any = random.between<size_t>(0, frames.size() - 1);
        bool newer_key = false;
        for (const Known& one : known) {
            newer_key = newer_key || (one.channel == frames[any].channel() && one.key &&
                                      one.ordinal > frames[any].m_ordinal);
        }
        ASSERT_EQ(newer_key, book.has_newer_key(frames[any]));
    }

    ChannelBook book;
    std::deque<CFrame> frames;
    std::vector<Known> known;
    uint64_t ordinals[8] = {};
    uint64_t now_us = 1000000;
    int disposable_level = 0;
};

TEST_F(ChannelBookModel, SaysWhatCanBeCountedAmongAllFrames) {
    SeededRandom random;
    for (int step = 0; step < 600 && !HasFatalFailure(); ++step) {
        if (random.oneIn(50)) {
            disposable_level = random.between(0, 11);
            book.set_disposable_level(disposable_level);
            EXPECT_EQ(disposable_level, book.disposable_level());
        }
        if (random.oneIn(200)) {
            book.forget();
            frames.clear();
            known.clear();
            std::fill(std::begin(ordinals), std::end(ordinals), 0);
        }
        enter(random);
        expect_same(random);
    }
}

TEST_F(ChannelBookModel, RolesChangeWhenOthersFollowOrPredictAndOnlyThen) {
    SeededRandom random;
    unsigned roles = book.roles();
    std::string said;
    for (int step = 0; step < 300; ++step) {
        enter(random);
        std::string now;
        for (int channel = 0; channel < 3; ++channel) {
            now += all_keys(channel) ? "k" : predicts(channel) ? "p" : "-";
        }
        ASSERT_EQ(now != said, book.roles() != roles) << said << " " << now;
        roles = book.roles();
        said = now;
    }
}

}  // namespace
}  // namespace Orvex::Testing
