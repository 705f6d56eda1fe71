// CMediaStreamSender: one client's way through the frames.
#include <Reticor/MediaStreamSender.h>

#include <Reticor/SimulatorStream.h>
#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockDgram.h>
#include <Reticor/SslStream.h>

#include "support/HandClock.h"
#include "support/media/MediaFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

using MediaStreamSender = MediaFixture;

// Keeps what a send procedure is told.
struct Finished {
    void note(CMediaPacket* packet, int arg, int len) {
        calls.emplace_back(packet, arg, len);
        if (on_call) {
            on_call();
        }
    }
    Infra::TFunction3<void, CMediaPacket*, int, int> proc() { return {&Finished::note, this}; }

    std::vector<std::tuple<CMediaPacket*, int, int>> calls;
    std::function<void()> on_call;
};

TEST_F(MediaStreamSender, BeginsWithAllChannelsAndNoTimeout) {
    SenderRecord& made = client().state();
    EXPECT_EQ(0U, made.m_send_total);
    EXPECT_EQ(255, made.m_channel_mask);
    EXPECT_EQ(0, made.m_lost_mask);
    EXPECT_EQ(0xFFFFFFFFU, made.m_send_timeout);
    EXPECT_EQ(0, made.m_notices.take_failure_waiter());
}

TEST_F(MediaStreamSender, AttachAndDetachPassTheSocketOn) {
    MediaClient& a = client();
    EXPECT_EQ(a.sender->Detach(), &a.sock);
    EXPECT_EQ(nullptr, a.sender->Detach());
    EXPECT_EQ(0, a.sender->Attach(&a.sock));
    EXPECT_EQ(a.sender->Detach(), &a.sock);
}

TEST_F(MediaStreamSender, TheFirstChannelNarrowsFurtherOnesWiden) {
    MediaClient& a = client();
    a.sender->SetSendChannel(2);
    EXPECT_EQ(a.state().m_channel_mask, 1 << 2);
    a.sender->SetSendChannel(5);
    EXPECT_EQ(a.state().m_channel_mask, 1 << 2 | 1 << 5);
    a.sender->SetSendChannel(-1);
    EXPECT_EQ(255, a.state().m_channel_mask);
    EXPECT_DEATH(a.sender->SetSendChannel(8), "channel <= 7");
    for (int channel = 0; channel < 8; ++channel) {
        a.sender->SetSendChannel(channel);
    }
    EXPECT_EQ(255, a.state().m_channel_mask);
    a.sender->SetSendChannel(3);
    EXPECT_EQ(a.state().m_channel_mask, 1 << 3) << "all eight are all, and the next one narrows again";
}

TEST_F(MediaStreamSender, DisablingAChannelThatIsOffChangesNothing) {
    MediaClient& a = client();
    a.sender->SetSendChannel(2);
    a.sender->DisableSendChannel(3);
    EXPECT_EQ(a.state().m_channel_mask, 1 << 2);
    a.sender->DisableSendChannel(2);
    EXPECT_EQ(0, a.state().m_channel_mask);
    EXPECT_DEATH(a.sender->DisableSendChannel(8), "channel <= 7 && channel >= 0");
    EXPECT_DEATH(a.sender->DisableSendChannel(-1), "channel <= 7 && channel >= 0");
}

TEST_F(MediaStreamSender, AFrameOfAnotherChannelIsSteppedOver) {
    MediaClient& a = joinedClient();
    a.sender->DisableSendChannel(3);
    const uint64_t before = a.state().m_send_total;
    put(40, 1, 5, 3);
    EXPECT_EQ("", a.sock.wire());
    EXPECT_TRUE(a.sock.calls().empty());
    EXPECT_EQ(a.state().m_send_total, before + 40);
    EXPECT_EQ(1U, frames()) << "it holds nothing back";
    a.sock.setRoom(0);
    const CFrame* wanted = current();
    put(10);
    const CFrame* other = current();
    put(40, 1, 5, 3);
    EXPECT_EQ(1, wanted->m_sender_count);
    EXPECT_EQ(0, other->m_sender_count);
}

TEST_F(MediaStreamSender, JoinsAtAnyKeyFrameWhateverItsChannels) {
    joinedClient();
    MediaClient& b = client();
    b.sender->SetSendChannel(2);
    buffer->AddSender(b.sender);
    const CFrame* joined_at = current();
    clients[0]->sock.setRoom(0);
    put(10, 1, 1, 0);
    EXPECT_EQ(20U, b.state().m_send_total);
    EXPECT_EQ(2, joined_at->m_sender_count) << "b's count stays on a frame that it never wanted";
    put(10, 1, 1, 2);
    b.sock.clearWire();
    const std::string bytes = put(10, 1, 9, 2);
    EXPECT_EQ(b.sock.wire(), bytes);
}

TEST_F(MediaStreamSender, AtPositionZeroEveryTickInAGapJoinsAgain) {
    buffer->AddSender(client().sender);
    tick(5);
    EXPECT_EQ(5, current()->m_sender_count);
    const std::string bytes = put(10, 1, 8);
    EXPECT_EQ(clients[0]->sock.wire(), bytes);
    EXPECT_EQ(1U, frames());
}

TEST_F(MediaStreamSender, APartialWriteAtTheEndOfAnEntryStaysInTheMiddleOfTheFrame) {
    MediaClient& a = joinedClient();
    a.sock.setRoom(6);
    const std::string bytes = putFrame({6, 0, 5});
    EXPECT_EQ(2, a.state().m_iovec_index) << "entries without bytes are passed along";
    EXPECT_EQ(0, a.state().m_iovec_offset);
    EXPECT_EQ(5U, a.state().m_frame_left);
    a.sender->SendOtherData("other", 5);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ(a.sock.wire(), bytes + "other") << "the frame ends before other data begins";
}

TEST_F(MediaStreamSender, APartialWriteLeavesTheListAsItWasForTheOthers) {
    MediaClient& a = joinedClient();
    MediaClient& b = client();
    buffer->AddSender(b.sender);
    put(10);
    b.sock.clearWire();
    a.sock.clearWire();
    a.sock.setRoom(4);
    b.sock.setRoom(9);
    const CFrame* frame = current();
    const std::string bytes = putFrame({3, 3, 3, 3});
    EXPECT_EQ(1, a.state().m_iovec_index);
    EXPECT_EQ(1, a.state().m_iovec_offset);
    a.sock.setRoom(1);
    tick();
    EXPECT_EQ(2, a.state().m_iovec_offset);
    for (uint32_t i = 0; i < 4; ++i) {
        EXPECT_EQ(3U, frame->m_iovec[i].iov_len);
        EXPECT_EQ(std::string(static_cast<char*>(frame->m_iovec[i].iov_base), 3), bytes.substr(i * 3, 3));
    }
    EXPECT_EQ(14, frame->m_sent_len);
    EXPECT_EQ(2, frame->m_sender_count);
    for (int i = 0; i < 12; ++i) {
        a.sock.setRoom(1);
        b.sock.setRoom(1);
        tick();
    }
    EXPECT_EQ(a.sock.wire(), bytes);
    EXPECT_EQ(b.sock.wire(), bytes);
}

TEST_F(MediaStreamSender, AFrameWithoutAByteIsNeverSent) {
    MediaClient& a = joinedClient();
    put(0);
    tick();
    const std::string bytes = put(5);
    EXPECT_EQ(a.sock.wire(), bytes);
    EXPECT_EQ(1U, a.sock.calls().size());
}

TEST_F(MediaStreamSender, OtherDataGoesBetweenTwoFrames) {
    MediaClient& a = joinedClient();
    a.sock.setRoom(4);
    const std::string first = put(10);
    const std::string second = put(10);
    a.sender->SendOtherData("one", 3);
    a.sender->SendOtherData("two", 3);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ(a.sock.wire(), first + "onetwo" + second);
}

TEST_F(MediaStreamSender, OtherDataThatBlocksHoldsAllFramesBackAndLosesThoseOffered) {
    MediaClient& a = joinedClient();
    a.sock.setRoom(2);
    a.sender->SendOtherData("other", 5);
    for (int i = 0; i < 3; ++i) {
        put(10, 1, 5);
    }
    EXPECT_EQ("ot", a.sock.wire());
    EXPECT_EQ(4U, frames());
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ("other", a.sock.wire()) << "a sender that had caught up does not go back for them";
    const std::string bytes = put(10, 1, 5);
    EXPECT_EQ(a.sock.wire(), "other" + bytes);
    EXPECT_EQ(3U, a.sender->GetStats().hole_frames);
    EXPECT_EQ(30U, a.sender->GetStats().hole_bytes);
    tick(100);
    EXPECT_EQ(1U, frames()) << "the buffer lets them go by their age";
}

TEST_F(MediaStreamSender, OtherDataBeyondItsAreaIsDroppedWhole) {
    MediaClient& a = client();
    const std::string most(4096, 'm');
    a.sender->SendOtherData(most.data(), 4000);
    a.sender->SendOtherData(most.data(), 97);
    EXPECT_EQ(4000, a.state().m_other_len);
    a.sender->SendOtherData(most.data(), 96);
    EXPECT_EQ(4096, a.state().m_other_len);
    a.sender->SendOtherData(most.data(), 1);
    a.sender->SendOtherData(most.data(), 0);
    a.sender->SendOtherData(most.data(), -1);
    a.sender->SendOtherData(most.data(), INT32_MIN);
    a.sender->SendOtherData(most.data(), INT32_MAX);
    EXPECT_EQ(4096, a.state().m_other_len);
}

TEST_F(MediaStreamSender, OtherDataThatFailsIsReportedOnce) {
    MediaClient& a = joinedClient();
    a.sender->WaitException(waiter->GetID());
    a.sender->SendOtherData("x", 1);
    a.sock.setRoom(0);
    a.sock.fail(EPIPE);
    LogCapture log(3);
    tick();
    EXPECT_TRUE(log.contains(3, "MediaStreamSender check_other_data socket exception!\n"));
    EXPECT_EQ(messages(), (std::vector<SentMessage>{{waiter->GetID(), 2, 0}}));
    EXPECT_EQ(nullptr, a.state().m_list);
    EXPECT_EQ(0, a.state().m_notices.take_failure_waiter());
}

TEST_F(MediaStreamSender, TwoFramesInOneSendAreFinishedOneAfterTheOther) {
    MediaClient& a = joinedClient();
    Finished finished;
    EXPECT_TRUE(a.sender->AttachSendProc(finished.proc()));
    a.sock.setRoom(0);
    TestPacket& first = putInfo(1);
    put(10);
    TestPacket& second = putInfo(2);
    put(20);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    ASSERT_EQ(2U, finished.calls.size());
    EXPECT_EQ(finished.calls[0], std::make_tuple(static_cast<CMediaPacket*>(&first), 1, 10));
    EXPECT_EQ(finished.calls[1], std::make_tuple(static_cast<CMediaPacket*>(&second), 2, 20));
    EXPECT_TRUE(a.sender->DetachSendProc());
    EXPECT_TRUE(a.sender->DetachSendProc());
    put(10);
    EXPECT_EQ(2U, finished.calls.size());
}

TEST_F(MediaStreamSender, AFullSocketLeavesTheSenderAndThePositionWhereTheyAre) {
    MediaClient& a = joinedClient();
    a.sock.setRoom(0);
    const CFrame* frame = current();
    put(10);
    put(10);
    tick(3);
    EXPECT_EQ(a.state().m_frame, frame);
    EXPECT_EQ(10U, a.state().m_send_total);
    EXPECT_EQ(10U, byteDiscard());
    EXPECT_EQ(3U, frames());
    EXPECT_EQ(5U, a.state().m_block_count);
}

TEST_F(MediaStreamSender, EveryHundredthBlockedWriteIsLogged) {
    MediaClient& a = joinedClient();
    a.sock.setRoom(0);
    put(10);
    LogCapture log(3);
    tick(98);
    EXPECT_EQ(0U, log.countMatching(3, "MediaStreamSender net warnning.*\n"));
    tick(102);
    EXPECT_EQ(1U, log.count(3, "MediaStreamSender net warnning 100!\n"));
    EXPECT_EQ(1U, log.count(3, "MediaStreamSender net warnning 200!\n"));
}

TEST_F(MediaStreamSender, AStallIsReportedOnceAndTheSenderStays) {
    HandClock clock;
    MediaClient& a = joinedClient();
    a.sender->WaitException(waiter->GetID());
    a.sender->SetSendTimeout(3);
    a.sock.setRoom(0);
    put(10);
    clock.advanceUs(2999999);
    LogCapture log(3);
    tick();
    EXPECT_TRUE(messages().empty());
    clock.advanceUs(1);
    tick(2);
    EXPECT_EQ(messages(), (std::vector<SentMessage>{{waiter->GetID(), 2, 0}}));
    EXPECT_EQ(1U, log.count(3, "MediaStreamSender Send socket exception for timeout!\n"));
    EXPECT_NE(nullptr, a.state().m_list);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ(10U, a.sock.wire().size());
    EXPECT_EQ(0U, a.state().m_block_time);
}

TEST_F(MediaStreamSender, AClientThatTricklesStallsAllTheSame) {
    HandClock clock;
    MediaClient& a = joinedClient();
    a.sender->WaitException(waiter->GetID());
    a.sender->SetSendTimeout(3);
    a.sock.setRoom(0);
    put(100);
    for (int i = 0; i < 3; ++i) {
        clock.advanceUs(1000000);
        a.sock.setRoom(1);
        tick();  // takes one byte
        EXPECT_EQ(0U, a.state().m_block_count);
        EXPECT_TRUE(messages().empty());
    }
    tick();
    EXPECT_EQ(1U, messages().size());
}

TEST_F(MediaStreamSender, WithAFloorASteadyReaderHasNotStalledAndATricklingOneHas) {
    HandClock clock;
    MediaClient& a = joinedClient();
    a.sender->WaitException(waiter->GetID());
    a.sender->SetSendTimeout(3);
    a.sender->SetStallFloor(6);
    a.sock.setRoom(0);
    put(1000);
    for (int i = 0; i < 20; ++i) {
        clock.advanceUs(1000000);
        a.sock.setRoom(2);
        tick(2);  // takes two bytes, and finds no room
        EXPECT_TRUE(messages().empty()) << i;
    }
    for (int i = 0; i < 4; ++i) {
        clock.advanceUs(1000000);
        a.sock.setRoom(1);
        tick(2);
    }
    EXPECT_EQ(1U, messages().size());
}

TEST_F(MediaStreamSender, WithAFloorAPauseIsNotAStall) {
    HandClock clock;
    MediaClient& a = joinedClient();
    a.sender->WaitException(waiter->GetID());
    a.sender->SetSendTimeout(3);
    a.sender->SetStallFloor();
    a.sock.setRoom(5);
    put(10);
    tick();  // the clock runs
    buffer->DelSender(a.sender);
    clock.advanceUs(10000000);
    buffer->AddSender(a.sender);
    put(10);
    EXPECT_TRUE(messages().empty());
    clock.advanceUs(3000000);
    tick();
    EXPECT_EQ(1U, messages().size());
}

TEST_F(MediaStreamSender, OtherDataStallsTooAndAWriteOfItEndsTheStall) {
    HandClock clock;
    MediaClient& a = joinedClient();
    a.sender->WaitException(waiter->GetID());
    a.sender->SetSendTimeout(1);
    a.sock.setRoom(0);
    a.sender->SendOtherData("abc", 3);
    tick();
    clock.advanceUs(900000);
    a.sock.setRoom(1);
    tick();
    EXPECT_EQ(0U, a.state().m_block_time);
    clock.advanceUs(900000);
    tick();
    EXPECT_TRUE(messages().empty());
    clock.advanceUs(1000000);
    LogCapture log(3);
    tick();
    EXPECT_EQ(1U, log.count(3, "MediaStreamSender check_other_data socket exception for timeout!\n"));
    EXPECT_EQ(1U, messages().size());
}

TEST_F(MediaStreamSender, WithoutATimeoutASenderWaitsForEver) {
    HandClock clock;
    MediaClient& a = joinedClient();
    a.sender->WaitException(waiter->GetID());
    a.sock.setRoom(0);
    put(10);
    clock.advanceUs(int64_t{1000} * 3600 * 1000000);
    tick();
    EXPECT_TRUE(messages().empty());
}

TEST_F(MediaStreamSender, AFailureTakesBackWhatTheSenderHadWrittenOfTheFrame) {
    MediaClient& a = joinedClient();
    MediaClient& b = client();
    buffer->AddSender(b.sender);
    put(10);
    a.sock.setRoom(3);
    b.sock.setRoom(4);
    const CFrame* frame = current();
    put(10);
    EXPECT_EQ(7, frame->m_sent_len);
    b.sock.fail(EPIPE);
    tick();
    EXPECT_EQ(3, frame->m_sent_len);
    EXPECT_EQ(2, frame->m_sender_count) << "the count is not taken back";
}

TEST_F(MediaStreamSender, AFailureNobodyWaitsForIsNotReported) {
    MediaClient& a = joinedClient();
    a.sock.setRoom(0);
    a.sock.fail(EPIPE);
    LogCapture log(3);
    put(10);
    EXPECT_EQ(0U, log.countMatching(3, "MediaStreamSender.*\n"));
    EXPECT_TRUE(messages().empty());
}

TEST_F(MediaStreamSender, TheTailOfAPacketIsHandedOver) {
    MediaClient& a = joinedClient();
    a.sock.setRoom(8);
    const std::string bytes = putFrame({5, 6, 4});
    char tail[16];
    EXPECT_EQ(-1, a.sender->GetTailPacket(tail, 2));
    EXPECT_EQ(3, a.state().m_iovec_offset) << "nothing has changed";
    EXPECT_EQ(3, a.sender->GetTailPacket(tail, 3));
    EXPECT_EQ(std::string(tail, 3), bytes.substr(8, 3));
    EXPECT_EQ(2, a.state().m_iovec_index);
    EXPECT_EQ(0, a.state().m_iovec_offset);
    EXPECT_EQ(4U, a.state().m_frame_left);
    EXPECT_EQ(21U, a.state().m_send_total);
    EXPECT_EQ(0, a.sender->GetTailPacket(tail, 16)) << "no packet is half-written";
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ(a.sock.wire(), bytes.substr(0, 8) + bytes.substr(11));
}

TEST_F(MediaStreamSender, TheTailOfTheLastPacketFinishesTheFrame) {
    MediaClient& a = joinedClient();
    Finished finished;
    a.sender->AttachSendProc(finished.proc());
    a.sock.setRoom(8);
    TestPacket& about = putInfo(9);
    const CFrame* first = current();
    putFrame({5, 6});
    const CFrame* second = current();
    put(7);
    char tail[16];
    EXPECT_EQ(3, a.sender->GetTailPacket(tail, 16));
    ASSERT_EQ(1U, finished.calls.size());
    EXPECT_EQ(finished.calls[0], std::make_tuple(static_cast<CMediaPacket*>(&about), 9, 11));
    EXPECT_EQ(a.state().m_frame, second);
    EXPECT_EQ(7U, a.state().m_frame_left);
    EXPECT_EQ(0, first->m_sent_len);
    EXPECT_EQ(1, first->m_sender_count) << "counts stay";
    EXPECT_EQ(0, second->m_sender_count);
    EXPECT_EQ(0, client().sender->GetTailPacket(tail, 16)) << "a sender that was on no list";
}

TEST_F(MediaStreamSender, WithoutASocketSendAsserts) {
    MediaClient& a = joinedClient();
    a.sender->Detach();
    EXPECT_DEATH(put(10), "m_stream != NULL");
    a.sender->Attach(&a.sock);
}

TEST_F(MediaStreamSender, ASocketOfAnotherKindAsserts) {
    MediaClient& a = joinedClient();
    CSock plain;
    a.sender->Attach(&plain);
    EXPECT_DEATH(put(10), "Assertion `0'");
    a.sender->Attach(&a.sock);
}

TEST_F(MediaStreamSender, WritesThroughASimulatedLink) {
    MediaClient& a = client();
    CSimulatorStream link;
    link.SetBandWidth(1);
    link.SetRealSocket(&a.sock);
    a.sender->Attach(&link);
    buffer->AddSender(a.sender);
    a.sender->SendOtherData("other", 5);
    const std::string bytes = "other" + putFrame({3, 0, 4});
    EXPECT_EQ(a.sock.wire(), bytes);
}

TEST_F(MediaStreamSender, ASecureSocketWithoutTlsFails) {
    LogCapture log(3);
    MediaClient& a = client();
    CSslStream secure;
    a.sender->Attach(&secure);
    buffer->AddSender(a.sender);
    put(10);
    EXPECT_EQ(nullptr, a.state().m_list);
    a.sender->SendOtherData("x", 1);
    buffer->AddSender(a.sender);
    tick();
    EXPECT_EQ(nullptr, a.state().m_list);
}

// A datagram socket on loopback that receives, and one that is connected to it.
struct DatagramPair {
    DatagramPair() {
        CSockAddrIPv4 any("127.0.0.1", 0);
        EXPECT_EQ(0, far.Open(&any));
        CSockAddrIPv4 address;
        EXPECT_EQ(0, far.GetLocalAddr(&address));
        EXPECT_EQ(0, near.Open(nullptr));
        EXPECT_EQ(0, near.SetRemote(&address));
    }
    std::string receive() {
        char bytes[70000];
        const int length = far.Recv(bytes, sizeof bytes, nullptr);
        return std::string(bytes, static_cast<std::size_t>(std::max(length, 0)));
    }
    CSockDgram far;
    CSockDgram near;
};

TEST_F(MediaStreamSender, AFrameIsOneDatagram) {
    DatagramPair pair;
    MediaClient& a = client();
    a.sender->Attach(&pair.near);
    buffer->AddSender(a.sender);
    const std::string first = putFrame({3, 0, 4});
    EXPECT_EQ(pair.receive(), first);
    a.sender->SendOtherData("other", 5);
    std::string second;
    for (int i = 0; i < 1500; ++i) {
        second += put(2, i == 1499 ? 1 : 0);
    }
    EXPECT_EQ("other", pair.receive());
    EXPECT_EQ(pair.receive(), second) << "also with more packets than the kernel takes at once";
    EXPECT_EQ(2U, a.sender->GetStats().frames);
}

TEST_F(MediaStreamSender, AFrameThatNoDatagramHoldsMakesTheSenderFail) {
    LogCapture log(3);
    DatagramPair pair;
    MediaClient& a = client();
    a.sender->Attach(&pair.near);
    buffer->AddSender(a.sender);
    put(65507);
    EXPECT_NE(nullptr, a.state().m_list);
    put(65508);
    EXPECT_EQ(nullptr, a.state().m_list);
}

TEST_F(MediaStreamSender, ADatagramClientThatIsGoneFails) {
    LogCapture log(3);
    DatagramPair pair;
    MediaClient& a = client();
    a.sender->Attach(&pair.near);
    buffer->AddSender(a.sender);
    pair.far.Close();
    EXPECT_EVENTUALLY((put(10), a.state().m_list == nullptr)) << "the answer that nobody listens comes later";
}

TEST_F(MediaStreamSender, AFrameOfFiveThousandPacketsArrivesWholeAndInOrder) {
    MediaClient& a = joinedClient();
    std::string bytes;
    for (int i = 0; i < 5000; ++i) {
        // 1100 empty packets in front of the bytes and 1100 after the first of them.
        bytes += put(i < 1100 || (i > 1100 && i < 2201) ? 0 : 3, i == 4999 ? 1 : 0);
    }
    for (int i = 0; i < 10 && a.sock.wire().size() < bytes.size(); ++i) {
        tick();
    }
    EXPECT_EQ(a.sock.wire(), bytes);
    EXPECT_LE(a.sock.calls().size(), 5U) << "some 1024 packets in each write";
    EXPECT_EQ(1U, frames());
}

TEST_F(MediaStreamSender, CountersTellWhatTheClientGot) {
    HandClock clock;
    MediaClient& a = joinedClient();
    MediaSenderStats stats = a.sender->GetStats();
    EXPECT_EQ(1U, stats.frames);
    EXPECT_EQ(10U, stats.bytes);
    EXPECT_TRUE(stats.joined);
    EXPECT_TRUE(stats.listed);
    a.sock.setRoom(4);
    put(10);
    put(20);
    clock.advanceUs(5000);
    tick();
    clock.advanceUs(6000);
    stats = a.sender->GetStats();
    EXPECT_EQ(1U, stats.frames);
    EXPECT_EQ(14U, stats.bytes);
    EXPECT_EQ(26U, stats.backlog_bytes);
    EXPECT_EQ(11000U, stats.lag_us);
    EXPECT_EQ(11000U, stats.blocked_us);
    buffer->DelSender(a.sender);
    stats = a.sender->GetStats();
    EXPECT_FALSE(stats.listed);
    EXPECT_EQ(0U, stats.backlog_bytes);
    EXPECT_EQ(0U, client().sender->GetStats().frames);
}

}  // namespace Orvex::Testing
