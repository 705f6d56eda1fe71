// Senders on datagram sockets: where frames go, how they are cut, with what header and at what pace.
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <map>

#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockAddrStorage.h>
#include <Reticor/SockDgram.h>

#include "Core/record/SockRecord.h"
#include "support/HandClock.h"
#include "support/LogCapture.h"
#include "support/SeededRandom.h"
#include "support/core/Probes.h"
#include "support/media/MediaFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

// Bound to loopback. What is sent to it is there when the send returns.
class DatagramPeer {
public:
    DatagramPeer() {
        const CSockAddrIPv4 any("127.0.0.1", 0);
        EXPECT_EQ(0, m_sock.Open(&any));
        m_sock.SetSockRecvBuf(1 << 20);
        EXPECT_EQ(0, m_sock.GetLocalAddr(&m_address));
    }
    const CSockAddr* address() const { return &m_address; }
    std::vector<std::string> received() {
        std::vector<std::string> found;
        std::string bytes(70000, '\0');
        int count = 0;
        while ((count = m_sock.Recv(bytes.data(), static_cast<unsigned>(bytes.size()), nullptr)) > 0) {
            found.push_back(bytes.substr(0, static_cast<size_t>(count)));
        }
        return found;
    }
    void close() { m_sock.Close(); }

private:
    CSockDgram m_sock;
    CSockAddrStorage m_address;
};

// The header of these tests: what the library says of the datagram, as it is.
struct HeaderBook {
    void write(const MediaDatagram& datagram, char* to) {
        std::memcpy(to, &datagram.number, 8);
        std::memcpy(to + 8, &datagram.index, 4);
        ++calls;
        last = datagram;
    }
    int calls = 0;
    MediaDatagram last;
};
constexpr unsigned HEADER_BYTES = 12;

class MediaDatagrams : public MediaFixture {
protected:
    MediaDatagrams() {
        sock.Open(nullptr);
        sender->Attach(&sock);
        buffer->AddSender(sender);
    }
    ~MediaDatagrams() override {
        buffer->DelSender(sender);
        sender->Close();
        serveAll();
    }

    MediaDatagramStats cutStats() {
        MediaDatagramStats stats;
        EXPECT_EQ(0, sender->GetDatagramStats(&stats, sizeof stats));
        return stats;
    }
    int cutWithHeader(unsigned payload, bool paced = false) {
        return sender->SetDatagrams(payload, HEADER_BYTES, {&HeaderBook::write, &book}, paced);
    }
    SenderRecord& record() { return SenderRecord::of(*sender); }
    long pauseTimer() INFRA_NO_THREAD_SAFETY_ANALYSIS { return record().m_room.pause_timer(); }
    bool waitsApart() INFRA_NO_THREAD_SAFETY_ANALYSIS { return record().m_room.m_parked; }
    void endPause() { EXPECT_EQ(-1, sender->handle_timeout(pauseTimer())); }
    static std::vector<size_t> lengths(const std::vector<std::string>& datagrams) {
        std::vector<size_t> found;
        for (const std::string& one : datagrams) {
            found.push_back(one.size());
        }
        return found;
    }
    // What the datagrams carry, their headers checked: they are numbered from `number` on.
    std::string payload(const std::vector<std::string>& datagrams, uint64_t number, uint32_t index = 0) {
        std::string all;
        for (const std::string& one : datagrams) {
            uint64_t found_number = 0;
            uint32_t found_index = 0;
            EXPECT_LT(HEADER_BYTES, one.size());
            std::memcpy(&found_number, one.data(), 8);
            std::memcpy(&found_index, one.data() + 8, 4);
            EXPECT_EQ(number++, found_number);
            EXPECT_EQ(index++, found_index);
            all += one.substr(HEADER_BYTES);
        }
        return all;
    }

    HeaderBook book;
    DatagramPeer peer;
    CSockDgram sock;
    CMediaStreamSender* sender = CMediaStreamSender::Create();
};

// Where frames go.

TEST_F(MediaDatagrams, FramesGoToTheSendersOwnAddress) {
    EXPECT_EQ(0, sender->SetRemote(peer.address()));
    const std::string first = putFrame({10, 20});
    const std::string second = putFrame({5}, 5);
    EXPECT_EQ((std::vector<std::string>{first, second}), peer.received());
    DatagramPeer other;
    EXPECT_EQ(0, sender->SetRemote(other.address()));
    const std::string third = putFrame({7}, 5);
    EXPECT_TRUE(peer.received().empty());
    EXPECT_EQ(std::vector<std::string>{third}, other.received());
    EXPECT_EQ(3U, sender->GetStats().frames);
    EXPECT_EQ(42U, sender->GetStats().bytes);
}

TEST_F(MediaDatagrams, OneSocketServesManySenders) {
    DatagramPeer other;
    CMediaStreamSender* const second = CMediaStreamSender::Create();
    second->Attach(&sock);
    EXPECT_EQ(0, second->SetRemote(other.address()));
    EXPECT_EQ(0, sender->SetRemote(peer.address()));
    buffer->AddSender(second);
    const std::string frame = put(100);
    EXPECT_EQ(std::vector<std::string>{frame}, peer.received());
    EXPECT_EQ(std::vector<std::string>{frame}, other.received());
    buffer->DelSender(second);
    second->Close();
}

TEST_F(MediaDatagrams, WithoutAnAddressTheyGoToTheSocketsPeer) {
    ASSERT_EQ(0, sock.SetRemote(peer.address()));
    DatagramPeer other;
    EXPECT_EQ(0, sender->SetRemote(other.address()));
    EXPECT_EQ(0, sender->SetRemote(nullptr));
    const std::string whole = put(30);
    EXPECT_EQ(0, sender->SetDatagrams(20));
    const std::string cut = put(30, 1, 5);
    EXPECT_EQ((std::vector<std::string>{whole, cut.substr(0, 20), cut.substr(20)}), peer.received());
    EXPECT_TRUE(other.received().empty());
}

TEST_F(MediaDatagrams, WhatIsNotAnAddressIsRefused) {
    EXPECT_EQ(0, sender->SetRemote(peer.address()));
    const CSockAddrStorage invalid;
    EXPECT_EQ(-1, sender->SetRemote(&invalid));
    const std::string frame = put(30);
    EXPECT_EQ(std::vector<std::string>{frame}, peer.received()) << "the one before holds";
}

TEST_F(MediaDatagrams, StreamsAreLeftAlone) {
    buffer->DelSender(sender);
    MediaClient& stream = joinedClient();
    EXPECT_EQ(0, stream.sender->SetDatagrams(10, HEADER_BYTES, {&HeaderBook::write, &book}));
    EXPECT_EQ(0, stream.sender->SetRemote(peer.address()));
    const std::string frame = put(100, 1, 5);
    EXPECT_EQ(frame, stream.sock.wire());
    EXPECT_EQ(0, book.calls);
    EXPECT_TRUE(peer.received().empty());
}

TEST_F(MediaDatagrams, AFrameThatIsNotCutMustFitIntoADatagram) {
    EXPECT_EQ(0, sender->SetRemote(peer.address()));
    LogCapture log(2);
    put(70000);
    EXPECT_FALSE(sender->GetStats().listed);
    EXPECT_TRUE(peer.received().empty());
}

// How they are cut.

TEST_F(MediaDatagrams, AFrameIsCutWithoutRegardToItsPackets) {
    EXPECT_EQ(0, sender->SetRemote(peer.address()));
    EXPECT_EQ(0, cutWithHeader(100));
    const std::string frame = putFrame({30, 1, 250, 19, 100, 50});
    const std::vector<std::string> datagrams = peer.received();
    EXPECT_EQ((std::vector<size_t>{112, 112, 112, 112, 62}), lengths(datagrams));
    EXPECT_EQ(frame, payload(datagrams, 0));
    const std::string next = put(40, 1, 5);
    EXPECT_EQ(next, payload(peer.received(), 5));
    EXPECT_EQ(6U, cutStats().datagrams);
    EXPECT_EQ(490U + 6 * HEADER_BYTES, cutStats().bytes);
    EXPECT_EQ(2U, cutStats().writes);
    EXPECT_EQ(0U, cutStats().pauses);
    EXPECT_EQ(490U, sender->GetStats().bytes);
    EXPECT_EQ(2U, sender->GetStats().frames);
}

TEST_F(MediaDatagrams, TheHeaderIsToldWhatTheDatagramHolds) {
    HandClock clock;
    EXPECT_EQ(0, sender->SetRemote(peer.address()));
    EXPECT_EQ(0, cutWithHeader(100));
    put(10, 1, 1, 3);
    clock.advanceUs(1234);
    TestPacket& told = putInfo(77);
    put(250, 1, 4, 3);
    const MediaDatagram& last = book.last;
    EXPECT_EQ(4, book.calls);
    EXPECT_EQ(3U, last.number);
    EXPECT_EQ(2U, last.index);
    EXPECT_EQ(3U, last.count);
    EXPECT_EQ(200U, last.offset);
    EXPECT_EQ(50U, last.bytes);
    EXPECT_EQ(250U, last.frame_bytes);
    EXPECT_EQ(clock.nowUs(), last.complete_us);
    EXPECT_EQ(3, last.channel);
    EXPECT_EQ(4, last.level);
    EXPECT_FALSE(last.key);
    EXPECT_EQ(&told, last.info);
    EXPECT_EQ(77, last.info_arg);
    put(10, 1, 1, 3);
    EXPECT_TRUE(book.last.key);
}

TEST_F(MediaDatagrams, ManyGoWithOneCall) {
    EXPECT_EQ(0, sender->SetRemote(peer.address()));
    EXPECT_EQ(0, cutWithHeader(1200));
    const std::string frame = put(170000);
    EXPECT_EQ(frame, payload(peer.received(), 0));
    EXPECT_EQ(142U, cutStats().datagrams);
    EXPECT_EQ(3U, cutStats().writes) << "65000 bytes each";
}

TEST_F(MediaDatagrams, ADatagramMayHaveVeryManyPackets) {
    EXPECT_EQ(0, sender->SetRemote(peer.address()));
    EXPECT_EQ(0, cutWithHeader(1400));
    const std::string frame = putFrame(std::vector<size_t>(3000, 1));
    const std::vector<std::string> datagrams = peer.received();
    EXPECT_EQ((std::vector<size_t>{1412, 1412, 212}), lengths(datagrams));
    EXPECT_EQ(frame, payload(datagrams, 0));
}

TEST_F(MediaDatagrams, SizesHoldFromTheNextFrameOn) {
    EXPECT_EQ(0, sender->SetRemote(peer.address()));
    EXPECT_EQ(0, sender->SetDatagrams(100));
    put(150);
    EXPECT_EQ(0, sender->SetDatagrams(60));
    put(150, 1, 5);
    EXPECT_EQ(0, sender->SetDatagrams(0));
    put(150, 1, 5);
    EXPECT_EQ((std::vector<size_t>{100, 50, 60, 60, 30, 150}), lengths(peer.received()));
}

TEST_F(MediaDatagrams, SizesThatCannotBeAreRefused) {
    EXPECT_EQ(0, sender->SetRemote(peer.address()));
    EXPECT_EQ(0, sender->SetDatagrams(100));
    EXPECT_EQ(-1, sender->SetDatagrams(100, 65, {&HeaderBook::write, &book}));
    EXPECT_EQ(-1, sender->SetDatagrams(100, 12));
    EXPECT_EQ(-1, sender->SetDatagrams(0, 12, {&HeaderBook::write, &book}));
    EXPECT_EQ(-1, sender->SetDatagrams(65516, 12, {&HeaderBook::write, &book}));
    EXPECT_EQ(-1, sender->SetDatagrams(0xFFFFFFFF));
    put(150);
    EXPECT_EQ((std::vector<size_t>{100, 50}), lengths(peer.received())) << "those before hold";
    MediaDatagramStats stats;
    EXPECT_EQ(-1, sender->GetDatagramStats(nullptr, sizeof stats));
    EXPECT_EQ(-1, sender->GetDatagramStats(&stats, 7));
}

// What the socket does not take.

TEST_F(MediaDatagrams, WhoeverDoesNotListenIsLeft) {
    ASSERT_EQ(0, sock.SetRemote(peer.address()));
    EXPECT_EQ(0, cutWithHeader(100));
    sender->WaitException(waiter->GetID());
    peer.close();
    LogCapture log(3);
    for (int i = 0; i < 3 && sender->GetStats().listed; ++i) {
        put(1000);
    }
    EXPECT_FALSE(sender->GetStats().listed);
    EXPECT_EQ(1U, messages().size());
}

TEST_F(MediaDatagrams, AnAddressOfItsOwnDoesNotHearOfRefusals) {
    EXPECT_EQ(0, sender->SetRemote(peer.address()));
    EXPECT_EQ(0, cutWithHeader(100));
    peer.close();
    for (int i = 0; i < 3; ++i) {
        put(1000);
    }
    EXPECT_TRUE(sender->GetStats().listed);
    EXPECT_EQ(3U, sender->GetStats().frames);
}

// Pace.

TEST_F(MediaDatagrams, AFrameGoesOutInPartsWithinItsTime) {
    HandClock clock;
    EXPECT_EQ(0, sender->SetRemote(peer.address()));
    EXPECT_EQ(0, cutWithHeader(100, true));
    const std::string frame = put(10000);
    std::string got = payload(peer.received(), 0);
    EXPECT_EQ(1600U, got.size()) << "16 at once";
    EXPECT_TRUE(waitsApart());
    EXPECT_NE(0, pauseTimer());
    tick(3);
    EXPECT_TRUE(peer.received().empty()) << "nobody tries meanwhile";
    for (const size_t part : {25U, 25U, 25U, 9U}) {
        clock.advanceUs(5000);
        const size_t before = got.size() / 100;
        endPause();
        const std::vector<std::string> found = peer.received();
        EXPECT_EQ(part, found.size());
        got += payload(found, before, static_cast<uint32_t>(before));
    }
    EXPECT_EQ(frame, got);
    EXPECT_FALSE(waitsApart());
    EXPECT_EQ(0, pauseTimer());
    EXPECT_EQ(4U, cutStats().pauses);
    EXPECT_EQ(1U, sender->GetStats().frames);
    EXPECT_EQ(0U, sender->GetStats().blocked_us) << "a pause is not a stall";
}

TEST_F(MediaDatagrams, TheNextFrameFollowsAfterTheOneThatPauses) {
    HandClock clock;
    EXPECT_EQ(0, sender->SetRemote(peer.address()));
    EXPECT_EQ(0, cutWithHeader(100, true));
    const std::string first = put(3000);
    clock.advanceUs(10000);
    const std::string second = put(500, 1, 5);
    EXPECT_EQ(16U, peer.received().size()) << "of the first";
    endPause();
    const std::vector<std::string> found = peer.received();
    ASSERT_EQ(14U + 5U, found.size());
    EXPECT_EQ(first.substr(1600), payload({found.begin(), found.begin() + 14}, 16, 16));
    EXPECT_EQ(second, payload({found.begin() + 14, found.end()}, 30));
}

TEST_F(MediaDatagrams, WhoeverIsLateDoesNotPause) {
    HandClock clock;
    EXPECT_EQ(0, sender->SetRemote(peer.address()));
    EXPECT_EQ(0, cutWithHeader(100, true));
    put(3000);
    clock.advanceUs(40000);
    put(3000, 1, 5);
    clock.advanceUs(40000);
    peer.received();
    endPause();
    EXPECT_EQ(14U + 30U, peer.received().size());
    EXPECT_EQ(0, pauseTimer());
}

TEST_F(MediaDatagrams, AFrameThatPausesStaysAsItWasBegun) {
    HandClock clock;
    ASSERT_EQ(0, sock.SetRemote(peer.address()));
    EXPECT_EQ(0, cutWithHeader(100, true));
    const std::string frame = put(3000);
    std::string got = payload(peer.received(), 0);
    EXPECT_EQ(0, sender->SetDatagrams(0));
    clock.advanceUs(20000);
    endPause();
    got += payload(peer.received(), 16, 16);
    EXPECT_EQ(frame, got);
    const std::string next = put(300, 1, 5);
    EXPECT_EQ(std::vector<std::string>{next}, peer.received()) << "and the next one is whole";
}

TEST_F(MediaDatagrams, AStrangeTickChangesNothing) {
    HandClock clock;
    EXPECT_EQ(0, sender->SetRemote(peer.address()));
    EXPECT_EQ(0, cutWithHeader(100, true));
    put(3000);
    peer.received();
    clock.advanceUs(20000);
    EXPECT_EQ(-1, sender->handle_timeout(pauseTimer() + 1));
    EXPECT_TRUE(peer.received().empty());
    EXPECT_TRUE(waitsApart());
}

TEST_F(MediaDatagrams, APauseIsNotAWaitForRoom) {
    HandClock clock;
    EXPECT_EQ(0, sender->SetRemote(peer.address()));
    EXPECT_EQ(0, cutWithHeader(100, true));
    put(3000);
    peer.received();
    const auto roomStats = [&] {
        MediaRoomStats stats;
        EXPECT_EQ(0, sender->GetRoomStats(&stats, sizeof stats));
        return stats;
    };
    EXPECT_EQ(0U, roomStats().waiting);
    RoomLosses::note();
    tick();
    EXPECT_TRUE(waitsApart()) << "it has no place that could be lost";
    clock.advanceUs(20000);
    endPause();
    EXPECT_EQ(14U, peer.received().size());
    EXPECT_EQ(0U, roomStats().waits + roomStats().resumes + roomStats().without_place);
}

TEST_F(MediaDatagrams, WhatIsHandedOverAsATailIsNotSentAgain) {
    HandClock clock;
    EXPECT_EQ(0, sender->SetRemote(peer.address()));
    EXPECT_EQ(0, cutWithHeader(100, true));
    const std::string frame = putFrame({1650, 1350});
    EXPECT_EQ(frame.substr(0, 1600), payload(peer.received(), 0));
    buffer->DelSender(sender);
    char tail[100];
    ASSERT_EQ(50, sender->GetTailPacket(tail, sizeof tail));
    EXPECT_EQ(frame.substr(1600, 50), std::string(tail, 50));
    clock.advanceUs(20000);
    buffer->AddSender(sender);
    tick();
    EXPECT_EQ(frame.substr(1650), payload(peer.received(), 16)) << "cut anew";
}

TEST_F(MediaDatagrams, WhoeverIsTakenOffInAPauseEndsItsFrameWhenItComesBack) {
    HandClock clock;
    EXPECT_EQ(0, sender->SetRemote(peer.address()));
    EXPECT_EQ(0, cutWithHeader(100, true));
    const std::string frame = put(3000);
    std::string got = payload(peer.received(), 0);
    const long timer = pauseTimer();
    buffer->DelSender(sender);
    EXPECT_EQ(0, pauseTimer());
    clock.advanceUs(20000);
    EXPECT_EQ(-1, sender->handle_timeout(timer));
    EXPECT_TRUE(peer.received().empty());
    buffer->AddSender(sender);
    tick();
    got += payload(peer.received(), 16, 16);
    EXPECT_EQ(frame, got);
}

TEST_F(MediaDatagrams, AFrameThatGrowsTooOldIsEndedAllTheSame) {
    HandClock clock;
    EXPECT_EQ(0, sender->SetRemote(peer.address()));
    EXPECT_EQ(0, cutWithHeader(100, true));
    const std::string frame = putFrame({1650, 1350});
    std::string got = payload(peer.received(), 0);
    buffer->Clear();
    clock.advanceUs(20000);
    buffer->AddSender(sender);
    tick();
    got += payload(peer.received(), 16, 16);
    EXPECT_EQ(frame, got) << "of a copy";
}

// All of it together: what arrives, put together by the headers, is the stream.
TEST_F(MediaDatagrams, AnyFramesArriveWholeAndInOrder) {
    SeededRandom random;
    HandClock clock;
    EXPECT_EQ(0, sender->SetRemote(peer.address()));
    put(10);
    peer.received();
    std::string sent;
    std::string got;
    uint64_t number = 0;
    uint32_t index = 0;
    const auto take = [&] {
        for (const std::string& one : peer.received()) {
            uint64_t found_number = 0;
            uint32_t found_index = 0;
            ASSERT_LT(HEADER_BYTES, one.size());
            std::memcpy(&found_number, one.data(), 8);
            std::memcpy(&found_index, one.data() + 8, 4);
            ASSERT_EQ(number++, found_number);
            ASSERT_TRUE(found_index == index || found_index == 0);
            index = found_index + 1;
            got += one.substr(HEADER_BYTES);
        }
    };
    cutWithHeader(500, true);
    number = cutStats().datagrams;
    for (int round = 0; round < 400; ++round) {
        if (random.oneIn(10)) {
            cutWithHeader(random.between(400U, 3000U), random.oneIn(2));
        }
        std::vector<size_t> lengths(random.between<size_t>(1, 4));
        for (size_t& length : lengths) {
            length = random.between<size_t>(1, 4000);  // What waits fits into the peer's buffer.
        }
        sent += putFrame(lengths, random.oneIn(4) ? 1 : 5, random.between(0, 2));
        take();
        for (int i = random.between(0, 4); i > 0; --i) {
            clock.advanceUs(random.between(0, 9000));
            if (pauseTimer() != 0) {
                sender->handle_timeout(pauseTimer());
            }
            take();
        }
    }
    for (int i = 0; i < 100 && pauseTimer() != 0; ++i) {
        clock.advanceUs(50000);
        endPause();
        take();
    }
    EXPECT_TRUE(sent == got) << sent.size() << " bytes were put, " << got.size() << " arrived";
}

}  // namespace
}  // namespace Orvex::Testing
