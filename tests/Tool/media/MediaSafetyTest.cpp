// Senders and taps that come, go and come again at awkward moments: nobody touches a frame that has gone, no
// frame is torn, and no packet is released twice.
#include <atomic>
#include <memory>
#include <new>
#include <thread>

#include "support/core/Probes.h"
#include "support/media/MediaFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

using MediaSafety = MediaFixture;

namespace {

struct Hook {
    void call(CMediaPacket*, int, int) { run(); }
    Infra::TFunction3<void, CMediaPacket*, int, int> proc() { return {&Hook::call, this}; }
    std::function<void()> run;
};

class HookTap : public CLevel2Buffer_IF {
public:
    explicit HookTap(std::function<int()> its_run) : run(std::move(its_run)) {}
    int Put(CMediaPacket*, int, int, int) override { return run(); }
    std::function<int()> run;
};

}  // namespace

// Coming again.

TEST_F(MediaSafety, APausedViewerAtTheBeginningOfAFrameGoesOnWithTheNextOne) {
    MediaClient& a = joinedClient();
    a.sock.setRoom(0);
    put(10);
    put(10);
    buffer->DelSender(a.sender);  // the last one: all frames go
    EXPECT_EQ(3U, released.size());
    EXPECT_EQ(nullptr, a.state().m_frame);
    buffer->AddSender(a.sender);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    const std::string bytes = put(10, 1, 5);
    EXPECT_EQ(a.sock.wire(), bytes) << "it does not join again, and so takes any frame";
}

TEST_F(MediaSafety, APausedViewerInTheMiddleOfAFrameEndsItWithoutATear) {
    MediaClient& a = joinedClient();
    Hook finished;
    int calls = 0;
    finished.run = [&calls] { ++calls; };
    a.sender->AttachSendProc(finished.proc());
    a.sock.setRoom(8);
    const std::string first = putFrame({5, 6, 0, 7});
    buffer->DelSender(a.sender);
    EXPECT_EQ(5U, released.size()) << "the packets are not kept for it";
    a.sock.setRoom(6);
    buffer->AddSender(a.sender);
    tick();
    buffer->DelSender(a.sender);  // once more in the middle
    buffer->AddSender(a.sender);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    EXPECT_EQ(0, calls);
    const std::string second = put(10);
    EXPECT_EQ(1, calls);
    EXPECT_EQ(a.sock.wire(), first) << "then it has caught up; the frame on offer was not for it";
    const std::string third = put(10);
    EXPECT_EQ(a.sock.wire(), first + third);
}

TEST_F(MediaSafety, ACursorBetweenTwoPacketsIsInTheMiddleToo) {
    MediaClient& a = joinedClient();
    a.sock.setRoom(5);
    const std::string first = putFrame({5, 6});
    EXPECT_EQ(0, a.state().m_iovec_offset);
    buffer->DelSender(a.sender);
    buffer->AddSender(a.sender);
    a.sender->SendOtherData("other", 5);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ(a.sock.wire(), first + "other");
}

TEST_F(MediaSafety, APausedViewerWithOthersOnTheListKeepsItsPlaceAsLongAsTheFrameLives) {
    MediaClient& a = joinedClient();
    MediaClient& b = client();
    buffer->AddSender(b.sender);
    put(10);
    a.sock.clearWire();
    a.sock.setRoom(4);
    b.sock.setRoom(3);
    const std::string first = put(10);
    const std::string second = put(10);
    buffer->DelSender(a.sender);
    tick(5);
    buffer->AddSender(a.sender);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ(a.sock.wire(), first + second);
    // And again, with the others passing the frame meanwhile.
    a.sock.setRoom(4);
    const std::string third = put(10);
    buffer->DelSender(a.sender);
    b.sock.setRoom(ShapedStream::UNLIMITED);
    put(10);
    EXPECT_EQ(1U, frames());
    buffer->AddSender(a.sender);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ(a.sock.wire(), first + second + third);
}

TEST_F(MediaSafety, APositionFromAnEarlierStreamDeletesNoFrameUnderTheSender) {
    MediaClient& a = joinedClient();
    put(50);
    buffer->DelSender(a.sender);  // at position 60; the stream begins anew
    buffer->AddSender(a.sender);
    a.sock.clearWire();
    a.sock.setRoom(0);
    std::string all;
    for (int i = 0; i < 7; ++i) {
        all += put(10);
    }
    EXPECT_EQ(8U, frames());
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ(a.sock.wire(), all);
}

TEST_F(MediaSafety, ASenderMovesToAnotherBufferInTheMiddleOfAFrame) {
    CMediaBuffer second;
    MediaClient& a = joinedClient();
    a.sock.setRoom(4);
    const std::string first = put(10);
    buffer->DelSender(a.sender);
    second.AddSender(a.sender);
    TestPacket& other = packet(7);
    a.sock.setRoom(0);
    second.Put(&other, 7, 1, 1);
    buffer->Clear();
    a.sock.setRoom(ShapedStream::UNLIMITED);
    second.do_send();
    EXPECT_EQ(a.sock.wire(), first);
    TestPacket& next = packet(8);
    second.Put(&next, 8, 1, 1);
    EXPECT_EQ(a.sock.wire(), first + next.bytes());
    second.DelSender(a.sender);
}

TEST_F(MediaSafety, AFailedSenderKeepsTheTailOfItsPacketAndNoMore) {
    MediaClient& a = joinedClient();
    a.sock.setRoom(8);
    const std::string bytes = putFrame({5, 6, 7});
    a.sock.fail(EPIPE);
    tick();
    EXPECT_EQ(nullptr, a.state().m_list);
    EXPECT_EQ(3U, a.state().m_frame_left);
    char tail[16];
    EXPECT_EQ(3, a.sender->GetTailPacket(tail, 16));
    EXPECT_EQ(std::string(tail, 3), bytes.substr(8, 3));
    EXPECT_EQ(nullptr, a.state().m_frame);
    a.sock.recover();
    a.sock.setRoom(ShapedStream::UNLIMITED);
    a.sock.clearWire();
    buffer->AddSender(a.sender);
    const std::string next = put(10);
    EXPECT_EQ(a.sock.wire(), next);
}

// Handing the socket over.

TEST_F(MediaSafety, TheTailIsThereAfterTheLastSenderLeft) {
    MediaClient& a = joinedClient();
    a.sock.setRoom(8);
    const std::string bytes = putFrame({5, 6, 4});
    buffer->DelSender(a.sender);
    EXPECT_EQ(4U, released.size());
    char tail[16];
    EXPECT_EQ(3, a.sender->GetTailPacket(tail, 16));
    EXPECT_EQ(std::string(tail, 3), bytes.substr(8, 3));
    buffer->AddSender(a.sender);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ(a.sock.wire(), bytes.substr(0, 8) + bytes.substr(11));
}

TEST_F(MediaSafety, AFrameThatATailLedToDoesNotExpireUnderItsSender) {
    MediaClient& a = joinedClient();
    MediaClient& b = client();
    buffer->AddSender(b.sender);
    put(10);
    a.sock.setRoom(4);
    b.sock.setRoom(0);
    put(10, 1, 1);
    const std::string second = put(10, 1, 9);
    char tail[16];
    EXPECT_EQ(6, a.sender->GetTailPacket(tail, 16));
    EXPECT_EQ(0, a.state().m_frame->m_sender_count) << "not counted";
    tick(60);
    EXPECT_EQ(3U, frames());
    a.sock.clearWire();
    a.sock.setRoom(4);
    tick();
    b.sock.setRoom(10 + 3);
    tick();
    EXPECT_EQ(1, b.state().m_frame->m_sender_count);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ(a.sock.wire(), second);
    EXPECT_EQ(0, b.state().m_frame->m_sender_count) << "one was taken back that was never added";
    tick(60);
    EXPECT_EQ(2U, frames()) << "b still stands on it";
    b.sock.setRoom(ShapedStream::UNLIMITED);
    b.sock.clearWire();
    tick();
    EXPECT_EQ(b.sock.wire(), second.substr(3));
}

TEST_F(MediaSafety, ATailTakenWhileAFrameIsFilledDoesNotStepOverThatFrame) {
    MediaClient& a = joinedClient();
    a.sock.setRoom(4);
    put(10);
    const std::string front = put(5, 0, 5);
    char tail[16];
    EXPECT_EQ(6, a.sender->GetTailPacket(tail, 16));
    EXPECT_EQ(20U, a.state().m_send_total);
    EXPECT_EQ(0, a.state().m_lost_mask);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    a.sock.clearWire();
    const std::string back = put(5, 1, 5);
    EXPECT_EQ(a.sock.wire(), front + back);
    EXPECT_EQ(30U, a.state().m_send_total);
}

// Ownership.

TEST_F(MediaSafety, ASenderThatIsClosedOnTheListLivesUntilItIsTakenOff) {
    MediaClient& a = joinedClient();
    MediaClient& b = client();
    EXPECT_EQ(1, HandlerProbe::references(*b.sender));
    buffer->AddSender(b.sender);
    EXPECT_EQ(2, HandlerProbe::references(*b.sender));
    b.sender->AddRef();
    b.sender->Close();
    serveAll();
    EXPECT_EQ(2, HandlerProbe::references(*b.sender));
    const std::string bytes = put(10);
    EXPECT_EQ(b.sock.wire(), bytes) << "it goes on writing";
    buffer->DelSender(b.sender);
    EXPECT_EQ(1, HandlerProbe::references(*b.sender));
    b.sender->DecRef();
    clients.pop_back();
    put(10);
    EXPECT_EQ(20U, a.sock.wire().size());
}

TEST_F(MediaSafety, EveryWayOffTheListDropsTheReference) {
    MediaClient& a = joinedClient();
    MediaClient& b = client();
    MediaClient& c = client();
    for (MediaClient* made : {&b, &c}) {
        buffer->AddSender(made->sender);
    }
    buffer->DelSender(b.sender);
    EXPECT_EQ(1, HandlerProbe::references(*b.sender));
    buffer->DelSender(b.sender);
    EXPECT_EQ(1, HandlerProbe::references(*b.sender)) << "it was not there";
    c.sock.setRoom(0);
    c.sock.fail(EPIPE);
    put(10);
    EXPECT_EQ(1, HandlerProbe::references(*c.sender));
    buffer->Clear();
    EXPECT_EQ(1, HandlerProbe::references(*a.sender));
    buffer->AddSender(a.sender);
    buffer.reset();
    EXPECT_EQ(1, HandlerProbe::references(*a.sender));
}

TEST_F(MediaSafety, ASenderOutlivesItsBuffer) {
    MediaClient& a = joinedClient();
    a.sock.setRoom(4);
    const std::string bytes = put(10);
    buffer.reset();
    EXPECT_EQ(2U, released.size());
    char tail[16];
    EXPECT_EQ(6, a.sender->GetTailPacket(tail, 16));
    EXPECT_EQ(std::string(tail, 6), bytes.substr(4));
    EXPECT_EQ(2U, a.sender->GetStats().frames);
    buffer = std::make_unique<CMediaBuffer>();
    a.sock.setRoom(ShapedStream::UNLIMITED);
    a.sock.clearWire();
    buffer->AddSender(a.sender);
    const std::string next = put(10, 1, 9);
    EXPECT_EQ(a.sock.wire(), next);
}

// Call-backs.

TEST_F(MediaSafety, AProcedureThatTakesItsSenderOffEndsTheWriting) {
    MediaClient& a = joinedClient();
    Hook hook;
    hook.run = [&] {
        buffer->DelSender(a.sender);
        EXPECT_EQ(a.sender->Detach(), &a.sock);  // and now it may be closed
    };
    a.sender->AttachSendProc(hook.proc());
    a.sock.setRoom(0);
    put(10);
    put(10);
    a.sock.setRoom(ShapedStream::UNLIMITED);
    tick();
    EXPECT_EQ(10U, a.sock.wire().size()) << "nothing after it";
    EXPECT_EQ(nullptr, a.state().m_list);
    EXPECT_FALSE(hasSender());
    EXPECT_EQ(3U, released.size());
}

TEST_F(MediaSafety, AProcedureMayTakeAnotherSenderOffAndCloseItsSocket) {
    MediaClient& last = joinedClient();
    MediaClient& first = client();
    buffer->AddSender(first.sender);
    put(10);
    last.sock.clearWire();
    Hook hook;
    hook.run = [&] {
        buffer->DelSender(last.sender);
        last.sender->Detach();
        last.sock.Close();
        last.sender->DetachSendProc();
    };
    first.sender->AttachSendProc(hook.proc());
    put(10);
    first.sender->DetachSendProc();
    put(10);
    EXPECT_EQ("", last.sock.wire());
    EXPECT_EQ(30U, first.sock.wire().size());
    EXPECT_EQ(1U, frames());
}

TEST_F(MediaSafety, SendersThatCallBacksBringAreThereFromTheNextFrameOn) {
    joinedClient();
    MediaClient& b = client();
    HookTap tap([&] {
        buffer->AddSender(b.sender);
        return -1;
    });
    buffer->AddLevel2Buffer(&tap);
    put(10);
    EXPECT_EQ("", b.sock.wire());
    const std::string bytes = put(10);
    EXPECT_EQ(b.sock.wire(), bytes);
    EXPECT_EQ(2, HandlerProbe::references(*b.sender));
}

TEST_F(MediaSafety, ASenderThatComesAndGoesInsideCallBacksIsGone) {
    MediaClient& a = joinedClient();
    MediaClient& b = client();
    Hook hook;
    hook.run = [&] {
        buffer->AddSender(b.sender);
        buffer->DelSender(b.sender);
        buffer->DelSender(a.sender);
        buffer->AddSender(a.sender);
    };
    a.sender->AttachSendProc(hook.proc());
    put(10);
    EXPECT_EQ(nullptr, b.state().m_list);
    EXPECT_EQ(1, HandlerProbe::references(*b.sender));
    EXPECT_NE(nullptr, a.state().m_list);
    EXPECT_EQ(2, HandlerProbe::references(*a.sender));
    a.sender->DetachSendProc();
    a.sock.clearWire();
    const std::string bytes = put(10);
    EXPECT_EQ(a.sock.wire(), bytes);
}

TEST_F(MediaSafety, AReleaseMayTakeTheLastSenderOff) {
    MediaClient& a = joinedClient();
    a.sock.setRoom(0);
    TestPacket& watched = packet(10);
    watched.on_release = [&] { buffer->DelSender(a.sender); };
    buffer->Put(&watched, 10, 1, 1);
    put(10);
    put(10);
    a.sock.setRoom(10);
    tick();
    EXPECT_FALSE(hasSender());
    EXPECT_EQ(4U, released.size());
    EXPECT_EQ(1U, frames());
}

TEST_F(MediaSafety, ATapMayRemoveAndDestroyTheTapBehindIt) {
    int seen = 0;
    auto* const behind = new HookTap([&] {
        ++seen;
        return 0;
    });
    HookTap last([&] {
        ++seen;
        return 0;
    });
    buffer->AddLevel2Buffer(&last);
    buffer->AddLevel2Buffer(behind);
    HookTap front([&] {
        buffer->DelLevel2Buffer(behind);
        delete behind;
        return -1;
    });
    buffer->AddLevel2Buffer(&front);
    put(5);
    EXPECT_EQ(1, seen);
    buffer->DelLevel2Buffer(&last);
}

TEST_F(MediaSafety, ATapMayFeedAnotherBuffer) {
    CMediaBuffer second;
    MediaClient& b = client();
    second.AddSender(b.sender);
    TestPacket& copy = packet(5);
    HookTap tap([&] {
        second.Put(&copy, 5, 1, 1);
        return -1;
    });
    buffer->AddLevel2Buffer(&tap);
    put(5);
    EXPECT_EQ(b.sock.wire(), copy.bytes());
    second.DelSender(b.sender);
}

TEST_F(MediaSafety, GettersAndFrameInfoWorkInsideCallBacks) {
    MediaClient& a = joinedClient();
    Hook hook;
    hook.run = [&] {
        EXPECT_EQ(10U, buffer->GetBufferSize());
        EXPECT_EQ(0, buffer->GetBufferNum());
        EXPECT_EQ(1U, buffer->GetStats().senders);
        EXPECT_EQ(2U, a.sender->GetStats().frames);
        char tail[4];
        EXPECT_EQ(0, a.sender->GetTailPacket(tail, 4));
        putInfo(1);
    };
    a.sender->AttachSendProc(hook.proc());
    put(10);
    EXPECT_EQ(2U, a.sender->GetStats().frames);
}

TEST_F(MediaSafety, AProcedureMayReplaceItself) {
    MediaClient& a = joinedClient();
    Hook second;
    int calls = 0;
    second.run = [&calls] { ++calls; };
    Hook first;
    first.run = [&] { a.sender->AttachSendProc(second.proc()); };
    a.sender->AttachSendProc(first.proc());
    put(10);
    EXPECT_EQ(0, calls);
    put(10);
    EXPECT_EQ(1, calls);
    second.run = [&] { a.sender->DetachSendProc(); };
    put(10);
    put(10);
    EXPECT_FALSE(a.state().m_procedure.is_set());
}

TEST_F(MediaSafety, WhatACallBackMustNotDoAsserts) {
    CMediaBuffer second;
    std::function<void()> deed;
    HookTap tap([&] {
        deed();
        return 0;
    });
    buffer->AddLevel2Buffer(&tap);
    deed = [&] { put(1); };
    EXPECT_DEATH(put(5), "Put or do_send inside a call-back of the same media buffer");
    deed = [&] { buffer->do_send(); };
    EXPECT_DEATH(put(5), "Put or do_send inside a call-back of the same media buffer");
    deed = [&] { buffer->Clear(); };
    EXPECT_DEATH(put(5), "Clear inside a call-back of the same media buffer");
    const char* const text = "must not be switched, nor a buffer destroyed, inside a call-back";
    deed = [&] { buffer->EnableAutoSend(); };
    EXPECT_DEATH(put(5), text);
    deed = [&] { second.DisableAutoSend(); };
    EXPECT_DEATH(put(5), text);
    deed = [&] { second.~CMediaBuffer(); };
    EXPECT_DEATH(put(5), text);
    deed = [&] { CSenderHandler::Add(0, nullptr); };
    EXPECT_DEATH(put(5), text);
    deed = [&] { CSenderHandler::Remove(0, nullptr); };
    EXPECT_DEATH(put(5), text);
    deed = [] {};
    buffer->DelLevel2Buffer(&tap);
}

// Twice on a list.

TEST_F(MediaSafety, ASenderThatIsOnTheListAlreadyStaysWhereItIs) {
    MediaClient& a = joinedClient();
    MediaClient& b = client();
    buffer->AddSender(b.sender);
    LogCapture log(3);
    buffer->AddSender(b.sender);
    buffer->AddSender(a.sender);
    EXPECT_EQ(2U,
              log.countMatching(3, "CMediaBuffer::AddSender, sender:0x[0-9a-f]+ is on the list already\n"));
    EXPECT_EQ(firstSender(), &b.state());
    EXPECT_EQ(b.state().m_next, &a.state());
    EXPECT_EQ(nullptr, a.state().m_next);
    EXPECT_EQ(2, HandlerProbe::references(*a.sender));
    const std::string bytes = put(10);
    EXPECT_EQ(a.sock.wire(), bytes);
}

TEST_F(MediaSafety, ASenderOfAnotherBufferAsserts) {
    MediaClient& a = joinedClient();
    CMediaBuffer second;
    EXPECT_DEATH(second.AddSender(a.sender), "a sender can be on the list of one buffer only");
}

TEST_F(MediaSafety, ATapThatIsOnTheListAlreadyStaysWhereItIs) {
    int seen = 0;
    HookTap first([&] { return ++seen, 0; });
    HookTap second([&] { return ++seen, 0; });
    buffer->AddLevel2Buffer(&first);
    buffer->AddLevel2Buffer(&second);
    LogCapture log(3);
    buffer->AddLevel2Buffer(&first);
    buffer->AddLevel2Buffer(&second);
    EXPECT_EQ(
        2U, log.countMatching(3, "CMediaBuffer::AddLevel2Buffer, tap:0x[0-9a-f]+ is on the list already\n"));
    put(1);
    EXPECT_EQ(2, seen);
    CMediaBuffer other;
    EXPECT_DEATH(other.AddLevel2Buffer(&first), "a tap can be on the list of one buffer only");
    buffer->DelLevel2Buffer(&first);
    buffer->DelLevel2Buffer(&second);
    other.AddLevel2Buffer(&first);
    other.DelLevel2Buffer(&first);
}

// Several buffers.

TEST_F(MediaSafety, TapsThatTakeOverEachOthersViewersDoNotWaitForEachOther) {
    CMediaBuffer second;
    MediaClient& of_first = joinedClient();
    buffer->DelSender(of_first.sender);
    MediaClient& of_second = client();
    second.AddSender(of_second.sender);
    second.DelSender(of_second.sender);
    // Both are inside before either goes on.
    std::atomic<int> inside{0};
    const auto meet = [&inside] {
        ++inside;
        while (inside.load() < 2) {
            std::this_thread::yield();
        }
    };
    HookTap take_second([&] {
        meet();
        buffer->AddSender(of_second.sender);
        return -1;
    });
    HookTap take_first([&] {
        meet();
        second.AddSender(of_first.sender);
        return -1;
    });
    buffer->AddLevel2Buffer(&take_second);
    second.AddLevel2Buffer(&take_first);
    std::vector<int> others_released;
    TestPacket other(0, "of the other", &others_released);
    std::thread producer([&] { second.Put(&other, other.length(), 1, 1); });
    put(10);
    producer.join();
    EXPECT_EQ(state().m_core.get(), of_second.state().m_list);
    EXPECT_EQ(MediaBufferState::of(second).m_core.get(), of_first.state().m_list);
    second.DelSender(of_first.sender);
}

TEST_F(MediaSafety, AProcedureMayMoveItsSenderToAnotherBufferBetweenTwoFrames) {
    CMediaBuffer second;
    MediaClient& a = joinedClient();
    Hook hook;
    hook.run = [&] {
        a.sender->DetachSendProc();
        buffer->DelSender(a.sender);
        second.AddSender(a.sender);
        EXPECT_NE(MediaBufferState::of(second).m_core.get(), a.state().m_list) << "comes when this is over";
    };
    a.sender->AttachSendProc(hook.proc());
    const std::string last = put(10);
    EXPECT_EQ(MediaBufferState::of(second).m_core.get(), a.state().m_list);
    EXPECT_EQ(2, HandlerProbe::references(*a.sender));
    put(10);
    TestPacket& first = packet(7);
    second.Put(&first, 7, 1, 1);
    EXPECT_EQ(last + first.bytes(), a.sock.wire());
    second.DelSender(a.sender);
    EXPECT_EQ(1, HandlerProbe::references(*a.sender));
}

TEST_F(MediaSafety, ASenderThatIsToMoveAndIsTakenOffBeforeDoesNotCome) {
    CMediaBuffer second;
    MediaClient& a = joinedClient();
    Hook hook;
    hook.run = [&] {
        buffer->DelSender(a.sender);
        second.AddSender(a.sender);
        second.DelSender(a.sender);
    };
    a.sender->AttachSendProc(hook.proc());
    put(10);
    EXPECT_EQ(nullptr, a.state().m_list);
    EXPECT_EQ(1, HandlerProbe::references(*a.sender));
    // And back to where it was.
    hook.run = [&] {
        buffer->DelSender(a.sender);
        second.AddSender(a.sender);
        second.DelSender(a.sender);
        buffer->AddSender(a.sender);
    };
    buffer->AddSender(a.sender);
    a.sock.clearWire();
    const std::string before = put(10);
    hook.run = [] {};
    const std::string after = put(10);
    EXPECT_EQ(before + after, a.sock.wire());
    EXPECT_EQ(2, HandlerProbe::references(*a.sender));
}

TEST_F(MediaSafety, ABufferThatGoesBeforeASenderComesIsForgotten) {
    auto second = std::make_unique<CMediaBuffer>();
    MediaClient& a = joinedClient();
    std::atomic<bool> gone{false};
    std::thread owner;
    Hook hook;
    hook.run = [&] {
        buffer->DelSender(a.sender);
        second->AddSender(a.sender);
        owner = std::thread([&] {
            second.reset();
            gone = true;
        });
        while (!gone.load()) {
            std::this_thread::yield();
        }
    };
    a.sender->AttachSendProc(hook.proc());
    put(10);
    owner.join();
    a.sender->DetachSendProc();
    EXPECT_EQ(nullptr, a.state().m_list);
    EXPECT_EQ(1, HandlerProbe::references(*a.sender));
    buffer->AddSender(a.sender);
    a.sock.clearWire();
    const std::string bytes = put(10);
    EXPECT_EQ(bytes, a.sock.wire());
}

TEST_F(MediaSafety, AReleaseInsideTheEndOfABufferLeavesNoSenderOnItsList) {
    MediaClient& a = joinedClient();
    MediaClient& b = joinedClient();
    buffer->DelSender(b.sender);
    a.sock.setRoom(0);
    packet(10).on_release = [&] { buffer->AddSender(b.sender); };
    TestPacket& last = packets.back();
    buffer->Put(&last, 10, 1, 1);
    CMediaBuffer* const dying = buffer.get();
    dying->~CMediaBuffer();
    EXPECT_EQ(nullptr, a.state().m_list);
    EXPECT_EQ(nullptr, b.state().m_list);
    EXPECT_EQ(1, HandlerProbe::references(*b.sender));
    new (dying) CMediaBuffer;
    buffer->AddSender(b.sender);
    b.sock.clearWire();
    const std::string bytes = put(10);
    EXPECT_EQ(bytes, b.sock.wire());
}

TEST_F(MediaSafety, ASenderIsReadAndWrittenUnderTheLockOfTheBufferThatItIsOnNow) {
    constexpr int MOVES = 300;
    CMediaBuffer second;
    MediaClient& a = client();
    std::atomic<bool> moved{false};
    std::thread reader([&] {
        char tail[16];
        for (bool last = false; !last;) {
            last = moved.load();
            EXPECT_LE(a.sender->GetStats().frames, 2U * MOVES);
            EXPECT_LE(a.sender->GetTailPacket(tail, sizeof tail), 10);
        }
    });
    for (int i = 0; i < MOVES; ++i) {
        for (CMediaBuffer* const one : {buffer.get(), &second}) {
            one->AddSender(a.sender);
            TestPacket& made = packet(10);
            one->Put(&made, 10, 1, 1);
            one->DelSender(a.sender);
        }
    }
    moved = true;
    reader.join();
    EXPECT_EQ(2U * MOVES, a.sender->GetStats().frames);
    second.Clear();
}

}  // namespace Orvex::Testing
