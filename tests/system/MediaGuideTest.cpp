// The samples of docs/media.md, compiled as they are printed, and run.
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/Eventually.h"

#include "media.inc"  // made of the page

namespace {

class MediaGuide : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, CreateThreadPool(2, 0));
        ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, m_ends));
        m_peer.Attach(m_ends[0]);
    }
    void TearDown() override {
        ::close(m_ends[1]);
        EXPECT_EQ(0, DestroyThreadPool());
    }
    std::string read(std::size_t length) {
        std::string bytes(length, '\0');
        EXPECT_EQ(::recv(m_ends[1], bytes.data(), length, MSG_WAITALL), static_cast<ssize_t>(length));
        return bytes;
    }

    int m_ends[2] = {-1, -1};
    CSockStream m_peer;
    Orvex::Infra::CSemaphore m_gone{0};
};

TEST_F(MediaGuide, AViewerGetsAccessUnitsAndEndsOnRequest) {
    CMediaBuffer buffer;
    boundKernelShare(m_peer, 4000000);
    Viewer* const viewer = Viewer::Create(buffer, m_peer, m_gone);
    putAccessUnit(buffer, "head", "picture", levelOfPicture(true));
    putAccessUnit(buffer, "HEAD", "sound", levelOfSound());
    putAccessUnit(buffer, "head", "next", levelOfPicture(false));
    EXPECT_EQ("headpictureHEADsoundheadnext", read(28));
    EXPECT_EQ(3U, viewer->stats().frames);
    viewer->end();
    m_gone.pend();
}

TEST(MediaGuideLadder, GoesDownWhenItIsLateAndUpAfterAWhile) {
    Ladder ladder;
    MediaOffer small;
    small.channel = 2;
    small.key = true;
    MediaOffer large;
    const auto showsSmall = [&](uint64_t age_us) {
        small.age_us = age_us;
        const bool sends = ladder.choose(small) == MediaVerdict::SEND;
        EXPECT_EQ(sends ? MediaVerdict::WAIT_KEY : MediaVerdict::SEND, ladder.choose(large));
        return sends;
    };
    EXPECT_FALSE(showsSmall(0));
    EXPECT_FALSE(showsSmall(400000));
    EXPECT_TRUE(showsSmall(600000));
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(showsSmall(1000));
    }
    EXPECT_FALSE(showsSmall(1000));
    ladder.skipped();
    EXPECT_TRUE(showsSmall(1000));
}

TEST_F(MediaGuide, DatagramsCarryTheHeaderOfRtp) {
    CSockDgram receiver;
    const CSockAddrIPv4 any("127.0.0.1", 0);
    ASSERT_EQ(0, receiver.Open(&any));
    CSockAddrStorage to;
    ASSERT_EQ(0, receiver.GetLocalAddr(&to));
    CSockDgram sock;
    ASSERT_EQ(0, sock.Open(nullptr));
    CMediaBuffer buffer;
    RtpHeader header(0x01020304);
    CMediaStreamSender* const sender = sendTo(buffer, sock, to, header);
    ASSERT_NE(nullptr, sender);
    putAccessUnit(buffer, "head", std::string(2000, 'p'), levelOfPicture(true));
    for (int i = 0; i < 2; ++i) {
        std::string bytes(2000, '\0');
        const int length = receiver.Recv(bytes.data(), 2000, nullptr);
        ASSERT_EQ(i == 0 ? 1212 : 816, length);
        EXPECT_EQ(std::string({'\x80', static_cast<char>(i == 0 ? 0x60 : 0xE0), '\0', static_cast<char>(i)}),
                  bytes.substr(0, 4));
        EXPECT_EQ(std::string({1, 2, 3, 4}), bytes.substr(8, 4));
        EXPECT_EQ(i == 0 ? "headp" : "ppppp", bytes.substr(12, 5));
    }
    buffer.DelSender(sender);
    sender->Close();
}

TEST_F(MediaGuide, AViewerThatGoesAwayIsNoticed) {
    CMediaBuffer buffer;
    Viewer::Create(buffer, m_peer, m_gone);
    putAccessUnit(buffer, "head", "picture", levelOfPicture(true));
    ::shutdown(m_ends[1], SHUT_RDWR);
    putAccessUnit(buffer, "head", "picture", levelOfPicture(true));
    m_gone.pend();
    EXPECT_EQ(0U, buffer.GetStats().senders);
}

TEST_F(MediaGuide, AReaderWithAFullSocketGetsTheRestWhenItHasRoom) {
    CMediaBuffer buffer;
    m_peer.SetSockSendBuf(4096);
    auto* const reader = new Reader(buffer, m_peer, m_gone);
    ASSERT_TRUE(reader->start());
    const std::string big(300000, 'b');
    putAccessUnit(buffer, "head", big, levelOfPicture(true));
    EXPECT_EQ("head" + big, read(4 + big.size()));
    saveCalls(buffer);
    putBurst(buffer, {"one", "two"});
    EXPECT_EQ("unitoneunittwo", read(14));
    reader->end();
    m_gone.pend();
}

TEST_F(MediaGuide, AClientOfALaneGetsTheStreamAndEndsOnRequest) {
    CMediaLanes lanes;
    ASSERT_EQ(0, lanes.Create(2, 1));
    LaneReader* const reader = LaneReader::Create(lanes, m_peer, m_gone);
    ASSERT_NE(nullptr, reader);
    const std::string big(300000, 'b');
    auto* const packet = new CountedPacket(big);
    ASSERT_EQ(0, lanes.Put(packet, static_cast<int>(big.size()), MEDIA_MARK_LAST, levelOfPicture(true)));
    EXPECT_EQ(big, read(big.size()));
    reader->end();
    m_gone.pend();
    EXPECT_EQ(0, lanes.Destroy());
}

TEST_F(MediaGuide, ARecorderKeepsWhatTheBufferLetsGo) {
    CMediaBuffer buffer;
    Recorder recorder;
    buffer.AddLevel2Buffer(&recorder);
    putAccessUnit(buffer, "head", "picture", levelOfPicture(true));
    EXPECT_EQ(1, recorder.frames());
    EXPECT_EQ(0U, buffer.GetBufferSize());
    buffer.DelLevel2Buffer(&recorder);
}

}  // namespace
