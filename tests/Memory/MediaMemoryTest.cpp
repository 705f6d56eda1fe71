// CMediaBuffer, CMediaStreamSender and CStreamSender while memory runs out: a packet is taken or stays its
// owner's, a client gets whole frames or is told, and what can be kept is kept.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <Reticor/MediaBuffer.h>
#include <Reticor/MediaStreamSender.h>
#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockAddrStorage.h>
#include <Reticor/SockDgram.h>
#include <Reticor/StreamSender.h>

#include "support/PoolFixture.h"
#include "support/core/SocketPair.h"
#include "support/memory/MemorySweep.h"

namespace Orvex::Testing {
namespace {

using Reticor::CMediaBuffer;
using Reticor::CMediaPacket;
using Reticor::CMediaStreamSender;
using Reticor::CSockAddrIPv4;
using Reticor::CSockAddrStorage;
using Reticor::CSockDgram;
using Reticor::CStreamSender;
using Reticor::MediaSenderStats;

class Packet : public CMediaPacket {
public:
    int Release() override {
        ++releases;
        return 0;
    }
    char* GetBuffer() override { return bytes; }
    int releases = 0;
    char bytes[16] = "0123456789abcde";
};

class Tap : public Reticor::CLevel2Buffer_IF {
public:
    int Put(CMediaPacket*, int, int, int) override {
        ++packets;
        return 0;
    }
    int packets = 0;
};

class MediaMemory : public PoolFixture {
protected:
    void SetUp() override {
        PoolFixture::SetUp();
        handler = new TestHandler;
        handler->on_message = [this](long, unsigned int msg, long) {
            seen |= 1U << msg;
            return 0;
        };
    }
    void TearDown() override {
        closeAndWait(handler);
        PoolFixture::TearDown();
    }
    TestHandler* handler = nullptr;
    std::atomic<unsigned> seen{0};  // a bit for each message
};

// All that a producer does, with frames longer than the first room of a frame.
TEST_F(MediaMemory, APacketIsTakenOrStaysItsOwners) {
    sweep([](size_t successes, Extent extent) {
        constexpr size_t PACKETS = 200;
        alignas(CMediaBuffer) char room[sizeof(CMediaBuffer)];
        CMediaBuffer* buffer = nullptr;
        std::vector<Packet> packets(PACKETS);
        Packet info;
        std::vector<int> results(PACKETS + 1, 1);
        Tap tap;
        const Swept swept = withFault(successes, extent, [&] {
            buffer = new (room) CMediaBuffer;
            buffer->AddLevel2Buffer(&tap);
            for (size_t i = 0; i < PACKETS; ++i) {
                results[i] = buffer->Put(&packets[i], 15, i % 100 == 98 ? 1 : 0, 1);
                buffer->do_send();
            }
            results[PACKETS] = buffer->PutFrameInfo(&info, 7);
            buffer->EnableAutoSend(1000);
        });
        EXPECT_GE(buffer->GetBufferNum(), 0);
        EXPECT_EQ(0u, buffer->GetStats().senders);
        buffer->DisableAutoSend();
        buffer->DelLevel2Buffer(&tap);
        buffer->Clear();
        buffer->~CMediaBuffer();
        for (size_t i = 0; i < PACKETS; ++i) {
            EXPECT_EQ(results[i] == 0 ? 1 : 0, packets[i].releases) << i;
        }
        EXPECT_EQ(results[PACKETS] == 0 ? 1 : 0, info.releases);
        const bool refused = std::count(results.begin(), results.end(), -1) != 0;
        EXPECT_TRUE(swept.lines > 0 || !refused);
        EXPECT_TRUE(swept.hit || swept.lines == 0) << swept.text;
        return swept.hit;
    });
}

// Puts frames for a client whose socket is full in the middle of one, and takes it off and on again.
TEST_F(MediaMemory, AClientGetsWholeFramesOrIsTold) {
    sweep([this](size_t successes, Extent extent) {
        const NoRecords none;
        seen = 0;
        SocketPair pair;
        auto buffer = std::make_unique<CMediaBuffer>();
        std::vector<Packet> packets(400);
        std::vector<char> large(4 << 20, 'x');
        class Large : public Packet {
        public:
            char* GetBuffer() override { return memory; }
            char* memory = nullptr;
        } big;
        big.memory = large.data();
        CMediaStreamSender* sender = nullptr;
        bool taken = false;
        const Swept swept = withFault(successes, extent, [&] {
            sender = CMediaStreamSender::Create();
            if (sender == nullptr) {
                return;
            }
            sender->Attach(&pair.near);
            sender->WaitException(handler->GetID());
            sender->AttachSendProc(+[](CMediaPacket*, int, int) {});
            sender->SendOtherData("other", 5);
            buffer->AddSender(sender);
            taken = buffer->Put(&big, static_cast<int>(large.size()), 1, 1) == 0;
            buffer->DelSender(sender);  // in the middle of the frame, which goes with its last sender
        });
        if (sender != nullptr) {
            const bool told = swept.text.find("no memory for the rest of a frame") != std::string::npos;
            if (told) {
                EXPECT_EVENTUALLY((seen & 1U << Reticor::MEDIA_MSG_SOCKET_FAILED) != 0);
            }
            const auto stats = sender->GetStats();
            if (!told && stats.bytes != 0) {
                // The rest of the frame follows, and then the next frame.
                size_t got = 0;
                buffer->AddSender(sender);
                for (Packet& packet : packets) {
                    EXPECT_EQ(0, buffer->Put(&packet, 15, 1, 1));
                    got += static_cast<size_t>(std::max(0, SocketPair::drain(pair.far.GetHandle())));
                    if (got > large.size() + 100) {
                        break;
                    }
                }
                EXPECT_GT(got, large.size() + 100);
            }
            buffer->DelSender(sender);
            sender->Detach();
            sender->Close();
        } else {
            EXPECT_GE(swept.lines, 1u);
        }
        buffer.reset();
        EXPECT_EQ(taken ? 1 : 0, big.releases);
        return swept.hit;
    });
}

// Frames of so many packets that a datagram's list of pieces needs memory.
TEST_F(MediaMemory, ADatagramClientGetsItsFramesOrIsTold) {
    sweep([](size_t successes, Extent extent) {
        const NoRecords none;
        const CSockAddrIPv4 any("127.0.0.1", 0);
        CSockDgram receiver;
        EXPECT_EQ(0, receiver.Open(&any));
        CSockAddrStorage to;
        EXPECT_EQ(0, receiver.GetLocalAddr(&to));
        CSockDgram sock;
        EXPECT_EQ(0, sock.Open(nullptr));
        auto buffer = std::make_unique<CMediaBuffer>();
        std::vector<Packet> packets(1000);
        CMediaStreamSender* const sender = CMediaStreamSender::Create();
        sender->Attach(&sock);
        int remote = 1;
        int cut = 1;
        bool taken = true;
        const Swept swept = withFault(successes, extent, [&] {
            remote = sender->SetRemote(&to);
            cut = sender->SetDatagrams(12000);
            buffer->AddSender(sender);
            for (size_t i = 0; i < packets.size(); ++i) {
                taken = buffer->Put(&packets[i], 15, i + 1 == packets.size() ? 1 : 0, 1) == 0 && taken;
            }
        });
        EXPECT_TRUE(swept.hit || (remote == 0 && cut == 0 && taken));
        EXPECT_EQ(swept.hit, swept.lines > 0) << swept.text;
        const MediaSenderStats stats = sender->GetStats();
        if (remote == 0 && cut == 0 && taken && stats.listed) {
            EXPECT_EQ(1U, stats.frames);
            std::vector<char> bytes(20000);
            EXPECT_EQ(12000, receiver.Recv(bytes.data(), 20000, nullptr));
            EXPECT_EQ(3000, receiver.Recv(bytes.data(), 20000, nullptr));
        }
        buffer->DelSender(sender);
        sender->Close();
        buffer.reset();
        return swept.hit;
    });
}

TEST_F(MediaMemory, ATapIsOnTheListOrNot) {
    CMediaBuffer buffer;
    std::vector<Tap> taps(20);
    sweep([&](size_t successes, Extent extent) {
        const Swept swept = withFault(successes, extent, [&] {
            for (Tap& tap : taps) {
                buffer.AddLevel2Buffer(&tap);
            }
        });
        Packet packet;
        EXPECT_EQ(0, buffer.Put(&packet, 15, 1, 1));
        size_t shown = 0;
        for (Tap& tap : taps) {
            shown += static_cast<size_t>(std::exchange(tap.packets, 0));
            buffer.DelLevel2Buffer(&tap);
        }
        EXPECT_EQ(taps.size() - shown, swept.lines) << swept.text;
        return swept.hit;
    });
}

TEST_F(MediaMemory, AutoSendIsOnOrOff) {
    sweep([](size_t successes, Extent extent) {
        const NoRecords none;
        CMediaBuffer buffer;
        const Swept swept = withFault(successes, extent, [&] { buffer.EnableAutoSend(5); });
        EXPECT_EQ(swept.hit, swept.lines > 0) << swept.text;
        buffer.EnableAutoSend(5);
        buffer.DisableAutoSend();
        return swept.hit;
    });
}

// The library goes down and up again while a buffer is on the timer's list.
TEST(MediaSetUpMemory, APoolIsMadeWithTheTimerOfTheBuffersOrNotAtAll) {
    CMediaBuffer buffer;
    ASSERT_EQ(0, Reticor::CNetThread::CreateThreadPool(2, false));
    buffer.EnableAutoSend(5);
    ASSERT_EQ(0, Reticor::CNetThread::DestroyThreadPool());
    sweep([](size_t successes, Extent extent) {
        int result = 1;
        const Swept swept =
            withFault(successes, extent, [&] { result = Reticor::CNetThread::CreateThreadPool(2, false); });
        if (result == 0) {
            EXPECT_EQ(0, Reticor::CNetThread::DestroyThreadPool());
        } else {
            EXPECT_EQ(-1, result);
            EXPECT_GE(swept.lines, 1u);
        }
        return swept.hit;
    });
    buffer.DisableAutoSend();
}

TEST_F(MediaMemory, BytesWaitOrAreRefused) {
    sweep([this](size_t successes, Extent extent) {
        const NoRecords none;
        seen = 0;
        SocketPair pair;
        pair.fill();
        CStreamSender* sender = nullptr;
        const std::string bytes(70000, 'b');
        int put = 1;
        const Swept swept = withFault(successes, extent, [&] {
            sender = CStreamSender::Create();
            if (sender == nullptr) {
                return;
            }
            sender->Attach(handler, &pair.near);
            sender->WaitException(handler->GetID());
            put = sender->Put(bytes.data(), static_cast<unsigned>(bytes.size()));
            sender->SetBufferSize(20);
            sender->WaitBufferSize(handler->GetID(), 1);
            sender->WaitSendFinish(handler->GetID());
        });
        EXPECT_TRUE(swept.hit || swept.lines == 0) << swept.text;
        if (sender == nullptr) {
            EXPECT_EQ(1u, swept.lines) << swept.text;
        } else {
            EXPECT_TRUE(put == 0 || (put == -1 && swept.lines > 0)) << put;
            if (swept.text.find("no memory for waiter") == std::string::npos) {
                // The message that is owed has a record in any case.
                EXPECT_EVENTUALLY((seen & 1U << Reticor::STREAM_SENDER_ROOM) != 0);
            }
            sender->Detach();
            handler->RemoveSock(pair.near);
            sender->Close();
        }
        return swept.hit;
    });
}

}  // namespace
}  // namespace Orvex::Testing
