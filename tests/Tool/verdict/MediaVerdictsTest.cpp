// CMediaVerdicts: all senders, those that have ended, and what is told of one, by a clock of the test's own.
#include <Reticor/MediaVerdicts.h>

#include <cstring>
#include <thread>

#include <Infra/Semaphore.h>
#include <Reticor/Stats.h>

#include "Core/stats/MediaSource.h"
#include "Tool/judge/EndedVerdicts.h"
#include "Tool/verdict/MediaSnapshot.h"
#include "support/HandClock.h"
#include "support/media/MediaFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

using Verdicts = std::vector<SenderVerdict>;

bool keepVerdict(void* context, const SenderVerdict& verdict) {
    static_cast<Verdicts*>(context)->push_back(verdict);
    return true;
}

Verdicts listVerdicts(CMediaBuffer* buffer = nullptr) {
    Verdicts found;
    const int count = CMediaVerdicts::List(&keepVerdict, &found, buffer);
    EXPECT_EQ(count, static_cast<int>(found.size()));
    return found;
}

Verdicts endedVerdicts() {
    Verdicts found;
    const int count = CMediaVerdicts::ListEnded(&keepVerdict, &found);
    EXPECT_EQ(count, static_cast<int>(found.size()));
    return found;
}

class MediaVerdictsOfSenders : public MediaFixture {
protected:
    ~MediaVerdictsOfSenders() override { CMediaVerdicts::SetWindow(10000); }

    // Seconds with a frame and a look at all.
    Verdicts pass(int seconds) {
        Verdicts found;
        for (int i = 0; i < seconds; ++i) {
            clock.advanceUs(1000000);
            put(1000, 1, 1);
            found = listVerdicts();
        }
        return found;
    }
    SenderVerdict verdictOf(const MediaClient& client) {
        SenderVerdict verdict;
        EXPECT_EQ(0, client.sender->GetVerdict(verdict));
        return verdict;
    }
    bool keepsBursts() INFRA_NO_THREAD_SAFETY_ANALYSIS { return state().m_bursts.on(); }
    void end(MediaClient& client) {
        buffer->DelSender(client.sender);
        client.sender->Close();
        serveAll();
        clients.pop_back();
    }

    HandClock clock;
};

}  // namespace

TEST_F(MediaVerdictsOfSenders, AreListedWithThoseThatSufferMostFirst) {
    MediaClient& stuck = joinedClient();
    MediaClient& fine = joinedClient();  // the newest is the first on the list
    stuck.sock.setRoom(0);
    const Verdicts found = pass(4);
    ASSERT_EQ(2U, found.size());
    EXPECT_EQ(stuck.sender->GetID(), found[0].sender);
    EXPECT_EQ(SenderVerdictKind::STALLED, found[0].kind);
    EXPECT_EQ(1U, found[0].listed);
    EXPECT_EQ(4U, found[0].lag_frames);
    EXPECT_EQ(4000U, found[0].lag_bytes);
    EXPECT_EQ(3000000U, found[0].lag_us);
    EXPECT_EQ(3000000U, found[0].quiet_us);
    EXPECT_STREQ("stalled for 3.0 s", found[0].sentence);
    EXPECT_EQ(fine.sender->GetID(), found[1].sender);
    EXPECT_EQ(SenderVerdictKind::KEEPS_UP, found[1].kind);
    EXPECT_EQ(0U, found[1].lag_frames);
    EXPECT_EQ(8000U, found[1].stream_rate);
    EXPECT_EQ(8000U, found[1].taken_rate);
    EXPECT_STREQ("keeps up", found[1].sentence);
    EXPECT_EQ(found[0].buffer, found[1].buffer);
}

TEST_F(MediaVerdictsOfSenders, AreListedForOneBufferAndForAll) {
    const MediaClient& here = joinedClient();
    CMediaBuffer other;
    MediaClient& there = client();
    other.AddSender(there.sender);
    EXPECT_EQ(2U, listVerdicts().size());
    const Verdicts found = listVerdicts(&other);
    ASSERT_EQ(1U, found.size());
    EXPECT_EQ(there.sender->GetID(), found[0].sender);
    EXPECT_EQ(verdictOf(here).buffer + 1, found[0].buffer);
    const auto stop = [](void* context, const SenderVerdict&) { return ++*static_cast<int*>(context) > 1; };
    int calls = 0;
    EXPECT_EQ(2, CMediaVerdicts::List(stop, &calls));
    EXPECT_EQ(1, calls) << "it ends when the call says so";
    other.DelSender(there.sender);
}

TEST_F(MediaVerdictsOfSenders, TellWhenAStalledOneIsHungUpOn) {
    MediaClient& stuck = joinedClient();
    stuck.sender->SetSendTimeout(5);
    stuck.sock.setRoom(0);
    pass(3);
    clock.advanceUs(200000);
    EXPECT_STREQ("stalled for 2.2 s: hung up on in 2.8 s", verdictOf(stuck).sentence);
    clock.advanceUs(4000000);
    EXPECT_EQ(0U, verdictOf(stuck).left_us);
}

TEST_F(MediaVerdictsOfSenders, KnowForHowLongASocketWasFull) {
    MediaClient& one = joinedClient();
    pass(2);
    for (int i = 0; i < 3; ++i) {
        one.sock.setRoom(0);
        put(1000, 1, 1);
        clock.advanceUs(100000);
        one.sock.setRoom(ShapedStream::UNLIMITED);
        tick();
        pass(1);
    }
    EXPECT_EQ(300000U, verdictOf(one).blocked_us);
}

TEST_F(MediaVerdictsOfSenders, OfASenderThatKeepsFramesCountThose) {
    MediaClient& late = joinedClient();
    late.sender->SetResumePolicy(60000);
    put(1000, 1, 1);
    late.sock.setRoom(0);
    EXPECT_EQ(3U, pass(3)[0].lag_frames);
}

TEST_F(MediaVerdictsOfSenders, CostNothingUntilSomebodyLooks) {
    const MediaClient& one = joinedClient();
    put(1000);
    EXPECT_EQ(nullptr, one.state().m_watch);
    EXPECT_FALSE(keepsBursts());
    EXPECT_EQ(SenderVerdictKind::UNKNOWN, verdictOf(one).kind);
    EXPECT_NE(nullptr, one.state().m_watch);
    EXPECT_TRUE(keepsBursts());
}

TEST_F(MediaVerdictsOfSenders, ThatHaveEndedStayKnown) {
    MediaClient& stuck = joinedClient();
    const long id = stuck.sender->GetID();
    stuck.sock.setRoom(0);
    pass(3);
    const std::size_t before = endedVerdicts().size();
    buffer->DelSender(stuck.sender);
    EXPECT_EQ(SenderVerdictKind::STALLED, verdictOf(stuck).kind) << "also off the list";
    EXPECT_EQ(0U, verdictOf(stuck).listed);
    EXPECT_EQ(before, endedVerdicts().size()) << "it may come back";
    stuck.sender->Close();
    serveAll();
    clients.pop_back();
    const Verdicts found = endedVerdicts();
    ASSERT_EQ(before + 1, found.size());
    EXPECT_EQ(id, found[0].sender);
    EXPECT_EQ(SenderVerdictKind::STALLED, found[0].kind);
    EXPECT_EQ(0U, found[0].listed);
    EXPECT_STREQ("stalled for 2.0 s", found[0].sentence);
}

TEST_F(MediaVerdictsOfSenders, ThatFailedAreAmongThoseThatHaveEnded) {
    MediaClient& broken = joinedClient();
    const long id = broken.sender->GetID();
    pass(3);
    broken.sock.fail(ECONNRESET);
    broken.sock.setRoom(0);
    put(1000);
    broken.sender->Close();
    serveAll();
    clients.pop_back();
    const Verdicts found = endedVerdicts();
    ASSERT_FALSE(found.empty());
    EXPECT_EQ(id, found[0].sender);
}

TEST_F(MediaVerdictsOfSenders, AreKeptOfTheLast32ThatWereLookedAt) {
    std::vector<long> ids;
    for (std::size_t i = 0; i < EndedVerdicts::MOST + 1; ++i) {
        MediaClient& one = joinedClient();
        ids.push_back(one.sender->GetID());
        listVerdicts();
        end(one);
    }
    MediaClient& nobodys = joinedClient();
    end(nobodys);
    MediaClient& forgotten = joinedClient();
    listVerdicts();
    clock.advanceUs(10000001);
    end(forgotten);
    const Verdicts found = endedVerdicts();
    ASSERT_EQ(EndedVerdicts::MOST, found.size());
    for (std::size_t i = 0; i < found.size(); ++i) {
        EXPECT_EQ(ids[ids.size() - 1 - i], found[i].sender);
    }
}

TEST_F(MediaVerdictsOfSenders, BeginAnewInAnotherBuffer) {
    MediaClient& one = joinedClient();
    one.sock.setRoom(0);
    pass(3);
    EXPECT_EQ(SenderVerdictKind::STALLED, verdictOf(one).kind);
    CMediaBuffer other;
    buffer->DelSender(one.sender);
    other.AddSender(one.sender);
    EXPECT_EQ(SenderVerdictKind::UNKNOWN, verdictOf(one).kind);
    other.DelSender(one.sender);
}

TEST_F(MediaVerdictsOfSenders, FillWhatTheCallerKnows) {
    const MediaClient& one = joinedClient();
    SenderVerdict verdict;
    std::memset(static_cast<void*>(&verdict), 0x55, sizeof verdict);
    verdict.size = offsetof(SenderVerdict, buffer);
    EXPECT_EQ(0, one.sender->GetVerdict(verdict));
    EXPECT_EQ(one.sender->GetID(), verdict.sender);
    EXPECT_EQ(0x5555555555555555U, verdict.buffer) << "not beyond it";
    verdict.size = 7;
    EXPECT_EQ(-1, one.sender->GetVerdict(verdict));
    struct {
        SenderVerdict known;
        uint64_t later = 77;
    } larger;
    larger.known.size = sizeof larger;
    EXPECT_EQ(0, one.sender->GetVerdict(larger.known));
    EXPECT_EQ(sizeof larger, larger.known.size);
    EXPECT_EQ(0U, larger.later);
}

TEST_F(MediaVerdictsOfSenders, HaveAWindowWithinBounds) {
    EXPECT_EQ(-1, CMediaVerdicts::SetWindow(99));
    EXPECT_EQ(-1, CMediaVerdicts::SetWindow(600001));
    EXPECT_EQ(0, CMediaVerdicts::SetWindow(1000));
    const MediaClient& one = joinedClient();
    for (int i = 0; i < 3; ++i) {
        verdictOf(one);
        clock.advanceUs(100000);
    }
    EXPECT_EQ(SenderVerdictKind::KEEPS_UP, verdictOf(one).kind);
}

TEST_F(MediaVerdictsOfSenders, StayInSnapshotsWhenTheirSendersHaveEnded) {
    const auto ended = [](SenderVerdictKind kind) {
        CStats now;
        EXPECT_EQ(0, now.Take());
        VerdictStats row;
        for (size_t place = 0; now.GetVerdict(place, row) == 0 && row.kind != kind; ++place) {
        }
        return row.ended;
    };
    MediaSource::Set(&MediaSnapshot::gather);
    const uint64_t before = ended(SenderVerdictKind::STALLED);
    MediaClient& stuck = joinedClient();
    stuck.sock.setRoom(0);
    pass(4);
    const long id = stuck.sender->GetID();
    CStats now;
    ASSERT_EQ(0, now.Take());
    SenderVerdict found;
    ASSERT_EQ(0, now.GetSender(0, found));
    EXPECT_EQ(id, found.sender);
    EXPECT_EQ(SenderVerdictKind::STALLED, found.kind);
    end(stuck);
    ASSERT_EQ(0, now.Take());
    EXPECT_EQ(0U, now.GetSenderCount());
    ASSERT_EQ(0, now.GetEndedSender(0, found));
    EXPECT_EQ(id, found.sender);
    EXPECT_EQ(SenderVerdictKind::STALLED, found.kind);
    EXPECT_STREQ("stalled for 3.0 s", found.sentence);
    EXPECT_EQ(before + 1, ended(SenderVerdictKind::STALLED));
    BufferStats buffer_row;
    ASSERT_EQ(0, now.GetBuffer(0, buffer_row));
    EXPECT_EQ(found.buffer, buffer_row.buffer);
    EXPECT_EQ(4010U, buffer_row.put_bytes);
    MediaSource::Set(nullptr);
}

BufferStats rowInSnapshot() {
    MediaRows rows;
    MediaSnapshot::gather(rows);
    EXPECT_EQ(1U, rows.buffers.size());
    return rows.buffers.empty() ? BufferStats{} : rows.buffers[0];
}

TEST_F(MediaVerdictsOfSenders, SnapshotsHaveWhatABufferTellsOfItself) {
    MediaClient& late = joinedClient();
    late.sock.setRoom(0);
    put(1000, 1, 1);
    late.sender->SetResumePolicy(1000);
    MediaClient& other = joinedClient();
    other.sock.setRoom(0);
    for (int i = 0; i < 300; ++i) {
        put(100, 1, i % 25 == 0 ? 1 : 10);
    }
    const MediaBufferStats own = buffer->GetStats();
    const BufferStats row = rowInSnapshot();
    EXPECT_LT(0U, own.expired_frames + own.kept_frames);
    EXPECT_EQ(own.senders, row.senders);
    EXPECT_EQ(own.frames, row.frames);
    EXPECT_EQ(own.bytes, row.bytes);
    EXPECT_EQ(own.byte_total, row.put_bytes);
    EXPECT_EQ(own.expired_frames, row.expired_frames);
    EXPECT_EQ(own.expired_bytes, row.expired_bytes);
    EXPECT_EQ(own.debt_bytes, row.debt_bytes);
    EXPECT_EQ(own.pinned_frames, row.pinned_frames);
    EXPECT_EQ(own.pinned_bytes, row.pinned_bytes);
    EXPECT_EQ(own.kept_frames, row.kept_frames);
    EXPECT_EQ(own.kept_bytes, row.kept_bytes);
}

TEST_F(MediaVerdictsOfSenders, SnapshotsHaveTheFramesThatABufferHolds) {
    EXPECT_EQ(0U, rowInSnapshot().held_frames);
    MediaClient& one = joinedClient();
    EXPECT_EQ(0U, rowInSnapshot().held_bytes) << "it has got all";
    one.sock.setRoom(0);
    put(1000);
    put(500);
    EXPECT_EQ(2U, rowInSnapshot().held_frames);
    EXPECT_EQ(1500U, rowInSnapshot().held_bytes);
    put(70, 0);
    EXPECT_EQ(3U, rowInSnapshot().held_frames) << "with the one that is being filled";
    EXPECT_EQ(1570U, rowInSnapshot().held_bytes);
    EXPECT_EQ(1500U, rowInSnapshot().bytes);
}

// On the list, kept, or on both: a frame counts once.
TEST_F(MediaVerdictsOfSenders, SnapshotsHaveTheFramesThatWaitForLateClientsOnce) {
    buffer->SetStartCache(60000, 1000000);
    put(300);
    put(40, 1, 5);
    EXPECT_EQ(2U, rowInSnapshot().held_frames) << "nobody is there but those that may come";
    EXPECT_EQ(340U, rowInSnapshot().held_bytes);
    MediaClient& late = client();
    buffer->AddSender(late.sender);
    put(10);
    late.sock.setRoom(0);
    put(25);
    MediaBufferStats stats = buffer->GetStats();
    EXPECT_LT(0U, stats.frames);
    EXPECT_LT(0U, stats.kept_frames);
    EXPECT_EQ(stats.kept_frames, rowInSnapshot().held_frames) << "all on the list are kept too";
    EXPECT_EQ(stats.kept_bytes, rowInSnapshot().held_bytes);
    buffer->SetStartCache(0, 0);
    EXPECT_EQ(25U, rowInSnapshot().held_bytes) << "what the list alone has";
}

// Whoever reads snapshots does not hang with a product that hangs.
TEST_F(MediaVerdictsOfSenders, AreInSnapshotsButForBuffersThatHang) {
    const MediaClient& one = joinedClient();
    CMediaBuffer stuck;
    MediaRows rows;
    MediaSnapshot::gather(rows);
    ASSERT_EQ(2U, rows.buffers.size());
    EXPECT_LT(rows.buffers[0].buffer, rows.buffers[1].buffer);
    EXPECT_EQ(1U, rows.buffers[0].senders);
    EXPECT_EQ(10U, rows.buffers[0].put_bytes);
    ASSERT_EQ(1U, rows.senders.size());
    EXPECT_EQ(one.sender->GetID(), rows.senders[0].sender);
    Infra::CSemaphore held{0};
    Infra::CSemaphore over{0};
    std::thread holder([&] {
        const CoreGuard guard(*MediaBufferState::of(stuck).m_core);
        held.post();
        over.pend();
    });
    held.pend();
    MediaRows others;
    std::thread reader([&others] { MediaSnapshot::gather(others); });  // by the real clock
    reader.join();
    EXPECT_EQ(1U, others.buffers.size());
    over.post();
    holder.join();
}

}  // namespace Orvex::Testing
