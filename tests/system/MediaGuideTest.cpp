// The samples of docs/media.md, compiled as they are printed, and run.
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/Eventually.h"

#include "media.inc"  // made of the page

namespace {

class MediaGuideTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(CreateThreadPool(2, 0), 0);
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, m_ends), 0);
        m_peer.Attach(m_ends[0]);
    }
    void TearDown() override {
        ::close(m_ends[1]);
        EXPECT_EQ(DestroyThreadPool(), 0);
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

TEST_F(MediaGuideTest, AViewerGetsAccessUnitsAndEndsOnRequest) {
    CMediaBuffer buffer;
    boundKernelShare(m_peer, 4000000);
    Viewer* const viewer = Viewer::Create(buffer, m_peer, m_gone);
    putAccessUnit(buffer, "head", "picture", levelOfPicture(true));
    putAccessUnit(buffer, "HEAD", "sound", levelOfSound());
    putAccessUnit(buffer, "head", "next", levelOfPicture(false));
    EXPECT_EQ(read(28), "headpictureHEADsoundheadnext");
    EXPECT_EQ(viewer->stats().frames, 3U);
    viewer->end();
    m_gone.pend();
}

TEST_F(MediaGuideTest, AViewerThatGoesAwayIsNoticed) {
    CMediaBuffer buffer;
    Viewer::Create(buffer, m_peer, m_gone);
    putAccessUnit(buffer, "head", "picture", levelOfPicture(true));
    ::shutdown(m_ends[1], SHUT_RDWR);
    putAccessUnit(buffer, "head", "picture", levelOfPicture(true));
    m_gone.pend();
    EXPECT_EQ(buffer.GetStats().senders, 0U);
}

TEST_F(MediaGuideTest, ARecorderKeepsWhatTheBufferLetsGo) {
    CMediaBuffer buffer;
    Recorder recorder;
    buffer.AddLevel2Buffer(&recorder);
    putAccessUnit(buffer, "head", "picture", levelOfPicture(true));
    EXPECT_EQ(recorder.frames(), 1);
    EXPECT_EQ(buffer.GetBufferSize(), 0U);
    buffer.DelLevel2Buffer(&recorder);
}

}  // namespace
