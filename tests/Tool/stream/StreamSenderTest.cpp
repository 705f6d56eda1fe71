// CStreamSender: what each operation writes, keeps, registers and tells. Nothing runs beside the test.
#include <Reticor/StreamSender.h>

#include <sys/socket.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>

#include <Reticor/SimulatorStream.h>
#include <Reticor/SslStream.h>

#include "R3/print/FuncBox.h"
#include "support/LogCapture.h"
#include "support/ObjectFigures.h"
#include "support/core/SocketPair.h"
#include "support/debug/DaemonStandIn.h"
#include "support/media/StreamSenderFixture.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

class StreamSender : public StreamSenderFixture {};
using StreamSenderDeath = StreamSender;

constexpr char FAILED_LINE[] =
    "Orvex::Reticor::CStreamSender::report_exception on line:[0-9]+ CStreamSender socket exception! fd: "
    "[0-9]+\n";

TEST_F(StreamSender, StartsWithRoomForEightBlocksAndNothingElse) {
    EXPECT_EQ(8u, sender->GetBufferSize());
    EXPECT_EQ(0u, waiting());
    EXPECT_THAT(blocks(), IsEmpty());
    const Infra::CGuard guard(state().m_mutex);
    EXPECT_EQ(nullptr, state().m_stream);
    EXPECT_EQ(SOCK_TYPE_UNKNOWN, state().m_stream_type);
    EXPECT_EQ(nullptr, state().m_owner);
    EXPECT_TRUE(state().m_wait_size.empty());
    EXPECT_TRUE(state().m_wait_finish.empty());
    EXPECT_EQ(0, state().m_exception_id);
    EXPECT_EQ(BLOCK, sizeof(SSendBuf::m_data));
    EXPECT_EQ(0, sender->GetID() >> 8 & 0xFF) << "senders belong to the public pool";
}

TEST_F(StreamSender, AttachKeepsOwnerSocketAndTypeAndRegistersNothing) {
    attach();
    EXPECT_EQ(-1, mask());
    CSimulatorStream simulator;
    EXPECT_EQ(0, sender->Attach(owner, &simulator));
    const Infra::CGuard guard(state().m_mutex);
    EXPECT_EQ(state().m_owner, owner);
    EXPECT_EQ(state().m_stream, &simulator);
    EXPECT_EQ(SOCK_TYPE_SIMULATOR, state().m_stream_type);
}

// ---- Put -----------------------------------------------------------------------------------------------

TEST_F(StreamSender, PutThatTheSocketTakesWholeLeavesNoBlockAndRegistersNothing) {
    attach();
    EXPECT_EQ(0, sender->Put(text(CAPACITY).data(), CAPACITY));
    EXPECT_EQ(sock.wire(), text(CAPACITY));
    EXPECT_THAT(blocks(), IsEmpty());
    EXPECT_EQ(-1, mask());
    EXPECT_THAT(sock.calls(), ElementsAre(1u));
}

TEST_F(StreamSender, PutOfTheWholeCapacityIsTakenByAnEmptySender) {
    attach();
    sock.setRoom(0);
    EXPECT_EQ(0, sender->Put(text(CAPACITY).data(), CAPACITY));
    EXPECT_EQ(CAPACITY, waiting());
    EXPECT_THAT(blocks(), ElementsAre(BLOCK, BLOCK, BLOCK, BLOCK, BLOCK, BLOCK, BLOCK, BLOCK));
}

TEST_F(StreamSenderDeath, PutAboveTheCapacityIsAnError) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    attach();
    const std::string bytes = text(CAPACITY + 1);
    EXPECT_DEATH(sender->Put(bytes.data(), CAPACITY + 1), "buf != NULL && len <= BUF_SIZE");
}

TEST_F(StreamSenderDeath, PutOfNoBufferIsAnError) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    attach();
    EXPECT_DEATH(sender->Put(nullptr, 0), "buf != NULL && len <= BUF_SIZE");
}

TEST_F(StreamSenderDeath, PutWithoutASocketIsAnError) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(sender->Put("x", 1), "m_stream != NULL");
}

TEST_F(StreamSender, ShortWriteKeepsTheRestAndAsksForReadinessWithoutATimeout) {
    attach();
    sock.setRoom(100);
    EXPECT_EQ(0, sender->Put(text(1000).data(), 1000));
    EXPECT_EQ(sock.wire(), text(1000).substr(0, 100));
    EXPECT_EQ(900u, waiting());
    EXPECT_THAT(blocks(), ElementsAre(900u));
    EXPECT_EQ(static_cast<int>(SOCK_WRITE), mask());
    EXPECT_EQ(0, rig.record(sock.GetHandle())->m_timer.m_set_time);
    EXPECT_EQ(rig.record(sock.GetHandle())->m_obj_id, owner->GetID());
    sock.setRoom(ShapedStream::UNLIMITED);
    EXPECT_EQ(0, sender->handle_output(sock.GetHandle()));
    EXPECT_EQ(sock.wire(), text(1000));
}

TEST_F(StreamSender, WriteOfNothingKeepsAllOfIt) {
    attach();
    sock.setRoom(0);
    EXPECT_EQ(0, sender->Put(text(70000).data(), 70000));
    EXPECT_THAT(blocks(), ElementsAre(BLOCK, BLOCK, 70000 - 2 * BLOCK));
    EXPECT_EQ(static_cast<int>(SOCK_WRITE), mask());
}

TEST_F(StreamSender, PutOfNothingIntoAnEmptySenderIsOneWriteAndKeepsNothing) {
    attach();
    sock.setRoom(0);
    EXPECT_EQ(0, sender->Put("", 0));
    EXPECT_THAT(sock.calls(), ElementsAre(1u));
    EXPECT_THAT(blocks(), IsEmpty());
    EXPECT_EQ(-1, mask());
}

TEST_F(StreamSenderDeath, PutOfNothingIntoABackloggedSenderIsAnError) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    attach();
    backlog(1);
    EXPECT_DEATH(sender->Put("", 0), "len > \\(uint32_t\\)already_sent");
}

TEST_F(StreamSender, WhileBytesWaitNothingIsWrittenPastThem) {
    attach();
    backlog(10);
    sock.setRoom(ShapedStream::UNLIMITED);
    EXPECT_EQ(0, sender->Put("later", 5));
    EXPECT_THAT(sock.calls(), IsEmpty());
    EXPECT_EQ(15u, waiting());
    EXPECT_EQ(0, sender->handle_output(sock.GetHandle()));
    EXPECT_EQ(sock.wire(), text(10) + "later");
}

TEST_F(StreamSender, PutThatDoesNotFitIsRefusedWhole) {
    attach();
    sender->WaitException(waiter->GetID());
    backlog(1);
    EXPECT_EQ(-1, sender->Put(text(CAPACITY).data(), CAPACITY));
    EXPECT_EQ(1u, waiting());
    EXPECT_THAT(blocks(), ElementsAre(1u));
    EXPECT_THAT(messages(), IsEmpty()) << "a full buffer is not a failure";
    EXPECT_EQ(0, sender->Put(text(CAPACITY - 1).data(), CAPACITY - 1));
    EXPECT_EQ(CAPACITY, waiting());
    EXPECT_EQ(-1, sender->Put("x", 1));
}

TEST_F(StreamSender, FailedWriteIsToldAndNothingIsKept) {
    attach();
    sender->WaitException(waiter->GetID());
    sock.setRoom(0);
    sock.fail(ECONNRESET);
    const LogCapture log;
    EXPECT_EQ(-1, sender->Put("bytes", 5));
    EXPECT_EQ(-1, sender->Put("bytes", 5));
    EXPECT_EQ(0u, waiting());
    EXPECT_EQ(-1, mask());
    EXPECT_THAT(messages(),
                ElementsAre(SentMessage(waiter->GetID(), 2, 0), SentMessage(waiter->GetID(), 2, 0)))
        << "each failure is told";
    EXPECT_EQ(2u, log.countMatching(2, FAILED_LINE)) << log.dump();
}

TEST_F(StreamSender, FailureThatNobodyWaitsForIsAResultAlone) {
    attach();
    sock.setRoom(0);
    sock.fail(EPIPE);
    const LogCapture log;
    EXPECT_EQ(-1, sender->Put("bytes", 5));
    EXPECT_THAT(messages(), IsEmpty());
    EXPECT_EQ(0u, log.countMatching(2, FAILED_LINE));
}

TEST_F(StreamSender, ResultBelowMinusOneCountsAsEverythingSent) {
    attach();
    sender->WaitException(waiter->GetID());
    sock.answerNext(0xFFFFFFFE);  // As an int this is -2.
    EXPECT_EQ(0, sender->Put("bytes", 5));
    EXPECT_EQ(0u, waiting());
    EXPECT_THAT(blocks(), IsEmpty());
    EXPECT_EQ(-1, mask());
    EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(StreamSenderDeath, OnlyStreamsAndSimulatorsAreWrittenTo) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    CSock plain;
    CSslStream secure;
    for (CSock* wrong : {&plain, static_cast<CSock*>(&secure)}) {
        sender->Attach(owner, wrong);
        EXPECT_DEATH(sender->Put("x", 1), "`0'");
    }
    attach();
    backlog(1);
    sender->Attach(owner, &plain);
    EXPECT_DEATH(sender->handle_output(-1), "`0'");
}

TEST_F(StreamSender, SimulatorIsWrittenTo) {
    CSimulatorStream simulator;
    simulator.SetRealSocket(&sock);
    simulator.SetBandWidth(4095);
    sender->Attach(owner, &simulator);
    sock.setRoom(40000);
    EXPECT_EQ(0, sender->Put(text(100000).data(), 100000));
    EXPECT_EQ(static_cast<int>(SOCK_WRITE), mask()) << "registered by the handle of the real socket";
    sock.setRoom(ShapedStream::UNLIMITED);
    EXPECT_EQ(0, sender->handle_output(sock.GetHandle()));
    EXPECT_EQ(sock.wire(), text(100000));
    EXPECT_EQ(0, mask());
}

TEST_F(StreamSender, IdleTimeoutOfTheOwnerEndsWithTheFirstShortWrite) {
    attach();
    owner->RegisterSock(sock, SOCK_READ, 5000000);
    EXPECT_EQ(5000, rig.record(sock.GetHandle())->m_timer.m_set_time);
    backlog(1);
    EXPECT_EQ(static_cast<int>(SOCK_READ | SOCK_WRITE), mask());
    EXPECT_EQ(0, rig.record(sock.GetHandle())->m_timer.m_set_time);
    EXPECT_TRUE(SockTimerProbe::listed(sock_timer()).empty());
    // The owner's way to have one again: a positive result of handle_input.
    owner->on_input = [](int) { return 7000000; };
    owner->on_output = [this](int fd) {
        sender->handle_output(fd);
        return 7000000;
    };
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(7000, rig.record(sock.GetHandle())->m_timer.m_set_time);
}

// ---- handle_output ----------------------------------------------------------------------------------------

TEST_F(StreamSender, WithoutASocketHandleOutputIsRefused) {
    EXPECT_EQ(-1, sender->handle_output(5));
}

TEST_F(StreamSenderDeath, HandleOutputOfAnotherSocketIsAnError) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    attach();
    EXPECT_DEATH(sender->handle_output(sock.GetHandle() + 1), "handle == m_stream->GetHandle\\(\\)");
}

TEST_F(StreamSender, WriteThatEndsInsideTheSecondBlockRecyclesTheFirst) {
    attach();
    backlog(3 * BLOCK);
    const SSendBuf* first = nullptr;
    {
        const Infra::CGuard guard(state().m_mutex);
        first = state().m_head;
    }
    sock.setRoom(BLOCK + 1000);
    EXPECT_EQ(0, sender->handle_output(sock.GetHandle()));
    EXPECT_THAT(sock.calls(), ElementsAre(3u)) << "one gathering write of three blocks";
    EXPECT_EQ(2 * BLOCK - 1000, waiting());
    EXPECT_THAT(blocks(), ElementsAre(BLOCK - 1000, BLOCK, 0u));
    const Infra::CGuard guard(state().m_mutex);
    EXPECT_EQ(state().m_head->m_read, state().m_head->m_data + 1000);
    EXPECT_EQ(nullptr, state().m_head->m_prev);
    EXPECT_EQ(state().m_tail->m_next, first) << "the drained block hangs after the chain";
    EXPECT_EQ(first->m_prev, state().m_tail);
    EXPECT_EQ(static_cast<int>(SOCK_WRITE), mask());
}

TEST_F(StreamSender, WriteThatEndsBetweenTwoBlocksLeavesTheSecondUntouched) {
    attach();
    backlog(2 * BLOCK + 7);
    sock.setRoom(BLOCK);
    EXPECT_EQ(0, sender->handle_output(sock.GetHandle()));
    EXPECT_THAT(blocks(), ElementsAre(BLOCK, 7u, 0u));
    const Infra::CGuard guard(state().m_mutex);
    EXPECT_EQ(state().m_head->m_read, state().m_head->m_data);
}

TEST_F(StreamSender, WriteThatDrainsEverythingLeavesOneEmptyBlockAndTheSpareOnes) {
    attach();
    backlog(3 * BLOCK - 1);
    sock.setRoom(ShapedStream::UNLIMITED);
    EXPECT_EQ(0, sender->handle_output(sock.GetHandle()));
    EXPECT_EQ(sock.wire(), text(3 * BLOCK - 1));
    EXPECT_THAT(blocks(), ElementsAre(0u, 0u, 0u));
    EXPECT_EQ(0, mask()) << "readiness is no longer of interest, the registration stays";
    const Infra::CGuard guard(state().m_mutex);
    EXPECT_EQ(state().m_head, state().m_tail);
    EXPECT_EQ(state().m_head->m_read, state().m_head->m_data);
}

TEST_F(StreamSender, BlocksAreUsedAgain) {
    attach();
    for (int round = 0; round < 5; ++round) {
        backlog(4 * BLOCK);
        EXPECT_EQ(4u, blocks().size());
        sock.setRoom(2 * BLOCK + 5);
        sender->handle_output(sock.GetHandle());
        sock.setRoom(ShapedStream::UNLIMITED);
        sender->handle_output(sock.GetHandle());
        EXPECT_EQ(0u, waiting());
    }
    EXPECT_EQ(4u, blocks().size());
}

TEST_F(StreamSender, BlockThatIsExactlyFullStaysTheTail) {
    attach();
    backlog(BLOCK);
    EXPECT_THAT(blocks(), ElementsAre(BLOCK));
    EXPECT_EQ(0, sender->Put("x", 1));
    EXPECT_THAT(blocks(), ElementsAre(BLOCK, 1u));
}

TEST_F(StreamSender, SocketThatTakesOneByteAtATimeGetsAllOfThem) {
    attach();
    backlog(BLOCK + 100);
    for (unsigned sent = 1; sent <= BLOCK + 100; ++sent) {
        sock.setRoom(1);
        ASSERT_EQ(0, sender->handle_output(sock.GetHandle()));
        ASSERT_EQ(waiting(), BLOCK + 100 - sent);
    }
    EXPECT_TRUE(sock.wire() == text(BLOCK + 100));
    EXPECT_THAT(blocks(), ElementsAre(0u, 0u));
    EXPECT_EQ(0, mask());
}

TEST_F(StreamSender, SocketWithoutRoomLeavesEverythingAsItIs) {
    attach();
    backlog(100);
    EXPECT_EQ(0, sender->handle_output(sock.GetHandle()));
    EXPECT_EQ(100u, waiting());
    EXPECT_EQ(static_cast<int>(SOCK_WRITE), mask());
}

TEST_F(StreamSender, FailedDrainRemovesTheSocketAndKeepsWhatWaits) {
    attach();
    owner->RegisterSock(sock, SOCK_READ, 0);
    sender->WaitException(waiter->GetID());
    backlog(100);
    sock.fail(EPIPE);
    const LogCapture log;
    EXPECT_EQ(0, sender->handle_output(sock.GetHandle()));
    EXPECT_EQ(-1, mask()) << "for reading, too";
    EXPECT_EQ(0, HandlerProbe::sockets(*owner));
    EXPECT_EQ(100u, waiting());
    EXPECT_THAT(messages(), ElementsAre(SentMessage(waiter->GetID(), 2, 0)));
    EXPECT_EQ(1u, log.countMatching(2, FAILED_LINE));
    // From here on nobody writes: the sender says yes until it is full.
    sock.recover();
    sock.setRoom(ShapedStream::UNLIMITED);
    EXPECT_EQ(0, sender->Put("more", 4));
    EXPECT_EQ(104u, waiting());
    EXPECT_EQ(-1, mask());
    EXPECT_EQ(0, sender->Clear());
    EXPECT_EQ(0, sender->Put("again", 5));
    EXPECT_EQ("again", sock.wire());
}

// ---- Waiters -------------------------------------------------------------------------------------------

TEST_F(StreamSender, WaiterForRoomIsToldOncePerRequest) {
    attach();
    backlog(CAPACITY);
    const long id = waiter->GetID();
    sender->WaitBufferSize(id, 1000);
    EXPECT_THAT(messages(), IsEmpty());
    sock.setRoom(999);
    sender->handle_output(sock.GetHandle());
    EXPECT_THAT(messages(), IsEmpty());
    sock.setRoom(1);
    sender->handle_output(sock.GetHandle());
    EXPECT_THAT(messages(), ElementsAre(SentMessage(id, 4, 1000)));
    sock.setRoom(1);
    sender->handle_output(sock.GetHandle());
    EXPECT_THAT(messages(), IsEmpty());
    sender->WaitBufferSize(id, 1001);
    EXPECT_THAT(messages(), ElementsAre(SentMessage(id, 4, 1001)))
        << "answered at once, with all that is free";
    const Infra::CGuard guard(state().m_mutex);
    EXPECT_THAT(state().m_wait_size, ElementsAre(std::pair<const long, int>(id, -1))) << "the entry stays";
}

TEST_F(StreamSender, LaterRequestReplacesTheEarlierOne) {
    attach();
    backlog(CAPACITY);
    sender->WaitBufferSize(waiter->GetID(), 100);
    sender->WaitBufferSize(waiter->GetID(), 5000);
    sock.setRoom(4999);
    sender->handle_output(sock.GetHandle());
    EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(StreamSender, WaitersForRoomAreToldInTheOrderOfTheirIds) {
    attach();
    backlog(10);
    const long high = std::max(waiter->GetID(), owner->GetID());
    const long low = std::min(waiter->GetID(), owner->GetID());
    sender->WaitBufferSize(high, CAPACITY);
    sender->WaitBufferSize(low, CAPACITY);
    sock.setRoom(ShapedStream::UNLIMITED);
    sender->handle_output(sock.GetHandle());
    EXPECT_THAT(messages(), ElementsAre(SentMessage(low, 4, CAPACITY), SentMessage(high, 4, CAPACITY)));
}

TEST_F(StreamSender, RequestForNoRoomOrForMoreThanAnIntHoldsNeverFires) {
    attach();
    const long id = waiter->GetID();
    sender->WaitBufferSize(id, 0);
    sender->WaitBufferSize(owner->GetID(), static_cast<unsigned>(INT_MAX) + 1);
    backlog(5);
    sock.setRoom(5);
    sender->handle_output(sock.GetHandle());
    EXPECT_THAT(messages(), IsEmpty());
    {
        const Infra::CGuard guard(state().m_mutex);
        EXPECT_EQ(0, state().m_wait_size[id]);
    }
    sender->WaitBufferSize(id, 5);
    EXPECT_THAT(messages(), ElementsAre(SentMessage(id, 4, CAPACITY))) << "a positive size arms the entry";
}

TEST_F(StreamSender, WaiterForTheEndIsToldAtOnceByAnEmptySender) {
    sender->WaitSendFinish(waiter->GetID());
    EXPECT_THAT(messages(), ElementsAre(SentMessage(waiter->GetID(), 9, 0)));
    const Infra::CGuard guard(state().m_mutex);
    EXPECT_TRUE(state().m_wait_finish.empty());
}

TEST_F(StreamSender, WaiterForTheEndIsToldOnceThoughItAskedTwice) {
    attach();
    backlog(10);
    sender->WaitSendFinish(waiter->GetID());
    sender->WaitSendFinish(owner->GetID());
    sender->WaitSendFinish(waiter->GetID());
    sock.setRoom(9);
    sender->handle_output(sock.GetHandle());
    EXPECT_THAT(messages(), IsEmpty());
    sock.setRoom(1);
    sender->handle_output(sock.GetHandle());
    EXPECT_THAT(messages(),
                ElementsAre(SentMessage(waiter->GetID(), 9, 0), SentMessage(owner->GetID(), 9, 0)));
}

// ---- Sizes, Clear, Detach ------------------------------------------------------------------------------

TEST_F(StreamSender, CapacityGrowsWithBytesWaiting) {
    attach();
    backlog(CAPACITY);
    EXPECT_EQ(0, sender->SetBufferSize(10));
    EXPECT_EQ(10u, sender->GetBufferSize());
    EXPECT_EQ(0, sender->Put(text(2 * BLOCK).data(), 2 * BLOCK));
    EXPECT_EQ(-1, sender->Put("x", 1));
    sock.setRoom(ShapedStream::UNLIMITED);
    EXPECT_EQ(0, sender->handle_output(sock.GetHandle()));
    EXPECT_EQ(sock.wire(), text(CAPACITY) + text(2 * BLOCK));
    EXPECT_EQ(0, sender->Put(text(10 * BLOCK).data(), 10 * BLOCK));
}

TEST_F(StreamSender, CapacityNeverShrinks) {
    EXPECT_EQ(0, sender->SetBufferSize(4));
    EXPECT_EQ(0, sender->SetBufferSize(8));
    EXPECT_EQ(0, sender->SetBufferSize(0));
    EXPECT_EQ(8u, sender->GetBufferSize());
    attach();
    backlog(2 * BLOCK);
    EXPECT_EQ(0, sender->SetBufferSize(2)) << "just what waits";
    EXPECT_EQ(8u, sender->GetBufferSize());
}

TEST_F(StreamSenderDeath, ShrinkingBelowWhatWaitsIsAnError) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    attach();
    backlog(2 * BLOCK + 1);
    EXPECT_DEATH(
        sender->SetBufferSize(2),
        "Orvex::Reticor::CStreamSender::SetBufferSize buf size:2 smaller than data len:65537!\n(.|\n)*`0'");
}

TEST_F(StreamSender, CapacityHasALimitOfTwoGigabytes) {
    const LogCapture log;
    for (const unsigned int blocks : {65536u, 131072u, UINT_MAX}) {
        EXPECT_EQ(0, sender->SetBufferSize(blocks));
        EXPECT_EQ(8u, sender->GetBufferSize());
    }
    EXPECT_EQ(3u,
              log.countMatching(2,
                                "Orvex::Reticor::CStreamSender::SetBufferSize buf size:[0-9]+ larger than "
                                "65535 blocks!\n"));
    EXPECT_EQ(0, sender->SetBufferSize(65535));
    EXPECT_EQ(65535u, sender->GetBufferSize());
    sender->WaitBufferSize(waiter->GetID(), 65535u * BLOCK);
    EXPECT_THAT(messages(), ElementsAre(SentMessage(waiter->GetID(), 4, 65535l * BLOCK)));
}

TEST_F(StreamSender, MoreBlocksThanTheKernelGathersAreDrainedInSeveralWrites) {
    attach();
    sender->SetBufferSize(1100);
    std::string bytes(1100 * BLOCK - 5, 'b');
    for (std::size_t block = 0; block < 1100; ++block) {
        bytes[block * BLOCK] = static_cast<char>(block);
        bytes[block * BLOCK + 1] = static_cast<char>(block >> 8);
    }
    sock.setRoom(0);
    ASSERT_EQ(0, sender->Put(bytes.data(), static_cast<unsigned>(bytes.size())));
    sock.setRoom(ShapedStream::UNLIMITED);
    sock.clearCalls();
    sender->handle_output(sock.GetHandle());
    EXPECT_EQ(76 * BLOCK - 5, waiting());
    sender->handle_output(sock.GetHandle());
    EXPECT_THAT(sock.calls(), ElementsAre(1024u, 76u));
    EXPECT_TRUE(sock.wire() == bytes);
}

TEST_F(StreamSender, ClearForgetsWhatWaitsAndTellsNobody) {
    attach();
    backlog(3 * BLOCK);
    sock.setRoom(10);
    sender->handle_output(sock.GetHandle());
    sender->WaitBufferSize(waiter->GetID(), CAPACITY);
    sender->WaitSendFinish(waiter->GetID());
    EXPECT_EQ(0, sender->Clear());
    EXPECT_EQ(0u, waiting());
    EXPECT_THAT(blocks(), ElementsAre(0u, 0u, 0u));
    EXPECT_THAT(messages(), IsEmpty());
    EXPECT_EQ(static_cast<int>(SOCK_WRITE), mask()) << "still registered";
    sock.clearCalls();
    EXPECT_EQ(0, sender->handle_output(sock.GetHandle()));
    EXPECT_THAT(sock.calls(), IsEmpty());
    EXPECT_EQ(0, mask()) << "until it is ready once more";
    EXPECT_THAT(messages(), IsEmpty()) << "nothing was drained";
}

TEST_F(StreamSender, ClearOfAFreshSenderDoesNothing) {
    EXPECT_EQ(0, sender->Clear());
    EXPECT_THAT(blocks(), IsEmpty());
}

TEST_F(StreamSender, DetachOfAFreshSenderGivesNothing) {
    EXPECT_EQ(nullptr, sender->Detach());
}

TEST_F(StreamSender, DetachEndsTheWriteInterestAndKeepsTheSocketAndWhatWaits) {
    attach();
    owner->RegisterSock(sock, SOCK_READ, 0);
    backlog(10);
    EXPECT_EQ(sender->Detach(), &sock);
    EXPECT_EQ(static_cast<int>(SOCK_READ), mask());
    EXPECT_EQ(10u, waiting());
    EXPECT_EQ(sender->Detach(), &sock) << "the sender still knows it";
}

TEST_F(StreamSender, DetachRemovesASocketThatIsNotReadFrom) {
    attach();
    backlog(10);
    EXPECT_EQ(sender->Detach(), &sock);
    EXPECT_EQ(-1, mask());
    EXPECT_EQ(0, HandlerProbe::sockets(*owner));
}

TEST_F(StreamSender, AttachWithBytesWaitingLeavesTheRegistrationToTheOwner) {
    attach();
    backlog(10);
    sender->Detach();
    ShapedStream next;
    EXPECT_EQ(0, sender->Attach(owner, &next));
    EXPECT_EQ(0, sender->Put("more", 4));
    EXPECT_EQ(nullptr, rig.record(next.GetHandle()));
    EXPECT_EQ("", next.wire());
    owner->RegisterSock(next, SOCK_WRITE, 0);
    owner->on_output = [this](int fd) { return sender->handle_output(fd); };
    EXPECT_EQ(1u, rig.pollAndServe());
    EXPECT_EQ(next.wire(), text(10) + "more");
    owner->RemoveSock(next);
}

// ---- The owner, and the end ----------------------------------------------------------------------------

TEST_F(StreamSender, OwnerThatHasGoneIsNotTouched) {
    attach();
    rig.close(owner);
    owner = new TestHandler(0);
    sock.setRoom(0);
    EXPECT_EQ(0, sender->Put("bytes", 5)) << "kept, though nobody will write it";
    EXPECT_EQ(5u, waiting());
    EXPECT_EQ(-1, mask());
    sock.fail(EPIPE);
    EXPECT_EQ(0, sender->handle_output(sock.GetHandle()));
    sock.recover();
    sock.setRoom(ShapedStream::UNLIMITED);
    EXPECT_EQ(0, sender->handle_output(sock.GetHandle()));
    EXPECT_EQ("bytes", sock.wire());
    EXPECT_EQ(sender->Detach(), &sock);
}

TEST_F(StreamSender, OwnerThatIsClosingRegistersNothing) {
    attach();
    owner->Close();  // Still to be found until the message is served.
    sock.setRoom(0);
    EXPECT_EQ(0, sender->Put("bytes", 5));
    EXPECT_EQ(-1, mask());
    serveAll();
    owner = new TestHandler(0);
}

TEST_F(StreamSender, ClosedSenderIsFreedWithItsBlocks) {
    CStreamSender* const other = CStreamSender::Create();
    other->Attach(owner, &sock);
    sock.setRoom(0);
    other->Put(text(100000).data(), 100000);
    other->AddRef();
    const long id = other->GetID();
    other->Close();
    serveAll();
    EXPECT_FALSE(PoolTable::FindHandler(id));
    EXPECT_EQ(8u, other->GetBufferSize()) << "a reference keeps it";
    other->DecRef();  // handle_close; a leak or a double free shows under the address sanitizer
}

// ---- Trace ---------------------------------------------------------------------------------------------

TEST_F(StreamSender, CommandSwitchesTheTraceOn) {
    DaemonStandIn daemon;
    attach();
    sender->Put("silent", 6);
    const auto command = g_r3_funcbox->Find("streamsender")->func;
    command(1, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    sock.setRoom(0);
    sender->Put("bytes", 5);
    sender->handle_output(sock.GetHandle());
    command(0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    sender->handle_output(sock.GetHandle());
    const std::string fd = std::to_string(sock.GetHandle());
    EXPECT_THAT(
        daemon.texts(),
        ElementsAre(MatchesRegex("Orvex::Reticor::CStreamSender::Put, object:0x[0-9a-f]+, "
                                 "class:Orvex::Reticor::CStreamSender, put len:5, strem:0x[0-9a-f]+, fd:" +
                                 fd + "\n"),
                    MatchesRegex("Orvex::Reticor::CStreamSender::handle_output, object:0x[0-9a-f]+, "
                                 "class:Orvex::Reticor::CStreamSender, strem:0x[0-9a-f]+, fd:" +
                                 fd + "\n")));
}

// ---- in snapshots ----------------------------------------------------------------------------------------

TEST_F(StreamSender, TellsWhatWaitsWhatWentOutAndWhatWasRefused) {
    using Figures = std::map<std::string, uint64_t>;
    EXPECT_EQ(
        (Figures{{"waiting_bytes", 0}, {"buffer_bytes", CAPACITY}, {"sent_bytes", 0}, {"refused_puts", 0}}),
        figuresOf("stream_sender", sender->GetID()));
    attach();
    sender->Put(text(10).data(), 10);
    backlog(CAPACITY - 5);
    EXPECT_EQ(-1, sender->Put(text(6).data(), 6));
    EXPECT_EQ((Figures{{"waiting_bytes", CAPACITY - 5},
                       {"buffer_bytes", CAPACITY},
                       {"sent_bytes", 10},
                       {"refused_puts", 1}}),
              figuresOf("stream_sender", sender->GetID()));
    sock.setRoom(100);
    sender->handle_output(sock.GetHandle());
    EXPECT_EQ(CAPACITY - 105, figuresOf("stream_sender", sender->GetID())["waiting_bytes"]);
    EXPECT_EQ(110U, figuresOf("stream_sender", sender->GetID())["sent_bytes"]);
    sender->Clear();
    EXPECT_EQ(0U, figuresOf("stream_sender", sender->GetID())["waiting_bytes"]);
    EXPECT_EQ(110U, figuresOf("stream_sender", sender->GetID())["sent_bytes"]);
}

TEST_F(StreamSender, IsNotInSnapshotsAnyMoreWhenItHasGone) {
    CStreamSender* const other = CStreamSender::Create();
    const long id = other->GetID();
    EXPECT_FALSE(figuresOf("stream_sender", id).empty());
    other->Close();
    serveAll();
    EXPECT_TRUE(figuresOf("stream_sender", id).empty());
}

}  // namespace
}  // namespace Orvex::Testing
