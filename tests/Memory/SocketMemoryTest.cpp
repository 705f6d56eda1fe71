// Addresses, sockets and the debug server while memory runs out.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include <Reticor/MulticastDoctor.h>
#include <Reticor/R3.h>
#include <Reticor/SimulatorStream.h>
#include <Reticor/SockAcceptor.h>
#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockAddrIPv6.h>
#include <Reticor/SockAddrStorage.h>
#include <Reticor/SockDgram.h>
#include <Reticor/SockStream.h>

#include "R3/server/R3Server.h"
#include "support/PoolFixture.h"
#include "support/core/SocketPair.h"
#include "support/memory/MemorySweep.h"

namespace Orvex::Testing {
namespace {

using Reticor::CSockAcceptor;
using Reticor::CSockAddrIPv4;
using Reticor::CSockAddrIPv6;
using Reticor::CSockAddrStorage;
using Reticor::CSockDgram;
using Reticor::CSockStream;

template <typename Address>
void sweepAddress(const char* text) {
    sweep([text](size_t successes, Extent extent) {
        alignas(16) char rooms[2][sizeof(Address)];
        Address* made = nullptr;
        Address* copy = nullptr;
        int set = 1;
        char buffer[64] = "";
        const char* read = nullptr;
        const Swept swept = withFault(successes, extent, [&] {
            made = new (rooms[0]) Address;
            set = made->SetAddr(text, 77);
            read = made->GetIpStr(buffer, sizeof(buffer));
            copy = new (rooms[1]) Address(*made);
        });
        EXPECT_TRUE(swept.hit || (set == 0 && read != nullptr));
        EXPECT_EQ(swept.hit, swept.lines > 0) << swept.text;
        copy->SetPort(9);
        copy->GetPort();
        *copy = *made;
        made->~Address();
        copy->~Address();
        return swept.hit;
    });
}

// A look that had no memory leaves what the one before has seen.
TEST(MulticastDoctorMemory, LooksAndTexts) {
    sweep([](size_t successes, Extent extent) {
        Reticor::CMulticastDoctor doctor;
        int taken = 1;
        size_t length = 1;
        size_t reason = 1;
        const Swept swept = withFault(successes, extent, [&] {
            taken = doctor.Take(1);
            length = doctor.toText(nullptr, 0);
            reason =
                Reticor::CMulticastDoctor::ExplainJoin(0, CSockAddrIPv4("239.1.2.3", 1), 105, nullptr, 0);
        });
        EXPECT_TRUE(swept.hit || (taken == 0 && length != 0 && reason != 0));
        EXPECT_TRUE(taken == 0 || taken == -1) << taken;
        EXPECT_EQ(taken == -1, doctor.GetInterfaceCount() == 0);
        EXPECT_EQ(0, doctor.Take()) << "with memory again";
        return swept.hit;
    });
}

TEST(AddressMemory, OfIPv4) {
    sweepAddress<CSockAddrIPv4>("127.0.0.1");
}

TEST(AddressMemory, OfIPv6) {
    sweepAddress<CSockAddrIPv6>("::1");
}

TEST(AddressMemory, OfEitherFamily) {
    sweepAddress<CSockAddrStorage>("127.0.0.1");
}

TEST(SocketMemory, ADatagramSocketWorksOrDoesNotOpen) {
    CSockAddrIPv4 peer("127.0.0.1", 9);
    CSockAddrIPv4 any("127.0.0.1", 0);
    sweep([&](size_t successes, Extent extent) {
        alignas(16) char room[sizeof(CSockDgram)];
        CSockDgram* socket = nullptr;
        int opened = 1;
        int sent = 1;
        const Swept swept = withFault(successes, extent, [&] {
            socket = new (room) CSockDgram;
            opened = socket->Open(&any);
            socket->SetRemote(&peer);
            sent = socket->Send("x", 1, nullptr);
        });
        EXPECT_TRUE(opened == 0 || opened == -1);
        EXPECT_TRUE(sent == 1 || sent <= 0);
        EXPECT_TRUE(swept.hit || opened == 0);
        socket->Close();
        socket->~CSockDgram();
        return swept.hit;
    });
}

TEST(SocketMemory, ListsOfDatagramsGoOrAreRefused) {
    const CSockAddrIPv4 any("127.0.0.1", 0);
    CSockDgram receiver;
    CSockDgram sender;
    CSockAddrStorage to;
    ASSERT_EQ(0, receiver.Open(&any));
    ASSERT_EQ(0, receiver.GetLocalAddr(&to));
    ASSERT_EQ(0, sender.Open(nullptr));
    std::string bytes(1500, 'b');
    std::vector<iovec> ones;
    for (char& byte : bytes) {
        ones.push_back({&byte, 1});
    }
    sweep([&](size_t successes, Extent extent) {
        int many = 1;
        int segments = 1;
        int got = 1;
        CSockAddrStorage from;
        char room[2000];
        Reticor::SockReceived entry;
        entry.buf = room;
        entry.size = sizeof room;
        entry.remote = &from;
        const Swept swept = withFault(successes, extent, [&] {
            many = sender.SendMany(ones.data(), 3, &to);
            segments = sender.SendSegments(ones.data(), 1500, 1500, &to);
            got = receiver.RecvMany(&entry, 1);
        });
        EXPECT_EQ(3, many) << "which needs none";
        EXPECT_TRUE(segments == 1500 || (segments == -1 && swept.lines > 0)) << swept.text;
        EXPECT_EQ(1, got);
        EXPECT_TRUE(swept.hit || segments == 1500);
        while (receiver.Recv(room, sizeof room, nullptr) > 0) {
        }
        return swept.hit;
    });
}

TEST(SocketMemory, AConnectionIsAcceptedOrNull) {
    CSockAcceptor acceptor;
    CSockAddrIPv4 addr("127.0.0.1", 0);
    ASSERT_EQ(0, acceptor.Open(addr));
    ASSERT_EQ(0, acceptor.GetLocalAddr(&addr));
    acceptor.SetBlockOpt(true);
    sweep([&](size_t successes, Extent extent) {
        CSockStream client;
        client.SetBlockOpt(true);
        EXPECT_EQ(0, client.Connect(addr, nullptr));
        CSockAddrStorage peer;
        std::unique_ptr<CSockStream> accepted;
        const Swept swept = withFault(successes, extent, [&] { accepted.reset(acceptor.Accept(&peer)); });
        EXPECT_TRUE(swept.hit || accepted != nullptr);
        EXPECT_EQ(swept.hit, swept.lines > 0) << swept.text;
        if (accepted == nullptr) {
            EXPECT_EQ(1u, swept.lines) << swept.text;
            accepted.reset(acceptor.Accept(&peer));  // it waits still
            EXPECT_NE(nullptr, accepted);
        }
        return swept.hit;
    });
}

TEST(SocketMemory, ASimulatedStreamTakesNothing) {
    sweep([](size_t successes, Extent extent) {
        alignas(16) char room[sizeof(Reticor::CSimulatorStream)];
        Reticor::CSimulatorStream* stream = nullptr;
        const Swept swept =
            withFault(successes, extent, [&] { stream = new (room) Reticor::CSimulatorStream; });
        SocketPair pair;
        stream->SetRealSocket(&pair.near);
        stream->SetBandWidth(100);
        EXPECT_EQ(swept.hit ? 0 : 1, stream->Send("x", 1));
        stream->~CSimulatorStream();
        return swept.hit;
    });
}

class DebugServerMemory : public PoolFixture {
protected:
    static unsigned short freePort() {
        CSockAcceptor acceptor;
        CSockAddrIPv4 address(0u, 0);
        EXPECT_EQ(0, acceptor.Open(address));
        EXPECT_EQ(0, acceptor.GetLocalAddr(&address));
        return address.GetPort();
    }
};

TEST_F(DebugServerMemory, TheServerStartsOrDoesNot) {
    sweep([](size_t successes, Extent extent) {
        const NoRecords none;
        int started = 1;
        const unsigned short port = freePort();
        const Swept swept =
            withFault(successes, extent, [&] { started = Reticor::start_debug_server(port, "R3", true); });
        EXPECT_TRUE(started == 0 || (started == -1 && swept.hit && swept.lines > 0)) << swept.text;
        Reticor::R3ServerExit();
        return swept.hit;
    });
}

TEST_F(DebugServerMemory, ACommandIsEnteredOrRefused) {
    sweep([](size_t successes, Extent extent) {
        int entered = 1;
        const Swept swept = withFault(successes, extent, [&] {
            entered = Reticor::R3Register(reinterpret_cast<void*>(&freePort), "memory", nullptr);
        });
        EXPECT_EQ(swept.hit ? -1 : 0, entered);
        EXPECT_EQ(swept.hit ? 1u : 0u, swept.lines) << swept.text;
        Reticor::R3ServerExit();
        return swept.hit;
    });
}

TEST_F(DebugServerMemory, AClientThatFindsNoMemoryIsClosedAndTheNextOneServed) {
    const unsigned short port = freePort();
    ASSERT_EQ(0, Reticor::start_debug_server(port, "R3", true));
    for (size_t successes = 0; successes < 12; ++successes) {
        SCOPED_TRACE(successes);
        char byte = 0;
        {
            const NoRecords none;
            MemoryFault fault(Whose::OTHERS, Extent::ALL, successes);
            CSockStream client;
            client.SetBlockOpt(true);
            client.Connect(CSockAddrIPv4("127.0.0.1", port), nullptr);
            client.SetBlockOpt(false);
            eventually([&] { return client.Recv(&byte, 1) != 0 || MemoryFault::hit(); }, 1000);
            fault.end();
        }
        CSockStream client;
        client.SetBlockOpt(true);
        ASSERT_EQ(0, client.Connect(CSockAddrIPv4("127.0.0.1", port), nullptr));
        client.SetBlockOpt(false);
        EXPECT_EVENTUALLY(client.Recv(&byte, 1) == 1);
    }
    Reticor::R3ServerExit();
}

}  // namespace
}  // namespace Orvex::Testing
