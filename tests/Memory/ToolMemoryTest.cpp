// Parsers, receivers and shared ticks while memory runs out.
#include <gtest/gtest.h>

#include <vector>

#include <Reticor/MediaStreamReceiver.h>
#include <Reticor/NTimer.h>
#include <Reticor/StrParser.h>

#include "support/PoolFixture.h"
#include "support/memory/MemorySweep.h"

namespace Orvex::Testing {
namespace {

using Reticor::CMediaStreamReceiver;
using Reticor::CNetHandler;
using Reticor::CNTimer;
using Reticor::CNTimerEvent;
using Reticor::CStrParser;

TEST(ParserMemory, AParserWithoutMemoryHasNoTextUntilThereIsSome) {
    sweep([](size_t successes, Extent extent) {
        alignas(16) char room[sizeof(CStrParser)];
        CStrParser* parser = nullptr;
        const Swept swept = withFault(successes, extent, [&] { parser = new (room) CStrParser("a text"); });
        EXPECT_EQ(parser->GetStatus() == 0 ? 6 : 0, parser->GetStringLen());
        EXPECT_EQ(0, parser->Attach("1 other"));
        EXPECT_EQ(0, parser->GetStatus());
        EXPECT_EQ(1, parser->ConsumeInt32());
        parser->~CStrParser();
        return swept.hit;
    });
}

// Beyond the reserve: nothing to work with, and nothing that breaks.
TEST(ParserMemory, ParsersBeyondTheReserveNeverHaveAText) {
    constexpr size_t MANY = 300;
    std::vector<CStrParser*> parsers(MANY);
    std::vector<char> rooms(MANY * sizeof(CStrParser));
    for (int round = 0; round < 2; ++round) {
        size_t with_text = 0;
        withFault(0, Extent::ALL, [&] {
            for (size_t i = 0; i < MANY; ++i) {
                parsers[i] = new (&rooms[i * sizeof(CStrParser)]) CStrParser;
            }
        });
        for (CStrParser* const parser : parsers) {
            if (parser->Attach("word") == 0) {
                ++with_text;
                EXPECT_EQ(0, parser->Compare("word"));
            } else {
                EXPECT_EQ(-1, parser->GetStatus());
                EXPECT_EQ(-1, parser->Append("word"));
                EXPECT_EQ(0, parser->GetStringLen());
                EXPECT_EQ(-1, parser->Compare("word"));
            }
            parser->~CStrParser();
        }
        EXPECT_EQ(256u, with_text);
    }
}

class Receiver : public CMediaStreamReceiver {
public:
    int handle_stream_input() override {
        ++calls;
        return 0;
    }
    int handle_close(CNetHandler*) override {
        ++closes;
        return 0;
    }
    std::atomic<int> calls{0};
    std::atomic<int> closes{0};
};

class Event : public CNTimerEvent {
public:
    int handle_timer_event() override {
        ++calls;
        return 0;
    }
    int handle_close(CNetHandler*) override {
        ++closes;
        return 0;
    }
    std::atomic<int> calls{0};
    std::atomic<int> closes{0};
};

class ToolMemory : public PoolFixture {};

TEST_F(ToolMemory, AReceiverRunsOrSaysThatItCannot) {
    sweep([](size_t successes, Extent extent) {
        const NoRecords none;
        alignas(Receiver) char room[sizeof(Receiver)];
        Receiver* receiver = nullptr;
        int started = 1;
        const Swept swept = withFault(successes, extent, [&] {
            receiver = new (room) Receiver;
            receiver->SetReceiveMode(Reticor::receiver_active);
            receiver->WaitException(0);
            started = receiver->StartReceive(0, 1.0F);
        });
        if (started == 0) {
            EXPECT_EVENTUALLY(receiver->calls > 0);
            receiver->StopReceive();
        } else {
            EXPECT_EQ(-1, started);
            EXPECT_TRUE(swept.hit);
            EXPECT_GE(swept.lines, 1u);
            EXPECT_LE(swept.lines, 2u) << swept.text;
        }
        receiver->Close();
        EXPECT_EVENTUALLY(receiver->closes == 1);
        receiver->~Receiver();
        return swept.hit;
    });
}

TEST_F(ToolMemory, ATickIsMadeOrNull) {
    sweep([](size_t successes, Extent extent) {
        const NoRecords none;
        CNTimer* timer = nullptr;
        const Swept swept = withFault(successes, extent, [&] { timer = CNTimer::Create(3000); });
        EXPECT_EQ(timer == nullptr, swept.lines > 0) << swept.text;
        if (timer == nullptr) {
            EXPECT_TRUE(swept.hit);
            timer = CNTimer::Create(3000);
        }
        auto event = std::make_unique<Event>();
        EXPECT_EQ(0, timer->PushTimerEvent(event.get()));
        event->Start();
        EXPECT_EVENTUALLY(event->calls > 0);
        event->Close();
        EXPECT_EVENTUALLY(event->closes == 1);
        timer->Close();
        return swept.hit;
    });
}

TEST_F(ToolMemory, AnEventIsPushedOrRefused) {
    CNTimer* const timer = CNTimer::Create(3000);
    ASSERT_NE(nullptr, timer);
    sweep([&](size_t successes, Extent extent) {
        const NoRecords none;
        alignas(Event) char room[sizeof(Event)];
        Event* event = nullptr;
        const Swept swept = withFault(successes, extent, [&] { event = new (room) Event; });
        const int pushed = timer->PushTimerEvent(event);
        event->Start();
        if (pushed == 0) {
            EXPECT_EVENTUALLY(event->calls > 0);
        } else {
            EXPECT_EQ(-1, pushed);
            EXPECT_TRUE(swept.hit);
            EXPECT_GE(swept.lines, 1u);
        }
        event->Stop();
        event->Close();
        EXPECT_EVENTUALLY(event->closes == 1);
        event->~Event();
        return swept.hit;
    });
    timer->Close();
}

}  // namespace
}  // namespace Orvex::Testing
