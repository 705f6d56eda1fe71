// Senders on datagram sockets, for real: pauses that timers end, groups, and ends in the middle of a pause.
#include <atomic>
#include <string>
#include <thread>

#include <Reticor/MediaBuffer.h>
#include <Reticor/MediaStreamSender.h>
#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockAddrIPv6.h>
#include <Reticor/SockAddrStorage.h>
#include <Reticor/SockDgram.h>

#include "support/Eventually.h"
#include "support/PoolFixture.h"
#include "support/socket/MulticastNet.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

constexpr size_t KEY_FRAME = 170000;
constexpr size_t KEY_FRAME_DATAGRAMS = 142;

class OwnedPacket : public CMediaPacket {
public:
    explicit OwnedPacket(std::string bytes) : m_bytes(std::move(bytes)) {}
    int Release() override {
        delete this;
        return 0;
    }
    char* GetBuffer() override { return m_bytes.data(); }

private:
    std::string m_bytes;
};

std::string frame_of(int number) {
    std::string bytes(KEY_FRAME, '\0');
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<char>(i * 7 + static_cast<size_t>(number));
    }
    return bytes;
}

class MediaDatagramsLive : public PoolFixture {
protected:
    void put(const std::string& bytes) {
        buffer.Put(new OwnedPacket(bytes), static_cast<int>(bytes.size()), MEDIA_MARK_LAST, mediaLevel(0, 1));
    }
    // Takes what has come, until these bytes are there.
    static std::string take(CSockDgram& sock, size_t length) {
        std::string all;
        std::string bytes(2000, '\0');
        EXPECT_EVENTUALLY([&] {
            int count = 0;
            while ((count = sock.Recv(bytes.data(), static_cast<unsigned>(bytes.size()), nullptr)) > 0) {
                all.append(bytes, 0, static_cast<size_t>(count));
            }
            return all.size() >= length;
        }());
        return all;
    }
    static MediaDatagramStats statsOf(CMediaStreamSender& sender) {
        MediaDatagramStats stats;
        EXPECT_EQ(0, sender.GetDatagramStats(&stats, sizeof stats));
        return stats;
    }
    static void openReceiver(CSockDgram& sock, CSockAddrStorage& address) {
        const CSockAddrIPv4 any("127.0.0.1", 0);
        ASSERT_EQ(0, sock.Open(&any));
        sock.SetSockRecvBuf(1 << 20);
        ASSERT_EQ(0, sock.GetLocalAddr(&address));
    }
    // Joins a group that the sender's frames go to, and gets some.
    template <typename Address>
    void deliversToGroup(Address group, const Address& any) {
        CSockDgram member;
        ASSERT_EQ(0, member.Open(&group));
        CSockAddrStorage bound;
        ASSERT_EQ(0, member.GetLocalAddr(&bound));
        group.SetPort(bound.GetPort());
        CSockDgram sock;
        ASSERT_EQ(0, sock.Open(&any));
        CMediaStreamSender* const sender = CMediaStreamSender::Create();
        sender->Attach(&sock);
        ASSERT_EQ(0, sender->SetRemote(&group));
        ASSERT_EQ(0, sender->SetDatagrams(1200));
        buffer.AddSender(sender);
        for (int i = 0; i < 3; ++i) {
            const std::string frame = frame_of(i).substr(0, 5000);
            put(frame);
            EXPECT_TRUE(frame == take(member, frame.size()));
        }
        EXPECT_TRUE(sender->GetStats().listed);
        buffer.DelSender(sender);
        sender->Close();
    }

    CMediaBuffer buffer;
};

TEST_F(MediaDatagramsLive, TimersHaveTheRestOfAFrameSent) {
    CSockDgram receiver;
    CSockAddrStorage address;
    openReceiver(receiver, address);
    CSockDgram sock;
    sock.Open(nullptr);
    CMediaStreamSender* const sender = CMediaStreamSender::Create();
    sender->Attach(&sock);
    ASSERT_EQ(0, sender->SetRemote(&address));
    ASSERT_EQ(0, sender->SetDatagrams(1200));
    buffer.AddSender(sender);
    for (int i = 0; i < 5; ++i) {
        const std::string frame = frame_of(i);
        put(frame);
        EXPECT_TRUE(frame == take(receiver, frame.size()));
    }
    EXPECT_EQ(5 * KEY_FRAME_DATAGRAMS, statsOf(*sender).datagrams);
    EXPECT_GE(statsOf(*sender).pauses, 5U);
    buffer.DelSender(sender);
    sender->Close();
}

TEST_F(MediaDatagramsLive, EndsInPausesLeaveNothing) {
    CSockDgram receiver;
    CSockAddrStorage address;
    openReceiver(receiver, address);
    for (int round = 0; round < 60; ++round) {
        CSockDgram sock;
        sock.Open(nullptr);
        CMediaStreamSender* const sender = CMediaStreamSender::Create();
        sender->Attach(&sock);
        ASSERT_EQ(0, sender->SetRemote(&address));
        ASSERT_EQ(0, sender->SetDatagrams(1200));
        buffer.AddSender(sender);
        put(frame_of(round));
        const uint64_t wanted = 16 + static_cast<uint64_t>(round % 4) * 30;
        EXPECT_EVENTUALLY(statsOf(*sender).datagrams >= wanted);
        switch (round % 3) {
            case 0:
                buffer.Clear();
                break;
            case 1:
                sender->Close();  // The list keeps it, and no timer finds it any more.
                put(frame_of(round));
                buffer.DelSender(sender);
                break;
            default:
                buffer.DelSender(sender);
                break;
        }
        if (round % 3 != 1) {
            sender->Close();
        }
        take(receiver, 1);
    }
}

// In a network of the case's own, which needs root.
class MediaDatagramsToGroups : public MediaDatagramsLive {
protected:
    MulticastNet net;
};

TEST_F(MediaDatagramsToGroups, FourthVersion) {
    if (net.made()) {
        deliversToGroup(CSockAddrIPv4("239.1.2.3", 0), CSockAddrIPv4("0.0.0.0", 0));
    }
}

TEST_F(MediaDatagramsToGroups, SixthVersion) {
    if (net.made()) {
        deliversToGroup(CSockAddrIPv6("ff15::77", 0), CSockAddrIPv6("::", 0));
    }
}

}  // namespace
}  // namespace Orvex::Testing
