// MediaTrace: each of its lines to the letter, since operators search for them.
#include "Tool/frame/MediaTrace.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "Tool/frame/MediaFrame.h"
#include "support/debug/DaemonStandIn.h"
#include "support/media/MediaFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

using Texts = std::vector<std::string>;

class MediaTraceText : public ::testing::Test {
protected:
    ~MediaTraceText() override { MediaTrace::sm_print = 0; }

    static std::string address(const void* pointer) {
        char text[32];
        std::snprintf(text, sizeof(text), "%p", pointer);
        return text;
    }
    std::string only() {
        const Texts texts = daemon.texts();
        const size_t before = seen;
        seen = texts.size();
        return texts.size() == before + 1 ? texts.back() : "not one line";
    }

    DaemonStandIn daemon;
    size_t seen = 0;
    char objects[3] = {};
    const void* const a = &objects[0];
    const void* const b = &objects[1];
    const std::string at_a = address(a);
    const std::string at_b = address(b);
};

TEST_F(MediaTraceText, OfABufferAndItsWalk) {
    MediaTrace::do_send(a);
    EXPECT_EQ("Orvex::Reticor::CMediaBuffer::do_send, " + at_a + " do send!\n", only());
    MediaTrace::packet_taken(a, b, 7, 1, 0x02000005);
    EXPECT_EQ("Orvex::Reticor::CMediaBuffer::put, " + at_a + " put packet to buffer, packet :" + at_b +
                  ", len:7, mark:1, level:2000005!\n",
              only());
    MediaTrace::walk_begins(a, 18446744073709551615U, 3);
    EXPECT_EQ("Orvex::Reticor::CMediaBuffer::send_packet, " + at_a +
                  " mediabuffer send packet, should_discard:18446744073709551615, min_discard:3 \n",
              only());
    MediaTrace::walk_ends(a, 5, 6);
    EXPECT_EQ("Orvex::Reticor::CMediaBuffer::send_packet, " + at_a +
                  " mediabuffer send packet, should_discard:5, m_byte_discard:6 \n",
              only());
    MediaTrace::valid_frames(a, 12, 3);
    EXPECT_EQ("Orvex::Reticor::CMediaBuffer::check_valid_frames, check valid frames" + at_a +
                  " buffer 12 valid frames,invalid frames:3!\n",
              only());
}

TEST_F(MediaTraceText, OfItsSenders) {
    const std::string start = "Orvex::Reticor::CMediaBuffer::send_packet, " + at_a;
    MediaTrace::sender_begins(a, b, nullptr);
    EXPECT_EQ(start + " sender " + at_b + " send frame:(nil)!\n", only());
    MediaTrace::sender_ends(a, b, -5000000000LL);
    EXPECT_EQ(start + " sender " + at_b + " send total:-5000000000 Bytes!\n", only());
    MediaTrace::sender_failed(a, b);
    EXPECT_EQ(start + " delete sender " + at_b + " because socket exception\n", only());
    MediaTrace::turn_begins(a, b);
    EXPECT_EQ("Orvex::Reticor::CMediaStreamSender::Send, media strem sender " + at_a +
                  " send begin, frame:" + at_b + "!\n",
              only());
}

TEST_F(MediaTraceText, OfFramesThatGo) {
    MediaTrace::frame_passed(a, b, 123456789012);
    EXPECT_EQ("Orvex::Reticor::CMediaBuffer::send_packet, " + at_a +
                  " mediabuffer send packet, delete frame:" + at_b + ", byte:123456789012 \n",
              only());
    MediaTrace::frame_expired(a, b, 5, 7);
    EXPECT_EQ("Orvex::Reticor::CMediaBuffer::rebuild_frame_list, " + at_a +
                  " rebuild frame list, delete frame:" + at_b + ", byte:5, m_byte_discard:7 !\n",
              only());
}

// A frame tells of each packet, and of its growth with the packet that needed it.
TEST_F(MediaTraceText, OfAFrameThatTakesPackets) {
    std::vector<int> released;
    std::vector<TestPacket> packets;
    packets.reserve(33);
    for (int i = 0; i < 33; ++i) {
        packets.emplace_back(i, "xy", &released);
    }
    CFrame frame;
    for (int i = 0; i < 32; ++i) {
        frame.Put(&packets[static_cast<size_t>(i)], 2, MEDIA_MARK_MORE, 1);
    }
    EXPECT_TRUE(daemon.texts().empty()) << "it is off";
    MediaTrace::sm_print = 1;
    frame.Put(&packets[32], 2, MEDIA_MARK_LAST, 0x0100000A);
    EXPECT_EQ((Texts{"Orvex::Reticor::CFrame::Put, Frame:" + address(&frame) +
                         " put packet:" + address(&packets[32]) + ", len:2, mark:1, level:100000a!\n",
                     address(&frame) + " Frame had put 64 bytes data, 32 packets!\n"}),
              daemon.texts());
}

}  // namespace
}  // namespace Orvex::Testing
