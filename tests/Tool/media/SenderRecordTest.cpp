// SenderRecord: cursor, place and links of one sender, on frames that the test makes itself.
#include "Tool/media/SenderRecord.h"

#include "support/HandClock.h"
#include "support/core/Probes.h"
#include "support/media/MediaFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

using Records = std::vector<const SenderRecord*>;
constexpr int CHANNEL = 2;

class SenderRecordOfASender : public MediaFixture {
protected:
    ~SenderRecordOfASender() override {
        const CoreGuard guard(*core);
        for (const auto& one : clients) {
            one->state().leave_frame();
        }
    }

    // A complete frame of packets with these lengths, the next one of its channel.
    CFrame& frame(const std::vector<std::size_t>& lengths) {
        frames.push_back(std::make_unique<CFrame>());
        CFrame& made = *frames.back();
        bytes.clear();
        for (std::size_t i = 0; i < lengths.size(); ++i) {
            TestPacket& one = packet(lengths[i]);
            bytes += one.bytes();
            made.Put(&one, one.length(), i + 1 == lengths.size() ? MEDIA_MARK_LAST : MEDIA_MARK_MORE,
                     mediaLevel(CHANNEL, 5));
        }
        made.m_ordinal = frames.size();
        made.m_channel_begin = channel_bytes;
        channel_bytes += bytes.size();
        return made;
    }
    void take(CFrame& one) INFRA_REQUIRES(CORE_MUTEX) {
        record.take_frame(&one);
        record.settle();
    }
    void sendWhole(CFrame& one) INFRA_REQUIRES(CORE_MUTEX) {
        take(one);
        EXPECT_TRUE(record.note_written(static_cast<uint32_t>(one.m_frame_len)));
        record.end_frame();
        record.settle();
    }
    // What the sender still has to write of the frame that it stands at.
    std::string rest() const {
        std::string found;
        auto skip = static_cast<std::size_t>(record.m_iovec_offset);
        for (auto i = static_cast<uint32_t>(record.m_iovec_index); i < record.m_frame->m_packet_num; ++i) {
            const iovec& entry = record.m_frame->m_iovec[i];
            found.append(static_cast<const char*>(entry.iov_base) + skip, entry.iov_len - skip);
            skip = 0;
        }
        return found;
    }
    static Records standing(const CFrame& one) {
        Records found;
        for (const SenderRecord* entry = one.m_standing; entry != nullptr; entry = entry->m_standing_next) {
            found.push_back(entry);
        }
        return found;
    }

    std::shared_ptr<MediaCore> core = std::make_shared<MediaCore>();
    std::vector<std::unique_ptr<CFrame>> frames;
    std::string bytes;  // Of the last frame made.
    uint64_t channel_bytes = 0;
    SenderRecord& record = client().state();
};

// The cursor.

TEST_F(SenderRecordOfASender, APartialWriteLeavesTheCursorAtTheNextByte) {
    const CoreGuard guard(*core);
    CFrame& one = frame({3, 0, 4});
    take(one);
    EXPECT_EQ(1, one.m_sender_count);
    EXPECT_FALSE(record.note_written(2));
    EXPECT_EQ(bytes.substr(2), rest());
    EXPECT_EQ(5U, record.m_frame_left);
    EXPECT_FALSE(record.note_written(1));
    EXPECT_EQ(bytes.substr(3), rest());
    EXPECT_EQ(2, record.m_iovec_index) << "an entry without bytes is passed along";
    EXPECT_EQ(3, one.m_sent_len);
    EXPECT_TRUE(record.note_written(4));
    EXPECT_EQ(7U, record.m_send_total);
}

TEST_F(SenderRecordOfASender, AnEndedFrameHasNoTraceOfTheSender) {
    const CoreGuard guard(*core);
    CFrame& first = frame({4});
    CFrame& second = frame({5});
    first.m_next = &second;
    take(first);
    EXPECT_TRUE(record.note_written(4));
    EXPECT_EQ(&second, record.end_frame());
    record.settle();
    EXPECT_EQ(0, first.m_sender_count);
    EXPECT_EQ(0, first.m_sent_len);
    EXPECT_EQ(Records{}, standing(first));
    EXPECT_EQ(nullptr, record.m_frame);
    EXPECT_EQ(1U, record.stats().frames);
    EXPECT_EQ(4U, record.stats().bytes);
}

TEST_F(SenderRecordOfASender, AFailureTakesBackWhatCountedAsSent) {
    const CoreGuard guard(*core);
    CFrame& one = frame({4, 4});
    take(one);
    EXPECT_FALSE(record.note_written(5));
    record.take_back_sent();
    EXPECT_EQ(0, one.m_sent_len);
}

TEST_F(SenderRecordOfASender, TheTailOfTheLastPacketEndsTheFrame) {
    const CoreGuard guard(*core);
    CFrame& one = frame({4, 6});
    take(one);
    EXPECT_FALSE(record.note_written(1));
    EXPECT_FALSE(record.pass_tail(3));
    EXPECT_EQ(bytes.substr(4), rest());
    EXPECT_FALSE(record.note_written(2));
    EXPECT_TRUE(record.pass_tail(4));
    record.end_tail();
    EXPECT_EQ(0, one.m_sent_len);
    EXPECT_EQ(10U, record.m_send_total);
    EXPECT_EQ(1U, record.stats().frames);
    EXPECT_EQ(3U, record.stats().bytes) << "tails were written by somebody else";
}

// Frames know who stands on them.

TEST_F(SenderRecordOfASender, AFrameKnowsThoseThatStandOnItWhateverTheirOrderOfLeaving) {
    const CoreGuard guard(*core);
    CFrame& one = frame({4});
    CFrame& other = frame({4});
    SenderRecord& second = client().state();
    SenderRecord& third = client().state();
    for (SenderRecord* each : {&record, &second, &third}) {
        each->take_frame(&one);
        each->settle();
    }
    EXPECT_EQ((Records{&third, &second, &record}), standing(one));
    second.stand_on(&other);
    second.settle();
    EXPECT_EQ((Records{&third, &record}), standing(one));
    EXPECT_EQ(Records{&second}, standing(other));
    third.leave_frame();
    EXPECT_EQ(Records{&record}, standing(one));
    record.leave_frame();
    EXPECT_EQ(Records{}, standing(one));
}

TEST_F(SenderRecordOfASender, WhatIsUnwrittenOfAFrameThatGoesIsKept) {
    const CoreGuard guard(*core);
    CFrame& one = frame({3, 4, 5});
    take(one);
    EXPECT_FALSE(record.note_written(4));
    record.rescue_frame();
    EXPECT_EQ(Records{}, standing(one));
    frames.clear();
    EXPECT_EQ((std::vector<int>{0, 1, 2}), released);
    EXPECT_EQ(bytes.substr(4), rest());
    EXPECT_FALSE(record.at_boundary()) << "it goes on in the middle";
    EXPECT_TRUE(record.note_written(8));
    record.end_frame();
    record.settle();
    EXPECT_EQ(nullptr, record.m_tail);
    EXPECT_EQ(1U, record.stats().frames);
}

TEST_F(SenderRecordOfASender, ACursorBetweenTwoPacketsStaysInTheMiddleOfTheCopy) {
    const CoreGuard guard(*core);
    CFrame& one = frame({3, 4});
    take(one);
    EXPECT_FALSE(record.note_written(3));
    record.rescue_frame();
    EXPECT_EQ(bytes.substr(3), rest());
    EXPECT_FALSE(record.at_boundary());
}

TEST_F(SenderRecordOfASender, AFrameThatWasNotBegunIsGivenUpWhenItGoes) {
    const CoreGuard guard(*core);
    take(frame({3}));
    record.rescue_frame();
    EXPECT_EQ(nullptr, record.m_frame);
    EXPECT_EQ(nullptr, record.m_tail);
}

TEST_F(SenderRecordOfASender, AFailedSenderKeepsTheRestOfItsPacketAtMost) {
    const CoreGuard guard(*core);
    take(frame({3, 4, 5}));
    EXPECT_FALSE(record.note_written(4));
    record.set_failed();
    record.rescue_frame();
    EXPECT_EQ(bytes.substr(4, 3), rest());
    EXPECT_FALSE(record.pass_tail(1));
    record.leave_frame();
    take(frame({3, 4}));
    EXPECT_FALSE(record.note_written(3));
    record.rescue_frame();
    EXPECT_EQ(nullptr, record.m_frame) << "between two packets there is nothing to keep";
}

// The place in the stream.

TEST_F(SenderRecordOfASender, WhatCameBetweenTwoFramesIsSteppedOverOrAHole) {
    const CoreGuard guard(*core);
    sendWhole(frame({10}));
    record.step_over(frame({20}));
    frame({30});  // Gone before the sender came to it.
    CFrame& next = frame({40});
    sendWhole(next);
    const MediaSenderStats stats = record.stats();
    EXPECT_EQ(1U, stats.skipped_frames);
    EXPECT_EQ(20U, stats.skipped_bytes);
    EXPECT_EQ(1U, stats.holes);
    EXPECT_EQ(1U, stats.hole_frames);
    EXPECT_EQ(30U, stats.hole_bytes);
    EXPECT_EQ(0U, stats.skips) << "without the policy nobody has stepped over a gap";
}

TEST_F(SenderRecordOfASender, WithThePolicyAGapIsToldWhenTheNextFrameGoesOut) {
    const CoreGuard guard(*core);
    record.set_policy(100, MediaResume::STRICT, 0);
    record.m_notices.wait_skip(waiter->GetID(), 77);
    sendWhole(frame({10}));
    record.step_over(frame({20}));
    frame({30});
    CFrame& next = frame({40});
    take(next);
    EXPECT_TRUE(messages().empty());
    EXPECT_FALSE(record.note_written(1));
    const std::vector<SentMessage> told = messages();
    ASSERT_EQ(1U, told.size());
    EXPECT_EQ(waiter->GetID(), std::get<0>(told[0]));
    EXPECT_EQ(77U, std::get<1>(told[0]));
    EXPECT_EQ(2U, MediaSkip::of(std::get<2>(told[0])).frames);
    EXPECT_EQ(50U, MediaSkip::of(std::get<2>(told[0])).bytes);
    EXPECT_EQ(1U, record.stats().skips);
}

TEST_F(SenderRecordOfASender, FramesOfAChannelThatWasGivenUpAreNotAGap) {
    const CoreGuard guard(*core);
    sendWhole(frame({10}));
    record.give_up_channel(CHANNEL);
    record.step_over(frame({20}));
    record.choose_channel(-1);
    sendWhole(frame({30}));
    EXPECT_EQ(0U, record.stats().holes);
    EXPECT_EQ(0U, record.stats().skipped_frames);
}

TEST_F(SenderRecordOfASender, AfterAnExpiredFrameItsChannelWaits) {
    const CoreGuard guard(*core);
    CFrame& gone = frame({20});
    record.step_over(gone);
    EXPECT_EQ(0, record.m_lost_mask);
    gone.m_valid = 0;
    record.step_over(gone);
    EXPECT_EQ(1 << CHANNEL, record.m_lost_mask);
    EXPECT_EQ(40U, record.m_send_total);
    record.set_waits(gone, false);
    EXPECT_EQ(0, record.m_lost_mask);
}

TEST_F(SenderRecordOfASender, AStallBeginsWithTheFirstWriteThatWouldBlock) {
    const CoreGuard guard(*core);
    HandClock clock;
    record.set_send_timeout(2);
    record.note_blocked();
    clock.advanceUs(1999999);
    record.note_blocked();
    EXPECT_FALSE(record.has_stalled());
    clock.advanceUs(1);
    EXPECT_TRUE(record.has_stalled());
    EXPECT_EQ(2U, record.m_block_count);
    record.note_unblocked();
    record.note_blocked();
    EXPECT_FALSE(record.has_stalled());
    EXPECT_EQ(1U, record.m_block_count);
}

// Settings and the core.

TEST_F(SenderRecordOfASender, TheProcedureIsCalledForEachFrameUntilItIsDropped) {
    const CoreGuard guard(*core);
    std::vector<int> lengths;
    struct Book {
        void note(CMediaPacket*, int, int len) { lengths->push_back(len); }
        std::vector<int>* lengths;
    } book{&lengths};
    EXPECT_TRUE(record.m_procedure.set({&Book::note, &book}));
    sendWhole(frame({10}));
    sendWhole(frame({20}));
    record.m_procedure.drop();
    sendWhole(frame({30}));
    EXPECT_EQ((std::vector<int>{10, 20}), lengths);
}

TEST_F(SenderRecordOfASender, ItMovesWithTheRestOfItsFrame) {
    CFrame& one = frame({3, 4});
    record.move_to(core);
    {
        const CoreGuard guard(*core);
        take(one);
        EXPECT_FALSE(record.note_written(4));
    }
    const auto second = std::make_shared<MediaCore>();
    record.move_to(second);
    EXPECT_EQ(Records{}, standing(one)) << "the other buffer's frame is free of it";
    EXPECT_EQ(bytes.substr(4), rest());
    EXPECT_EQ(second, record.m_seat.enter());
    EXPECT_TRUE(second->m_mutex.heldByThisThread());
    const MediaStep step(second, MediaStep::ENTERED);
}

// What comes inside call-backs.

struct Arrivals final : StepEnd_IF {
    bool go(CMediaStreamSender&) override { return false; }
    void drop_leaving() override {}
    void come(CMediaStreamSender& sender) override { arrived.push_back(&sender); }
    void go_on(SenderRecord&) override {}
    void stop_waiting(SenderRecord&) override {}
    std::vector<const CMediaStreamSender*> arrived;
};

TEST_F(SenderRecordOfASender, TellsWhetherItHasComeByANewerNote) {
    const auto target = std::make_shared<MediaCore>();
    Arrivals end;
    {
        const CoreGuard guard(*target);
        target->open(end);
    }
    EXPECT_EQ(0U, record.m_coming.notes());
    {
        const MediaStep step(target);
        EXPECT_TRUE(record.m_coming.note(target));
        EXPECT_EQ(1U, record.m_coming.notes());
        EXPECT_FALSE(record.m_coming.note(target));
        EXPECT_EQ(1U, record.m_coming.notes()) << "it is noted once";
        EXPECT_FALSE(record.m_coming.has_come_after(0)) << "it has not come yet";
    }
    EXPECT_TRUE(record.m_coming.has_come_after(0));
    EXPECT_FALSE(record.m_coming.has_come_after(1));
    {
        const MediaStep step(target);
        EXPECT_TRUE(record.m_coming.note(target));
        EXPECT_TRUE(record.m_coming.take_back(*target));
    }
    EXPECT_EQ(2U, record.m_coming.notes());
    EXPECT_FALSE(record.m_coming.has_come_after(1)) << "that was taken back";
}

TEST_F(SenderRecordOfASender, OneThatIsToComeComesWhenTheThreadIsOutOfCallBacks) {
    const auto target = std::make_shared<MediaCore>();
    Arrivals end;
    {
        const CoreGuard guard(*target);
        target->open(end);
    }
    CMediaStreamSender* const sender = record.m_owner;
    {
        const MediaStep step(target);
        EXPECT_TRUE(record.m_coming.note(target));
        EXPECT_FALSE(record.m_coming.note(target)) << "it is noted once";
        EXPECT_TRUE(end.arrived.empty());
        EXPECT_EQ(2, HandlerProbe::references(*sender)) << "it must live until then";
    }
    EXPECT_EQ(std::vector<const CMediaStreamSender*>{sender}, end.arrived);
    EXPECT_EQ(1, HandlerProbe::references(*sender));
    {
        const MediaStep step(target);
        EXPECT_TRUE(record.m_coming.note(target));
        EXPECT_FALSE(record.m_coming.take_back(*core)) << "it was not to come there";
        EXPECT_TRUE(record.m_coming.take_back(*target));
    }
    EXPECT_EQ(1U, end.arrived.size());
    EXPECT_EQ(1, HandlerProbe::references(*sender));
}

}  // namespace
}  // namespace Orvex::Testing
