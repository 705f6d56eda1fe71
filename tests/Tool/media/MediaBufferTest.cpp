// CMediaBuffer: what happens to frames between the producer and senders of different speed.
#include <Reticor/MediaBuffer.h>

#include <cstdio>

#include "R3/print/FuncBox.h"
#include "support/debug/DaemonStandIn.h"
#include "support/media/MediaFixture.h"
#include "support/socket/Allocations.h"

namespace Orvex::Testing {

using namespace Reticor;

using MediaBuffer = MediaFixture;

// Takes part in what a buffer sees.
class Tap : public CLevel2Buffer_IF {
public:
    int Put(CMediaPacket* packet, int len, int mark, int level) override {
        seen.emplace_back(packet, len, mark, level);
        return on_put ? on_put() : 0;
    }
    CLevel2Buffer_IF* link() const { return m_next; }

    std::vector<std::tuple<CMediaPacket*, int, int, int>> seen;
    std::function<int()> on_put;
};

TEST_F(MediaBuffer, WithoutSendersACompleteFrameIsReleasedBeforePutReturns) {
    put(5, 0);
    put(6, 0);
    EXPECT_TRUE(released.empty());
    EXPECT_EQ(11U, buffer->GetBufferSize());
    put(7);
    EXPECT_EQ(released, (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(0U, byteTotal());
    EXPECT_EQ(0U, buffer->GetBufferSize());
    EXPECT_EQ(0U, frameNum());
}

TEST_F(MediaBuffer, AFrameGoesToEverySenderAndIsReleasedOnce) {
    MediaClient& a = client();
    MediaClient& b = client();
    buffer->AddSender(a.sender);
    buffer->AddSender(b.sender);
    const std::string bytes = putFrame({5, 6, 0, 7});
    EXPECT_EQ(a.sock.wire(), bytes);
    EXPECT_EQ(b.sock.wire(), bytes);
    EXPECT_EQ(a.sock.calls(), (std::vector<std::size_t>{4})) << "one write for the whole frame";
    EXPECT_EQ(released, (std::vector<int>{0, 1, 2, 3}));
    EXPECT_EQ(1U, frames());
    EXPECT_EQ(0, buffer->GetBufferNum());
}

TEST_F(MediaBuffer, AClientMoreCostsOneWriteAndNoAllocation) {
    const auto allocations_of_a_frame = [this] {
        TestPacket& front = packet(8);
        TestPacket& back = packet(100);
        released.reserve(released.size() + 2);
        const std::size_t before = allocationCount();
        buffer->Put(&front, front.length(), 0, 1);
        buffer->Put(&back, back.length(), 1, 1);
        return allocationCount() - before;
    };
    joinedClient();
    const auto roomy = [this] {
        for (const auto& made : clients) {
            made->sock.reserveWire(100000);
            made->sock.clearCalls();
        }
    };
    roomy();
    allocations_of_a_frame();
    const std::size_t with_one = allocations_of_a_frame();
    for (int i = 0; i < 60; ++i) {
        buffer->AddSender(client().sender);
    }
    roomy();
    allocations_of_a_frame();
    EXPECT_EQ(allocations_of_a_frame(), with_one);
    for (const auto& made : clients) {
        EXPECT_EQ(made->sock.calls(), (std::vector<std::size_t>{2, 2}))
            << "both packets in one write, each time";
    }
}

TEST_F(MediaBuffer, TheNewestSenderIsOfferedAFrameFirst) {
    MediaClient& a = joinedClient();
    MediaClient& b = client();
    buffer->AddSender(b.sender);
    std::vector<char> order;
    struct Note {
        void a(CMediaPacket*, int, int) { order->push_back('a'); }
        void b(CMediaPacket*, int, int) { order->push_back('b'); }
        std::vector<char>* order;
    } note{&order};
    a.sender->AttachSendProc({&Note::a, &note});
    b.sender->AttachSendProc({&Note::b, &note});
    put(10);
    EXPECT_EQ(order, (std::vector<char>{'b', 'a'}));
}

TEST_F(MediaBuffer, ASenderThatComesInTheMiddleOfAFrameWaitsForAKeyFrame) {
    MediaClient& a = joinedClient();  // a key frame of level 1
    put(20, 0, 5);
    MediaClient& b = client();
    buffer->AddSender(b.sender);
    put(21, 1, 5);
    put(22, 1, 5);
    EXPECT_EQ(63U, a.sock.wire().size());
    EXPECT_EQ("", b.sock.wire());
    const std::string key = put(23, 1, 1);
    EXPECT_EQ(b.sock.wire(), key);
    const std::string next = put(24, 1, 5);
    EXPECT_EQ(b.sock.wire(), key + next) << "and from there on it gets everything";
}

TEST_F(MediaBuffer, TheMiddleOfAKeyFrameIsAPlaceToJoin) {
    joinedClient();
    const std::string front = put(20, 0, 1);
    MediaClient& b = client();
    buffer->AddSender(b.sender);
    const std::string back = put(21, 1, 1);
    EXPECT_EQ(b.sock.wire(), front + back) << "it begins with the frame's first byte";
}

TEST_F(MediaBuffer, TheFirstFrameOfAChannelIsAKeyFrame) {
    for (int channel = 0; channel < 8; ++channel) {
        MediaClient& made = client();
        buffer->AddSender(made.sender);
        const std::string bytes = put(10, 1, 10, channel);
        EXPECT_EQ(made.sock.wire(), bytes) << channel;
        buffer->DelSender(made.sender);
    }
}

TEST_F(MediaBuffer, LevelsAreClampedForTheFrameAndNotForTheTap) {
    Tap tap;
    buffer->AddLevel2Buffer(&tap);
    MediaClient& a = joinedClient();
    a.sock.setRoom(0);
    const CFrame* frame = current();
    const std::vector<std::pair<int, int>> levels = {{0, 1}, {-3, 1}, {11, 10}, {12, 10}, {1, 1}, {10, 10}};
    for (const auto& [given, stored] : levels) {
        put(1, 1, given, 2);
        EXPECT_EQ(frame->level(), stored) << given;
        EXPECT_EQ(2, frame->channel()) << given;
        EXPECT_EQ(std::get<3>(tap.seen.back()), mediaLevel(2, given));
        frame = frame->m_next;
    }
    buffer->DelLevel2Buffer(&tap);
}

TEST_F(MediaBuffer, KeyFramesAreThoseOfTheLowestLevelSoFarForEver) {
    MediaClient& a = joinedClient();
    a.sock.setRoom(0);
    const auto key_mask = [this](int level, int channel) {
        const CFrame* frame = current();
        put(1, 1, level, channel);
        return static_cast<int>(frame->m_key_mask);
    };
    EXPECT_EQ(8, key_mask(4, 3));
    EXPECT_EQ(0, key_mask(6, 3));
    EXPECT_EQ(8, key_mask(4, 3));
    EXPECT_EQ(8, key_mask(2, 3));
    EXPECT_EQ(0, key_mask(4, 3));
    EXPECT_EQ(32, key_mask(4, 5)) << "each channel has its own";
    buffer->DelSender(a.sender);
    for (int i = 0; i < 3; ++i) {
        buffer->Clear();
        EXPECT_EQ(2, minLevel(3));
        put(1, 1, 4, 3);
    }
    EXPECT_EQ(2, minLevel(3));
}

TEST_F(MediaBuffer, AChannelBeyondSevenAssertsOnTheLastPacketOnly) {
    put(1, 0, 1, 8);
    put(1, 0, 1, 200);
    EXPECT_DEATH(put(1, 1, 1, 8), "channel <= 7 && channel >= 0");
    EXPECT_DEATH(put(1, 1, 1, 255), "channel <= 7 && channel >= 0");
}

TEST_F(MediaBuffer, ANegativeLengthAsserts) {
    EXPECT_DEATH(buffer->Put(&packet(1), -5, 1, 1), "len >= 0");
}

TEST_F(MediaBuffer, ASenderThatJoinsInAGapTakesTheNextFrameOfAnyLevel) {
    joinedClient();
    MediaClient& b = client();
    buffer->AddSender(b.sender);
    const CFrame* gap = current();
    tick();
    EXPECT_EQ(b.state().m_send_total, byteTotal());
    EXPECT_EQ(nullptr, b.state().m_frame);
    EXPECT_EQ(1, gap->m_sender_count);
    const std::string bytes = put(20, 1, 5);
    EXPECT_EQ(b.sock.wire(), bytes) << "not a key frame";
    // The empty frame was counted and is not given back, so it outlives its age.
    clients[0]->sock.setRoom(0);
    put(20, 1, 10);
    EXPECT_EQ(0, current()->m_sender_count);
}

TEST_F(MediaBuffer, AFrameThatAGapJoinCountedNeverExpires) {
    MediaClient& a = joinedClient();
    a.sock.setRoom(0);
    put(20, 1, 1);  // where a stands for the rest of the case
    MediaClient& b = client();
    buffer->AddSender(b.sender);
    tick();
    put(20, 1, 10);
    tick(300);
    EXPECT_EQ(3U, frames()) << "a's, the counted one, and the empty one";
    EXPECT_EQ(1U, buffer->GetStats().pinned_frames);
    EXPECT_EQ(20U, buffer->GetStats().pinned_bytes);
}

TEST_F(MediaBuffer, WithoutAutoSendClientsBeginAtAKeyFrameWithItMostlyNot) {
    // 25 frames a second with a key frame every 50, a tick in each gap.
    const auto begins_at_key = [this](bool ticks) {
        int at_key = 0;
        for (int i = 0; i < 500; ++i) {
            MediaClient& made = client();
            buffer->AddSender(made.sender);
            if (ticks) {
                tick();
            }
            int frame = i;
            do {
                put(8, 1, frame % 50 == 0 ? 1 : 5);
            } while (made.sock.wire().empty() && ++frame != 0);
            at_key += frame % 50 == 0 ? 1 : 0;
            buffer->DelSender(made.sender);
            made.sender->Close();
            serveAll();
            clients.erase(clients.begin() + 1);
        }
        return at_key;
    };
    joinedClient();
    EXPECT_EQ(500, begins_at_key(false));
    EXPECT_EQ(10, begins_at_key(true)) << "every 50th";
}

TEST_F(MediaBuffer, ASenderAtPositionZeroThatWroteNothingIsJoinedAgain) {
    MediaClient& a = client();
    a.sock.setRoom(0);
    buffer->AddSender(a.sender);
    const CFrame* first = current();
    put(10);
    EXPECT_EQ(a.state().m_frame, first);
    EXPECT_EQ(0U, a.state().m_send_total);
    put(10, 1, 5);
    EXPECT_EQ(nullptr, a.state().m_frame) << "the frame does not qualify: not joined, and so no frame";
    EXPECT_EQ(1, first->m_sender_count) << "stays raised";
    const CFrame* third = current();
    put(10, 1, 1);
    EXPECT_EQ(a.state().m_frame, third);
    EXPECT_EQ(20U, a.state().m_send_total);
    EXPECT_EQ(1, third->m_sender_count);
    EXPECT_EQ(2U, frames()) << "what lies before its place is let go";
}

TEST_F(MediaBuffer, DoSendWhileAFrameIsHalfFilledDoesNothing) {
    MediaClient& a = joinedClient();
    a.sock.setRoom(0);
    const CFrame* frame = current();
    put(10, 1, 10);
    const int age = frame->m_age;
    put(5, 0);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    a.sock.clearCalls();
    tick(20);
    EXPECT_EQ(frame->m_age, age);
    EXPECT_TRUE(a.sock.calls().empty());
    put(5);
    EXPECT_EQ(20U, a.sock.wire().size());
}

TEST_F(MediaBuffer, DoSendWithoutSendersAgesAndKeepsTheEmptyFrame) {
    MediaClient& a = joinedClient();
    const CFrame* empty = current();
    buffer->DelSender(a.sender);
    EXPECT_TRUE(sendReady());
    EXPECT_FALSE(hasSender());
    tick(3);
    EXPECT_EQ(current(), empty);
    EXPECT_EQ(head(), empty);
    EXPECT_EQ(1U, frames());
}

TEST_F(MediaBuffer, ClearWithSendersBehindItKeepsFramesUntilTheirAge) {
    MediaClient& a = joinedClient();
    LogCapture log(3);
    buffer->Clear();
    EXPECT_TRUE(log.containsMatching(3,
                                     ".*Src/Tool/MediaBuffer\\.cpp:\\d+ Orvex::Reticor::CMediaBuffer::Clear "
                                     "m_sender_header:0x[0-9a-f]+ not null\n"));
    EXPECT_TRUE(hasSender());
    EXPECT_EQ(nullptr, a.state().m_list);
    put(10, 1, 10);
    put(10, 1, 10);
    EXPECT_EQ(3U, frames());
    tick(8);
    EXPECT_EQ(3U, frames());
    tick();
    EXPECT_EQ(2U, frames()) << "the tenth tick after its own";
    tick();
    EXPECT_EQ(1U, frames());
}

TEST_F(MediaBuffer, ClearReleasesEverythingAndSaysWhatWasLeft) {
    Tap tap;
    buffer->AddLevel2Buffer(&tap);
    MediaClient& a = joinedClient();
    a.sock.setRoom(0);
    put(10);
    put(10);
    put(3, 0);
    released.clear();
    LogCapture log(3);
    buffer->Clear();
    EXPECT_EQ(released, (std::vector<int>{1, 2, 3}));
    EXPECT_TRUE(log.containsMatching(3,
                                     ".*Src/Tool/MediaBuffer\\.cpp:\\d+ Orvex::Reticor::CMediaBuffer::Clear "
                                     "m_buffer_header:0x[0-9a-f]+ not null\n"));
    EXPECT_EQ(3U, log.countMatching(3,
                                    ".*Src/Tool/MediaBuffer\\.cpp:\\d+ Orvex::Reticor::CMediaBuffer::Clear "
                                    "CMediaBuffer::Clear,m_frame_header:0x[0-9a-f]+\n"));
    EXPECT_EQ(nullptr, head());
    EXPECT_EQ(nullptr, current());
    EXPECT_EQ(0U, frameNum());
    EXPECT_EQ(0U, byteTotal());
    EXPECT_EQ(0U, byteDiscard());
    EXPECT_FALSE(sendReady()) << "left as it was";
    put(3);
    EXPECT_EQ(4U, tap.seen.size()) << "the tap is off the list";
}

TEST_F(MediaBuffer, ASenderThatIsAddedAgainAfterClearKeepsItsPosition) {
    MediaClient& a = joinedClient();
    put(100);
    buffer->DelSender(a.sender);
    buffer->Clear();
    const uint64_t position = a.state().m_send_total;
    EXPECT_EQ(110U, position);
    buffer->AddSender(a.sender);
    a.sock.clearWire();
    const std::string bytes = put(10, 1, 5);
    EXPECT_EQ(a.sock.wire(), bytes) << "it does not join again";
    EXPECT_EQ(120U, a.state().m_send_total);
    EXPECT_EQ(2U, frames()) << "beyond the stream's end, its position has no effect on the discard";
}

TEST_F(MediaBuffer, FramesExpireAtTheAgeOfTheirLevel) {
    for (int level = 1; level <= 10; ++level) {
        CMediaBuffer own;
        MediaClient& slow = client();
        own.AddSender(slow.sender);
        slow.sock.setRoom(3);
        own.Put(&packet(10), 10, 1, 1);  // where the client stands
        TestPacket& watched = packet(10);
        own.Put(&watched, 10, 1, level);  // its first tick
        int ticks = 1;
        while (watched.releases == 0 && ticks < 200) {
            own.do_send();
            ++ticks;
        }
        EXPECT_EQ(ticks, (11 - level) * 10 + 1) << "level " << level;
        own.DelSender(slow.sender);
    }
}

TEST_F(MediaBuffer, AFrameOnWhichASenderStandsAgesAndStays) {
    MediaClient& a = joinedClient();
    a.sock.setRoom(0);
    const CFrame* frame = current();
    put(10, 1, 10);
    tick(50);
    EXPECT_EQ(1, frame->m_valid);
    EXPECT_EQ(50, frame->m_age);
    a.sock.setRoom(10);
    tick();
    EXPECT_EQ(1U, frames());
}

TEST_F(MediaBuffer, ExpiryLeavesAHoleThatTheSenderDoesNotNotice) {
    MediaClient& a = joinedClient();
    a.sock.setRoom(3);
    const std::string first = put(10, 1, 1);
    put(10, 1, 10);
    tick(10);
    EXPECT_EQ(2U, frames()) << "the level-10 frame is gone";
    const std::string third = put(10, 1, 5);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ(a.sock.wire(), first + third);
    EXPECT_EQ(0, a.state().m_lost_mask);
    EXPECT_EQ(1U, a.sender->GetStats().holes);
    EXPECT_EQ(1U, a.sender->GetStats().hole_frames);
    EXPECT_EQ(10U, a.sender->GetStats().hole_bytes);
}

TEST_F(MediaBuffer, ExpiredBytesDelayTheDiscardForAsLongAsTheClientStays) {
    MediaClient& a = joinedClient();
    a.sock.setRoom(3);
    put(10, 1, 1);
    put(50, 1, 10);
    tick(10);  // 50 bytes expire before the client
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ(nullptr, a.state().m_frame);
    EXPECT_EQ(2U, frames()) << "a frame that everybody has finished stays";
    EXPECT_EQ(40U, buffer->GetStats().debt_bytes);
    for (int i = 0; i < 4; ++i) {
        put(10, 1, 5);
    }
    EXPECT_EQ(6U, frames());
    put(10, 1, 5);
    EXPECT_EQ(6U, frames()) << "50 bytes late, always";
    tick(200);
    EXPECT_EQ(1U, frames()) << "they leave by their age";
}

TEST_F(MediaBuffer, GettersStopAtTheFirstFrameWithoutBytes) {
    MediaClient& a = joinedClient();
    a.sock.setRoom(0);
    put(10);
    put(0);
    put(20);
    EXPECT_EQ(10U, buffer->GetBufferSize());
    EXPECT_EQ(1, buffer->GetBufferNum());
    EXPECT_EQ(4U, frames());
}

TEST_F(MediaBuffer, ALastPacketWithoutBytesCompletesAndAgesNothing) {
    MediaClient& a = joinedClient();
    a.sock.setRoom(0);
    const CFrame* first = current();
    put(10);
    EXPECT_EQ(0, first->m_age);
    const CFrame* second = current();
    put(10, 0);
    put(0);
    EXPECT_EQ(1, second->m_valid);
    EXPECT_EQ(0, first->m_age);
    put(1);
    EXPECT_EQ(1, first->m_age);
}

TEST_F(MediaBuffer, FramesWithoutAByteAreLetGoAfterTheStepsOfTheirLevel) {
    MediaClient& a = joinedClient();
    LogCapture log(3);
    TestPacket& nothing = packet(0);
    buffer->Put(&nothing, 0, 1, 10);
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(0, nothing.releases) << i;
        put(10, 1, 5);
    }
    EXPECT_EQ(1, nothing.releases);
    EXPECT_TRUE(log.containsMatching(3, "CMediaBuffer, frame:0x[0-9a-f]+ without a byte is let go\n"));
    put(10, 1, 5);
    tick();
    EXPECT_EQ(1U, frames()) << "and with it what had gathered after it";
    EXPECT_EQ(100U, a.sock.wire().size());
}

TEST_F(MediaBuffer, ItsLinesNameTheOperationsByWhichTheyAreKnownAndTheBuffer) {
    Tap tap;
    buffer->AddLevel2Buffer(&tap);
    MediaClient& a = joinedClient();
    LogCapture log(3);
    buffer->AddSender(a.sender);
    buffer->AddLevel2Buffer(&tap);
    put(0, 1, 10);
    for (int i = 0; i < 9; ++i) {
        put(10, 1, 5);
    }
    buffer->DelLevel2Buffer(&tap);
    char pointer[32];
    std::snprintf(pointer, sizeof pointer, " this:%p ", static_cast<const void*>(buffer.get()));
    std::vector<std::string> functions;
    for (const CapturedLine& line : log.lines()) {
        EXPECT_EQ("Src/Tool/MediaBuffer.cpp", line.file);
        EXPECT_NE(std::string::npos, line.start.find(pointer)) << line.start << pointer;
        functions.push_back(line.function.substr(line.function.rfind(':') + 1));
    }
    EXPECT_EQ((std::vector<std::string>{"AddSender", "AddLevel2Buffer", "expire_hollow_frames"}), functions);
}

TEST_F(MediaBuffer, FramesWithoutAByteDoNotMakeTheBufferGrowForEver) {
    joinedClient();
    unsigned most = 0;
    for (int i = 0; i < 3000; ++i) {
        put(i % 3 == 0 ? 0 : 10, 1, i % 2 == 0 ? 1 : 7);
        most = std::max(most, frameNum());
    }
    EXPECT_LE(most, 205U);
}

TEST_F(MediaBuffer, BufferNumIsOfTheLastSendingStep) {
    MediaClient& a = joinedClient();
    a.sock.setRoom(5);
    put(10);
    EXPECT_EQ(1, buffer->GetBufferNum());
    put(10, 0);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ(1, buffer->GetBufferNum()) << "half a frame is there: no step";
    put(10);
    EXPECT_EQ(0, buffer->GetBufferNum());
}

TEST_F(MediaBuffer, FrameInfoGoesWithTheFrameThatIsBeingFilled) {
    MediaClient& a = joinedClient();
    std::vector<std::tuple<CMediaPacket*, int, int>> calls;
    struct Note {
        void operator()(CMediaPacket* packet, int arg, int len) { calls->emplace_back(packet, arg, len); }
        void call(CMediaPacket* packet, int arg, int len) { (*this)(packet, arg, len); }
        std::vector<std::tuple<CMediaPacket*, int, int>>* calls;
    } note{&calls};
    a.sender->AttachSendProc({&Note::call, &note});
    TestPacket& first = putInfo(41);
    TestPacket& second = putInfo(42);
    EXPECT_EQ(1, first.releases);
    EXPECT_EQ(0, buffer->PutFrameInfo(nullptr, 43)) << "changes nothing";
    put(7);
    put(8);
    ASSERT_EQ(2U, calls.size());
    EXPECT_EQ(calls[0], std::make_tuple(static_cast<CMediaPacket*>(&second), 42, 7));
    EXPECT_EQ(calls[1], std::make_tuple(static_cast<CMediaPacket*>(nullptr), 0, 8));
    EXPECT_EQ(1, second.releases);
    buffer->DelSender(a.sender);
    buffer->Clear();
    putInfo(1);
    EXPECT_EQ(1U, frameNum()) << "it makes the frame that it belongs to";
}

TEST_F(MediaBuffer, TapsSeeEveryPacketAndLeaveWithANegativeResult) {
    Tap first;
    Tap second;
    buffer->AddLevel2Buffer(&first);
    buffer->AddLevel2Buffer(&second);
    put(3, 0, 5, 2);
    EXPECT_EQ(1U, first.seen.size());
    EXPECT_EQ(first.seen[0],
              std::make_tuple(static_cast<CMediaPacket*>(&packets[0]), 3, 0, mediaLevel(2, 5)));
    second.on_put = [] { return -1; };
    put(3);
    put(3);
    EXPECT_EQ(3U, first.seen.size());
    EXPECT_EQ(2U, second.seen.size());
    EXPECT_EQ(nullptr, second.link());
    buffer->DelLevel2Buffer(&second);
    buffer->DelLevel2Buffer(&first);
    put(3);
    EXPECT_EQ(3U, first.seen.size());
}

TEST_F(MediaBuffer, ACopyOfATapPointsIntoTheListAndIsOnNone) {
    Tap first;
    Tap second;
    buffer->AddLevel2Buffer(&first);
    buffer->AddLevel2Buffer(&second);
    Tap copy(second);
    EXPECT_EQ(copy.link(), &first);
    Tap assigned;
    assigned = second;
    EXPECT_EQ(assigned.link(), &first);
    buffer->AddLevel2Buffer(&copy);
    put(3);
    EXPECT_EQ(1U, copy.seen.size());
    EXPECT_EQ(1U, first.seen.size());
    for (Tap* tap : {&first, &second, &copy}) {
        buffer->DelLevel2Buffer(tap);
    }
}

TEST_F(MediaBuffer, AFailedSenderLeavesTheListAndTheOthersGoOn) {
    MediaClient& a = joinedClient();
    MediaClient& b = client();
    MediaClient& c = client();
    buffer->AddSender(b.sender);
    buffer->AddSender(c.sender);
    b.sender->WaitException(waiter->GetID());
    put(10);
    b.sock.setRoom(4);
    put(10);
    b.sock.setRoom(0);
    b.sock.fail(EPIPE);
    LogCapture log(3);
    const std::string bytes = put(10);
    EXPECT_TRUE(log.contains(3, "MediaStreamSender Send socket exception!\n"));
    EXPECT_EQ(messages(), (std::vector<SentMessage>{{waiter->GetID(), 2, 0}}));
    EXPECT_EQ(nullptr, b.state().m_list);
    EXPECT_EQ(30U, a.sock.wire().size());
    EXPECT_EQ(30U, c.sock.wire().size());
    put(10);
    EXPECT_EQ(14U, b.sock.wire().size());
    EXPECT_EQ(head(), current()) << "nothing is kept for it";
}

TEST_F(MediaBuffer, WhenTheLastSenderFailsAllCompleteFramesGo) {
    MediaClient& a = joinedClient();
    a.sock.setRoom(4);
    put(10);
    put(10);
    a.sock.setRoom(0);
    a.sock.fail(ECONNRESET);
    tick();
    EXPECT_FALSE(hasSender());
    EXPECT_EQ(3U, released.size());
    EXPECT_EQ(1U, frames());
    EXPECT_EQ(0U, byteTotal());
}

TEST_F(MediaBuffer, PrintsWhatItDoesWhileTheFlagIsSet) {
    DaemonStandIn daemon;
    joinedClient();
    EXPECT_TRUE(daemon.texts().empty());
    const TFuncEntry* command = g_r3_funcbox->Find("MediaBufferPrt");
    ASSERT_NE(nullptr, command);
    command->func(1, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    TestPacket& made = packet(3);
    buffer->Put(&made, 3, 1, mediaLevel(1, 5));
    char expected[200];
    std::snprintf(expected, sizeof expected,
                  "Orvex::Reticor::CMediaBuffer::put, %p put packet to buffer, packet :%p, len:3, mark:1, "
                  "level:1000005!\n",
                  static_cast<void*>(buffer.get()), static_cast<void*>(&made));
    std::vector<std::string> texts = daemon.texts();
    EXPECT_NE(std::find(texts.begin(), texts.end(), expected), texts.end());
    const auto printed = [&daemon](const std::string& start) {
        int count = 0;
        for (const std::string& text : daemon.texts()) {
            count += text.rfind(start, 0) == 0 ? 1 : 0;
        }
        return count;
    };
    tick();
    EXPECT_EQ(1, printed("Orvex::Reticor::CFrame::Put, Frame:0x"));
    EXPECT_EQ(1, printed("Orvex::Reticor::CMediaBuffer::do_send, 0x"));
    EXPECT_EQ(2, printed("Orvex::Reticor::CMediaStreamSender::Send, media strem sender 0x"));
    EXPECT_GE(printed("Orvex::Reticor::CMediaBuffer::send_packet, 0x"), 8);
    clients[0]->sock.setRoom(0);
    put(10, 1, 10);
    put(10, 1, 10);
    EXPECT_EQ(1, printed("Orvex::Reticor::CMediaBuffer::check_valid_frames, check valid frames0x"));
    tick(11);
    EXPECT_EQ(1, printed("Orvex::Reticor::CMediaBuffer::rebuild_frame_list, 0x"));
    command->func(0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    const std::size_t before = daemon.texts().size();
    put(10);
    EXPECT_EQ(daemon.texts().size(), before);
}

}  // namespace Orvex::Testing
