// SenderNotices: who is told, and what an attachment can hold.
#include "Tool/step/SenderNotices.h"

#include <tuple>
#include <vector>

#include "support/media/MediaFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

class SenderNoticesOfASender : public MediaFixture {
protected:
    // What the waiter is told of a skip.
    MediaSkip told(uint64_t frames, uint64_t bytes, bool thinned) {
        notices.tell_skip(frames, bytes, thinned);
        const std::vector<SentMessage> found = messages();
        EXPECT_EQ(1U, found.size());
        EXPECT_EQ(waiter->GetID(), std::get<0>(found.at(0)));
        EXPECT_EQ(77U, std::get<1>(found.at(0)));
        return MediaSkip::of(std::get<2>(found.at(0)));
    }

    SenderNotices notices{*client().sender};
};

TEST_F(SenderNoticesOfASender, AFailureIsToldOncePerWish) {
    EXPECT_EQ(0, notices.take_failure_waiter());
    notices.wait_failure(7);
    EXPECT_EQ(7, notices.take_failure_waiter());
    EXPECT_EQ(0, notices.take_failure_waiter());
}

TEST_F(SenderNoticesOfASender, NobodyIsToldOfASkipWithoutAWish) {
    notices.tell_skip(1, 1, false);
    notices.wait_skip(waiter->GetID(), 77);
    notices.wait_skip(0, 77);
    notices.tell_skip(1, 1, false);
    EXPECT_TRUE(messages().empty());
}

TEST_F(SenderNoticesOfASender, AttachmentsHoldUpTo23BitsOfFramesAnd40OfBytes) {
    constexpr uint64_t FRAMES = (1ULL << 23) - 1;
    constexpr uint64_t BYTES = (1ULL << 40) - 1;
    notices.wait_skip(waiter->GetID(), 77);
    for (const bool thinned : {false, true}) {
        const MediaSkip most = told(FRAMES, BYTES, thinned);
        EXPECT_EQ(FRAMES, most.frames);
        EXPECT_EQ(BYTES, most.bytes);
        EXPECT_EQ(thinned, most.thinned);
        const MediaSkip beyond = told(FRAMES + 1, BYTES + 1, thinned);
        EXPECT_EQ(FRAMES, beyond.frames);
        EXPECT_EQ(BYTES, beyond.bytes);
        EXPECT_EQ(thinned, beyond.thinned);
    }
    const MediaSkip few = told(2, 50, false);
    EXPECT_EQ(2U, few.frames);
    EXPECT_EQ(50U, few.bytes);
}

}  // namespace Orvex::Testing
