// FrameRest: copies of the packets that a sender has still to write.
#include "Tool/frame/FrameRest.h"

#include <memory>
#include <string>
#include <vector>

#include <Reticor/MediaPacket.h>

#include "support/media/MediaFixture.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

struct FrameRestOfAFrame : testing::Test {
    std::vector<int> released;
    TestPacket packets[3] = {{1, "ab", &released}, {2, "cde", &released}, {3, "f", &released}};
    CFrame frame;

    FrameRestOfAFrame() {
        for (TestPacket& packet : packets) {
            frame.Put(&packet, packet.length(), MEDIA_MARK_MORE, 3);
        }
    }
    static std::string bytes(const CFrame& rest) {
        std::string all;
        for (uint32_t i = 0; i < rest.m_packet_num; ++i) {
            all.append(static_cast<const char*>(rest.m_iovec[i].iov_base), rest.m_iovec[i].iov_len);
        }
        return all;
    }
};

TEST_F(FrameRestOfAFrame, HasThePacketsOfTheRangeAndOutlivesTheFrame) {
    const std::unique_ptr<CFrame> rest(FrameRest::copy(frame, 1, 3, false));
    ASSERT_NE(nullptr, rest);
    frame.Clear();
    EXPECT_EQ((std::vector<int>{1, 2, 3}), released);
    EXPECT_EQ(2U, rest->m_packet_num);
    EXPECT_EQ(4, rest->m_frame_len);
    EXPECT_EQ(3, rest->m_level);
    EXPECT_EQ("cdef", bytes(*rest));
    EXPECT_NE(packets[1].bytes().data(), rest->m_iovec[0].iov_base);
}

TEST_F(FrameRestOfAFrame, EndsWhereItIsTold) {
    const std::unique_ptr<CFrame> rest(FrameRest::copy(frame, 0, 1, false));
    EXPECT_EQ("ab", bytes(*rest));
}

TEST_F(FrameRestOfAFrame, BetweenTwoPacketsItBeginsWithAnEmptyOne) {
    const std::unique_ptr<CFrame> rest(FrameRest::copy(frame, 2, 3, true));
    EXPECT_EQ(2U, rest->m_packet_num);
    EXPECT_EQ(0U, rest->m_iovec[0].iov_len);
    EXPECT_EQ("f", bytes(*rest));
}

}  // namespace
}  // namespace Orvex::Testing
