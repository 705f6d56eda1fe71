// Ladder: which of two qualities a client of media_relay gets.
#include <gtest/gtest.h>

#include <string>

#include "media_relay/Ladder.h"

namespace {

using Orvex::Reticor::MediaOffer;
using Orvex::Reticor::MediaVerdict;
using relay::Ladder;

class RelayLadder : public ::testing::Test {
protected:
    bool sends(unsigned channel, unsigned age_ms, bool key) {
        MediaOffer offer;
        offer.channel = static_cast<int>(channel);
        offer.key = key;
        offer.age_us = uint64_t{age_ms} * 1000;
        return ladder.choose(offer) == MediaVerdict::SEND;
    }
    // A picture that is asked about `age_ms` late. What is sent of it: 'h', 'l', both or nothing.
    std::string sent(unsigned age_ms, bool key = true) {
        std::string found = sends(Ladder::kLowChannel, age_ms, key) ? "l" : "";
        return found + (sends(Ladder::kHighChannel, age_ms, key) ? "h" : "");
    }
    // How many prompt pictures come low before the first high one.
    int lowOnes() {
        int count = 0;
        while (sent(0) == "l" && count < 1000) {
            ++count;
        }
        return count;
    }

    Ladder ladder{400};
};

TEST_F(RelayLadder, BeginsHighAndStaysThereUpToTheLimit) {
    EXPECT_EQ("h", sent(0));
    EXPECT_EQ("h", sent(400));
    EXPECT_FALSE(ladder.isLow());
}

TEST_F(RelayLadder, GoesDownAtAKeyFrameThatIsLate) {
    EXPECT_EQ("h", sent(401, false)) << "not in the middle of a group";
    EXPECT_EQ("l", sent(401));
    EXPECT_TRUE(ladder.isLow());
}

// So it is with one that is not at the newest picture.
TEST_F(RelayLadder, GoesDownAtALateKeyFrameAlsoIfTheLowOneIsNotAskedAbout) {
    EXPECT_EQ("h", sent(0));
    EXPECT_TRUE(sends(Ladder::kHighChannel, 400, true));
    EXPECT_TRUE(sends(Ladder::kHighChannel, 401, false));
    EXPECT_FALSE(sends(Ladder::kHighChannel, 401, true));
    EXPECT_EQ("l", sent(0));
}

TEST_F(RelayLadder, DecidesOnceForBothQualitiesOfAPicture) {
    EXPECT_FALSE(sends(Ladder::kLowChannel, 400, true));
    EXPECT_TRUE(sends(Ladder::kHighChannel, 401, true)) << "or neither would be there";
    EXPECT_EQ("l", sent(401));
}

TEST_F(RelayLadder, GoesDownAfterMissedPictures) {
    ladder.missed();
    EXPECT_EQ("l", sent(0));
}

TEST_F(RelayLadder, GoesUpWhenItHasKeptUpForAWhileAndNotBefore) {
    EXPECT_EQ("l", sent(401));
    EXPECT_EQ(49, lowOnes());
    EXPECT_FALSE(ladder.isLow());
    EXPECT_EQ("l", sent(401));
    for (int i = 0; i < 48; ++i) {
        EXPECT_EQ("l", sent(0));
    }
    EXPECT_EQ("l", sent(100)) << "a quarter of that late: it begins to count anew";
    EXPECT_EQ(49, lowOnes());
}

// Where a key frame comes every two seconds fifty would be too many.
TEST_F(RelayLadder, GoesUpAfterAsManyKeyFramesAsItWasTold) {
    Ladder few(400, 3);
    MediaOffer offer;
    offer.channel = static_cast<int>(Ladder::kLowChannel);
    offer.key = true;
    offer.age_us = 401000;
    EXPECT_EQ(MediaVerdict::SEND, few.choose(offer));
    offer.age_us = 0;
    EXPECT_EQ(MediaVerdict::SEND, few.choose(offer));
    EXPECT_EQ(MediaVerdict::SEND, few.choose(offer));
    EXPECT_EQ(MediaVerdict::WAIT_KEY, few.choose(offer));
}

}  // namespace
