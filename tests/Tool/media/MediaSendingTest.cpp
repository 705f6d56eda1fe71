// MediaSending: one turn of a sender over frames, how it ends, and what is said of its end.
#include "Tool/media/MediaSending.h"

#include <cerrno>
#include <cstdio>

#include "Tool/media/FrameLine.h"
#include "support/HandClock.h"
#include "support/LogCapture.h"
#include "support/media/MediaFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

class MediaSendingOfASender : public MediaFixture {
protected:
    ~MediaSendingOfASender() override {
        const MediaStep step(core);
        record.leave_frame();
        own.drop_all();
    }

    // The bytes of a new frame, complete unless told otherwise.
    std::string frame(const std::vector<std::size_t>& lengths, bool whole = true) {
        const CoreGuard guard(*core);
        std::string bytes;
        for (std::size_t i = 0; i < lengths.size(); ++i) {
            TestPacket& made = packet(lengths[i]);
            const bool last = whole && i + 1 == lengths.size();
            own.append(&made, made.length(), last ? MEDIA_MARK_LAST : MEDIA_MARK_MORE, mediaLevel(0, 1));
            bytes += made.bytes();
        }
        if (whole) {
            own.complete();
            own.open_next();
        }
        return bytes;
    }
    CFrame* first() {
        const CoreGuard guard(*core);
        return own.head();
    }
    TurnEnd turn(CFrame* offered) {
        const MediaStep step(core);
        MediaSending made(record);
        const TurnEnd end = made.run(offered);
        made.report();
        return end;
    }
    // One line with this text, which names the room and the operation by which it is known, and the sender.
    void expectLine(const LogCapture& log, const std::string& text, const std::string& operation) const {
        char pointer[32];
        std::snprintf(pointer, sizeof pointer, " this:%p ", static_cast<const void*>(a.sender));
        EXPECT_EQ(1U, log.count(3, text)) << log.dump();
        for (const CapturedLine& line : log.lines()) {
            if (line.text == text) {
                EXPECT_EQ("Src/Tool/MediaSending.cpp", line.file);
                EXPECT_EQ("Orvex::Reticor::CMediaStreamSender::" + operation, line.function);
                EXPECT_NE(std::string::npos, line.start.find(pointer)) << line.start << pointer;
            }
        }
    }

    std::shared_ptr<MediaCore> core = std::make_shared<MediaCore>();
    FrameLine own{*core, this};
    MediaClient& a = client();
    SenderRecord& record = a.state();
};

TEST_F(MediaSendingOfASender, ATurnWritesAllCompleteFramesEachByOneWrite) {
    std::string bytes = frame({3, 4});
    bytes += frame({5});
    frame({2}, false);
    EXPECT_EQ(TurnEnd::DONE, turn(first()));
    EXPECT_EQ(bytes, a.sock.wire()) << "a frame that is being filled is not begun";
    EXPECT_EQ((std::vector<std::size_t>{2, 1}), a.sock.calls());
    EXPECT_EQ(nullptr, record.m_frame);
}

TEST_F(MediaSendingOfASender, ATurnGoesOnWhereTheSocketStopped) {
    const std::string bytes = frame({3, 4});
    a.sock.setRoom(5);
    EXPECT_EQ(TurnEnd::DONE, turn(first()));
    EXPECT_EQ(TurnEnd::BLOCKED, turn(first()));
    EXPECT_EQ(1U, record.m_block_count);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    EXPECT_EQ(TurnEnd::DONE, turn(nullptr));
    EXPECT_EQ(bytes, a.sock.wire());
    EXPECT_EQ(0U, record.m_block_count);
    EXPECT_EQ(bytes.substr(3, 4), std::string(static_cast<char*>(first()->m_iovec[1].iov_base), 4))
        << "the shared list is as it was";
}

TEST_F(MediaSendingOfASender, OtherDataGoesFirstAndEndsATurnThatItBlocks) {
    a.sender->SendOtherData("other", 5);
    const std::string bytes = frame({4});
    a.sock.setRoom(0);
    EXPECT_EQ(TurnEnd::OTHER_BLOCKED, turn(first()));
    a.sock.setRoom(2);
    EXPECT_EQ(TurnEnd::DONE, turn(first()));
    EXPECT_EQ("ot", a.sock.wire()) << "no frame is begun while bytes wait";
    a.sock.setRoom(ShapedStream::UNLIMITED);
    EXPECT_EQ(TurnEnd::DONE, turn(first()));
    EXPECT_EQ("other" + bytes, a.sock.wire());
}

TEST_F(MediaSendingOfASender, OneThatItsProcedureTookOffBeginsNoOtherFrame) {
    struct Taker {
        void take(CMediaPacket*, int, int) INFRA_NO_THREAD_SAFETY_ANALYSIS { record->set_leaving(); }
        SenderRecord* record;
    } taker{&record};
    record.m_procedure.set({&Taker::take, &taker});
    const std::string bytes = frame({4});
    frame({5});
    turn(first());
    EXPECT_EQ(bytes, a.sock.wire());
}

TEST_F(MediaSendingOfASender, TheTailOfTheLastPacketLeadsToTheNextFrame) {
    const std::string bytes = frame({4, 6});
    frame({5});
    a.sock.setRoom(7);
    turn(first());
    char tail[8];
    const MediaStep step(core);
    EXPECT_EQ(-1, MediaSending(record).take_tail(tail, 2));
    EXPECT_EQ(3, MediaSending(record).take_tail(tail, 8));
    EXPECT_EQ(bytes.substr(7), std::string(tail, 3));
    EXPECT_EQ(first()->m_next, record.m_frame);
    EXPECT_EQ(0, MediaSending(record).take_tail(tail, 8)) << "it stands between two frames";
}

// What is said.

TEST_F(MediaSendingOfASender, AFailureIsSaidOnceToWhoeverWaits) {
    record.m_notices.wait_failure(waiter->GetID());
    frame({4});
    a.sock.setRoom(0);
    a.sock.fail(EPIPE);
    const LogCapture log(3);
    EXPECT_EQ(TurnEnd::FAILED, turn(first()));
    EXPECT_EQ((std::vector<SentMessage>{{waiter->GetID(), MEDIA_MSG_SOCKET_FAILED, 0}}), messages());
    EXPECT_EQ(TurnEnd::FAILED, turn(first()));
    EXPECT_TRUE(messages().empty());
    expectLine(log, "MediaStreamSender Send socket exception!\n", "socket_failed");
}

TEST_F(MediaSendingOfASender, AFailureOverOtherDataIsNamedSo) {
    record.m_notices.wait_failure(waiter->GetID());
    a.sender->SendOtherData("other", 5);
    a.sock.setRoom(0);
    a.sock.fail(EPIPE);
    const LogCapture log(3);
    EXPECT_EQ(TurnEnd::OTHER_FAILED, turn(nullptr));
    expectLine(log, "MediaStreamSender check_other_data socket exception!\n", "socket_failed");
    EXPECT_EQ(1U, messages().size());
}

TEST_F(MediaSendingOfASender, AStallIsSaidWhenItsTimeIsOver) {
    HandClock clock;
    record.m_notices.wait_failure(waiter->GetID());
    record.set_send_timeout(1);
    frame({4});
    a.sock.setRoom(0);
    const LogCapture log(3);
    turn(first());
    EXPECT_TRUE(messages().empty());
    clock.advanceUs(1000000);
    EXPECT_EQ(TurnEnd::BLOCKED, turn(nullptr));
    expectLine(log, "MediaStreamSender Send socket exception for timeout!\n", "socket_blocked");
    EXPECT_EQ(1U, messages().size());
}

TEST_F(MediaSendingOfASender, EachHundredthTurnThatBlocksIsSaid) {
    frame({4});
    a.sock.setRoom(0);
    const LogCapture log(3);
    for (int i = 0; i < 199; ++i) {
        turn(first());
    }
    expectLine(log, "MediaStreamSender net warnning 100!\n", "socket_blocked");
    EXPECT_EQ(1U, log.countLevel(3));
}

TEST_F(MediaSendingOfASender, ATurnThatEndsWellSaysNothing) {
    record.m_notices.wait_failure(waiter->GetID());
    frame({4});
    const LogCapture log(9);
    EXPECT_EQ(TurnEnd::DONE, turn(first()));
    EXPECT_EQ(0U, log.lines().size()) << log.dump();
    EXPECT_TRUE(messages().empty());
}

// The sink stands for another thread, which hears of the failure and wishes again while this one is not done.
TEST_F(MediaSendingOfASender, AWishThatIsMadeWhileOneIsAnsweredStands) {
    record.m_notices.wait_failure(waiter->GetID());
    frame({4});
    a.sock.setRoom(0);
    a.sock.fail(EPIPE);
    const Infra::LogSink wishing = {[](void* sender, const Infra::LogLine&) {
                                        static_cast<CMediaStreamSender*>(sender)->WaitException(7);
                                    },
                                    a.sender};
    const Infra::LogSink* const before = Infra::setLogSink(&wishing);
    const int level_before = Infra::setLogLevel(3);
    turn(first());
    Infra::setLogLevel(level_before);
    Infra::setLogSink(before);
    EXPECT_EQ(7, record.m_notices.take_failure_waiter());
}

}  // namespace
}  // namespace Orvex::Testing
