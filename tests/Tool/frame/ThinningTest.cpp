// Thinning: episodes of frames left out, and their sums.
#include "Tool/frame/Thinning.h"

#include <gtest/gtest.h>

namespace Orvex::Testing {

using namespace Reticor;

TEST(ThinningOfASender, AnEpisodeIsOverAfterAQuietSecondAndToldOnce) {
    Thinning thinning;
    EXPECT_EQ(0U, thinning.take_over(5000000, 0).frames);
    thinning.leave_out(10, 5000000);
    thinning.leave_out(20, 5900000);
    EXPECT_EQ(0U, thinning.take_over(6899999, 0).frames);
    const Thinning::Sum over = thinning.take_over(6900000, 0);
    EXPECT_EQ(2U, over.frames);
    EXPECT_EQ(30U, over.bytes);
    EXPECT_EQ(0U, thinning.take_over(9000000, 0).frames);
    thinning.leave_out(5, 9000000);
    EXPECT_EQ(2U, thinning.episodes());
    EXPECT_EQ(3U, thinning.all().frames);
    EXPECT_EQ(35U, thinning.all().bytes);
}

TEST(ThinningOfASender, ALongerLimitIsALongerQuiet) {
    Thinning thinning;
    thinning.leave_out(10, 1000000);
    EXPECT_EQ(0U, thinning.take_over(2500000, 2000000).frames);
    EXPECT_EQ(1U, thinning.take_over(3000000, 2000000).frames);
}

}  // namespace Orvex::Testing
