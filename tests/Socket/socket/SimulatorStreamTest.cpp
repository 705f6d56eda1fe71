// CSimulatorStream: windows of bandwidth in front of a real stream.
#include <Reticor/SimulatorStream.h>

#include <sys/socket.h>
#include <sys/uio.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "support/HandClock.h"
#include "support/LogCapture.h"
#include "support/socket/Loopback.h"

namespace Orvex::Reticor {
namespace {

using Testing::HandClock;
using Testing::LogCapture;
using Testing::LoopbackPair;

constexpr int window_bytes = 131072;  // of one unit of bandwidth

int sendBytes(CSimulatorStream& simulator, unsigned length) {
    static const std::string bytes(4 * window_bytes, 's');
    return simulator.Send(bytes.data(), length);
}

TEST(SimulatorStream, IsOfItsOwnTypeAndHoldsNoHandle) {
    const CSimulatorStream simulator;
    EXPECT_EQ(4u, simulator.GetType());
    EXPECT_EQ(-1, simulator.GetHandle());
    EXPECT_FALSE(simulator.GetBlockOpt());
}

TEST(SimulatorStream, WithoutABandwidthTakesNothing) {
    LoopbackPair pair;
    CSimulatorStream simulator;
    simulator.SetRealSocket(&pair.client);
    EXPECT_EQ(0, sendBytes(simulator, 1));
    EXPECT_EQ(0, sendBytes(simulator, 1000));
}

TEST(SimulatorStream, CarriesTheHandleOfTheRealSocketAndNeverClosesIt) {
    LoopbackPair pair;
    const int handle = pair.client.GetHandle();
    {
        CSimulatorStream simulator;
        simulator.SetRealSocket(&pair.client);
        EXPECT_EQ(simulator.GetHandle(), handle);
    }
    EXPECT_TRUE(Testing::isOpen(handle));
    EXPECT_EQ(pair.client.GetHandle(), handle);
    CSimulatorStream simulator;
    simulator.SetRealSocket(&pair.client);
    simulator.SetRealSocket(nullptr);
    EXPECT_EQ(-1, simulator.GetHandle());
}

TEST(SimulatorStream, WindowIsCutAndThenFull) {
    CSimulatorStream simulator;
    HandClock clock;
    EXPECT_EQ(0, simulator.SetBandWidth(1));
    EXPECT_EQ(sendBytes(simulator, window_bytes + 1), window_bytes);
    EXPECT_EQ(0, sendBytes(simulator, 1));
}

TEST(SimulatorStream, WithoutARealSocketBytesAreCountedAndGoNowhere) {
    CSimulatorStream simulator;
    HandClock clock;
    simulator.SetBandWidth(1);
    EXPECT_EQ(1000, sendBytes(simulator, 1000));
    EXPECT_EQ(sendBytes(simulator, window_bytes), window_bytes - 1000);
}

TEST(SimulatorStream, WindowGoesOnAtExactlyOneSecondAndEndsBehindIt) {
    HandClock clock;
    clock.setUs(5000000);
    CSimulatorStream simulator;
    simulator.SetBandWidth(1);
    EXPECT_EQ(sendBytes(simulator, window_bytes), window_bytes);
    clock.setUs(6000999);
    EXPECT_EQ(0, sendBytes(simulator, 1));
    clock.setUs(6001000);
    EXPECT_EQ(1, sendBytes(simulator, 1));
    clock.setUs(7001000);
    EXPECT_EQ(sendBytes(simulator, window_bytes), window_bytes - 1) << "counted from that send on";
    clock.setUs(7002000);
    EXPECT_EQ(sendBytes(simulator, window_bytes), window_bytes);
}

TEST(SimulatorStream, WindowsCarryNothingOver) {
    HandClock clock;
    CSimulatorStream simulator;
    simulator.SetBandWidth(1);
    clock.advanceUs(60000000);
    EXPECT_EQ(sendBytes(simulator, 2 * window_bytes), window_bytes) << "idle time is not saved up";
}

TEST(SimulatorStream, BandwidthCountsInUnitsOf1048576BitsAndWraps) {
    HandClock clock;
    CSimulatorStream simulator;
    simulator.SetBandWidth(2);
    EXPECT_EQ(sendBytes(simulator, 3 * window_bytes), 2 * window_bytes);
    EXPECT_EQ(0, simulator.SetBandWidth(3));
    EXPECT_EQ(sendBytes(simulator, 3 * window_bytes), window_bytes) << "what was sent still counts";
    EXPECT_EQ(0, simulator.SetBandWidth(4096));
    clock.advanceUs(2000000);
    EXPECT_EQ(0, sendBytes(simulator, 1));
    EXPECT_EQ(0, simulator.SetBandWidth(4097));
    EXPECT_EQ(sendBytes(simulator, 2 * window_bytes), window_bytes);
}

TEST(SimulatorStream, PassesOnWhatTheRealSocketSays) {
    LoopbackPair pair;
    pair.shrink();
    CSimulatorStream simulator;
    simulator.SetRealSocket(&pair.client);
    simulator.SetBandWidth(4095);
    EXPECT_EQ(5, simulator.Send("bytes", 5));
    EXPECT_EQ("bytes", Testing::receive(pair.server, 5));
    Testing::fill(pair.client);
    EXPECT_EQ(0, simulator.Send("bytes", 5));
    ::shutdown(pair.client.GetHandle(), SHUT_WR);
    const LogCapture log;
    EXPECT_EQ(-1, simulator.Send("bytes", 5));
    EXPECT_EQ(EPIPE, errno);
    EXPECT_EQ(-1, simulator.Send(nullptr, 5));
}

TEST(SimulatorStream, FailedSendCostsNothingOfTheWindow) {
    HandClock clock;
    CSockStream closed;
    CSimulatorStream simulator;
    simulator.SetRealSocket(&closed);
    simulator.SetBandWidth(1);
    const LogCapture log;
    EXPECT_EQ(-1, sendBytes(simulator, 1000));
    simulator.SetRealSocket(nullptr);
    EXPECT_EQ(sendBytes(simulator, window_bytes), window_bytes);
}

TEST(SimulatorStreamWriteV, SendsPieceByPieceUntilOneIsCut) {
    HandClock clock;
    CSimulatorStream simulator;
    simulator.SetBandWidth(1);
    std::string bytes(window_bytes, 'v');
    const iovec pieces[] = {{&bytes[0], 1000}, {&bytes[0], window_bytes}, {&bytes[0], 1}};
    EXPECT_EQ(simulator.WriteV(pieces, 3), window_bytes);
    EXPECT_EQ(0, simulator.WriteV(pieces, 3));
}

TEST(SimulatorStreamWriteV, NoVectorIsAnErrorAndNoPiecesAreNone) {
    CSimulatorStream simulator;
    simulator.SetBandWidth(1);
    const iovec piece = {const_cast<char*>("x"), 1};
    EXPECT_EQ(-1, simulator.WriteV(nullptr, 1));
    EXPECT_EQ(0, simulator.WriteV(&piece, 0));
    EXPECT_EQ(0, simulator.WriteV(&piece, -1));
}

TEST(SimulatorStreamWriteV, ErrorHidesWhatWentBeforeIt) {
    LoopbackPair pair;
    CSimulatorStream simulator;
    simulator.SetRealSocket(&pair.client);
    simulator.SetBandWidth(1);
    const iovec pieces[] = {{const_cast<char*>("sent"), 4}, {nullptr, 5}, {const_cast<char*>("x"), 1}};
    EXPECT_EQ(-1, simulator.WriteV(pieces, 3));
    EXPECT_EQ("sent", Testing::receive(pair.server, 4));
}

TEST(SimulatorStreamWriteV, PieceOfNothingIsPassedOver) {
    LoopbackPair pair;
    CSimulatorStream simulator;
    simulator.SetRealSocket(&pair.client);
    simulator.SetBandWidth(1);
    const iovec pieces[] = {
        {const_cast<char*>("a"), 1}, {nullptr, 0}, {const_cast<char*>("b"), 0}, {const_cast<char*>("c"), 1}};
    EXPECT_EQ(2, simulator.WriteV(pieces, 4));
    EXPECT_EQ("ac", Testing::receive(pair.server, 2));
}

}  // namespace
}  // namespace Orvex::Reticor
