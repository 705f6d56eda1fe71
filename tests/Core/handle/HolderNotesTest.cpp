// HolderNotes: counts by place, room for sixteen, and whose calls are noted at all.
#include "Core/handle/HolderNotes.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <map>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "Core/handle/HandlerInternal.h"
#include "Core/handle/HandlerPin.h"
#include "support/PoolFixture.h"
#include "support/SeededRandom.h"
#include "support/core/SocketPair.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

// Taken and given back.
using PlaceCounts = std::pair<uint64_t, uint64_t>;

std::map<uintptr_t, PlaceCounts> placeCountsOf(const HolderNotes& notes) {
    std::map<uintptr_t, PlaceCounts> found;
    notes.ForEach([&](uintptr_t address, uint64_t taken, uint64_t given_back) {
        EXPECT_TRUE(found.emplace(address, PlaceCounts{taken, given_back}).second) << "a place twice";
    });
    return found;
}

const void* asPlace(uintptr_t address) {
    return reinterpret_cast<const void*>(address);
}

// Handlers get notes while it lives.
struct NotesOn {
    NotesOn() { CNetThread::SetHolderNotes(true); }
    ~NotesOn() { CNetThread::SetHolderNotes(false); }
    NotesOn(const NotesOn&) = delete;
    NotesOn& operator=(const NotesOn&) = delete;
};

// ---- the table

TEST(HolderNotes, ThereAreNoneUntilTheyAreSwitchedOnAndNoneAfterThat) {
    EXPECT_EQ(nullptr, HolderNotes::Create());
    HolderNotes::Switch(true);
    HolderNotes* const notes = HolderNotes::Create();
    HolderNotes::Switch(false);
    ASSERT_NE(nullptr, notes);
    EXPECT_EQ(nullptr, HolderNotes::Create());
    EXPECT_TRUE(placeCountsOf(*notes).empty());
    notes->Drop();
}

class HolderNotesTable : public testing::Test {
protected:
    void SetUp() override {
        const NotesOn on;
        notes = HolderNotes::Create();
        ASSERT_NE(nullptr, notes);
    }
    void TearDown() override { notes->Drop(); }
    HolderNotes* notes = nullptr;
};

TEST_F(HolderNotesTable, EachPlaceHasItsOwnCounts) {
    notes->NoteTaken(asPlace(0x100));
    notes->NoteTaken(asPlace(0x100));
    notes->NoteGivenBack(asPlace(0x200));
    notes->NoteGivenBack(asPlace(0x100));
    const std::map<uintptr_t, PlaceCounts> wanted{{0x100, {2, 1}}, {0x200, {0, 1}}};
    EXPECT_EQ(wanted, placeCountsOf(*notes));
}

TEST_F(HolderNotesTable, SixteenPlacesHaveCountsAndAllFurtherOnesAreCountedTogether) {
    for (uintptr_t address = 1; address <= HolderNotes::PLACES + 3; ++address) {
        notes->NoteTaken(asPlace(address));
    }
    notes->NoteGivenBack(asPlace(HolderNotes::PLACES + 2));
    notes->NoteGivenBack(asPlace(HolderNotes::PLACES));
    std::map<uintptr_t, PlaceCounts> wanted;
    for (uintptr_t address = 1; address <= HolderNotes::PLACES; ++address) {
        wanted[address] = {1, address == HolderNotes::PLACES ? 1 : 0};
    }
    wanted[0] = {3, 1};
    EXPECT_EQ(16u, HolderNotes::PLACES);
    EXPECT_EQ(wanted, placeCountsOf(*notes));
}

TEST_F(HolderNotesTable, CountsAsAMapDoesWhateverTheOrder) {
    SeededRandom random;
    std::map<uintptr_t, PlaceCounts> model;
    std::set<uintptr_t> placed;
    for (int round = 0; round < 5000; ++round) {
        const uintptr_t address = 8 * (random.between(uintptr_t{1}, uintptr_t{24}));
        if (placed.size() < HolderNotes::PLACES) {
            placed.insert(address);
        }
        PlaceCounts& counts = model[placed.count(address) != 0 ? address : 0];
        if (!random.oneIn(3)) {
            notes->NoteTaken(asPlace(address));
            ++counts.first;
        } else {
            notes->NoteGivenBack(asPlace(address));
            ++counts.second;
        }
        if (round % 97 == 0) {
            ASSERT_EQ(model, placeCountsOf(*notes)) << "round " << round;
        }
    }
    EXPECT_EQ(model, placeCountsOf(*notes));
}

TEST_F(HolderNotesTable, NoCountIsLostWhenThreadsMeetAtNewPlacesAndSomebodyReads) {
    constexpr int THREADS = 4;
    constexpr uintptr_t ADDRESSES = 20;
    constexpr int ROUNDS = 500;
    std::atomic<int> working{THREADS};
    std::vector<std::thread> users;
    for (int i = 0; i < THREADS; ++i) {
        users.emplace_back([&] {
            for (int round = 0; round < ROUNDS; ++round) {
                for (uintptr_t address = 1; address <= ADDRESSES; ++address) {
                    notes->NoteTaken(asPlace(address));
                    notes->NoteGivenBack(asPlace(address));
                }
            }
            --working;
        });
    }
    do {
        for (const auto& [address, counts] : placeCountsOf(*notes)) {
            EXPECT_LE(address, ADDRESSES);
            EXPECT_LE(counts.first, uint64_t{THREADS} * ROUNDS * ADDRESSES);
        }
    } while (working > 0);
    for (std::thread& user : users) {
        user.join();
    }
    uint64_t taken = 0;
    const std::map<uintptr_t, PlaceCounts> counts = placeCountsOf(*notes);
    for (const auto& place : counts) {
        EXPECT_EQ(place.second.first, place.second.second);
        taken += place.second.first;
        if (place.first != 0) {
            EXPECT_EQ(uint64_t{THREADS} * ROUNDS, place.second.first) << "one place, whoever was there first";
        }
    }
    EXPECT_EQ(uint64_t{THREADS} * ROUNDS * ADDRESSES, taken);
    EXPECT_EQ(HolderNotes::PLACES + 1, counts.size());
}

TEST_F(HolderNotesTable, APinKeepsThemForItsReader) {
    const NotesOn on;
    HolderNotes* const others = HolderNotes::Create();
    others->NoteTaken(asPlace(0x100));
    HolderNotesPin pin(others);
    others->Drop();
    HolderNotesPin copy(pin);
    HolderNotesPin moved(std::move(pin));
    EXPECT_EQ(nullptr, pin.get());
    HolderNotesPin assigned;
    EXPECT_EQ(nullptr, assigned.get());
    assigned = moved;
    moved = HolderNotesPin();
    EXPECT_EQ(nullptr, moved.get());
    copy = HolderNotesPin(notes);
    EXPECT_EQ(notes, copy.get());
    EXPECT_EQ(1u, placeCountsOf(*assigned.get()).size()) << "the last one that holds them";
}

// ---- whose calls are noted

class HolderNotesOfHandler : public PoolFixture {
protected:
    void SetUp() override {
        PoolFixture::SetUp();
        const NotesOn on;
        handler = new TestHandler;
    }
    void TearDown() override {
        closeAndWait(handler);
        PoolFixture::TearDown();
    }
    static const HolderNotes* notesOf(CNetHandler& of) { return HandlerInternal::Of(of).m_holders; }
    std::map<uintptr_t, PlaceCounts> counts() const { return placeCountsOf(*notesOf(*handler)); }
    TestHandler* handler = nullptr;
};

TEST_F(HolderNotesOfHandler, OneThatWasMadeBeforeOrAfterHasNone) {
    auto* after = new TestHandler;
    EXPECT_EQ(nullptr, notesOf(*after));
    {
        const NotesOn on;
        after->AddRef();
        after->DecRef();
        EXPECT_EQ(nullptr, notesOf(*after)) << "it was made before";
    }
    EXPECT_NE(nullptr, notesOf(*handler)) << "and this one keeps its own";
    closeAndWait(after);
}

// Two places for certain, wherever the compiler puts them.
__attribute__((noinline)) void takeHere(CNetHandler& handler) {
    handler.AddRef();
    asm volatile("");
}
__attribute__((noinline)) void giveBackHere(CNetHandler& handler) {
    handler.DecRef();
    asm volatile("");
}

TEST_F(HolderNotesOfHandler, EveryCallerIsAPlace) {
    for (int i = 0; i < 3; ++i) {
        takeHere(*handler);
    }
    handler->AddRef();
    for (int i = 0; i < 4; ++i) {
        giveBackHere(*handler);
    }
    const std::map<uintptr_t, PlaceCounts> found = counts();
    ASSERT_EQ(3u, found.size());
    const auto of = [&](void (*function)(CNetHandler&)) {
        const auto place = found.upper_bound(reinterpret_cast<uintptr_t>(function));
        return place != found.end() && place->first - reinterpret_cast<uintptr_t>(function) < 256
                   ? place->second
                   : PlaceCounts{};
    };
    EXPECT_EQ((PlaceCounts{3, 0}), of(&takeHere));
    EXPECT_EQ((PlaceCounts{0, 4}), of(&giveBackHere));
}

TEST_F(HolderNotesOfHandler, WhatTheLibraryHoldsForAWhileIsNotNoted) {
    SocketPair pair;
    EXPECT_EQ(0, handler->RegisterSock(pair.near, SOCK_READ, 0));
    EXPECT_EQ(0, handler->RemoveSock(pair.near));
    handler->DestroyTimer(handler->SetTimer(3600000000));
    const int before = handler->life->messages;
    handler->Notify(handler->GetID(), 100, 0);
    EXPECT_EVENTUALLY(handler->life->messages == before + 1);
    { const HandlerPin pin = HandlerPin::Take(handler); }
    EXPECT_TRUE(counts().empty());
}

TEST_F(HolderNotesOfHandler, TheLastOneMayBeGivenBackAtANotedPlace) {
    const NotesOn on;
    auto* leaked = new TestHandler;
    const std::shared_ptr<HandlerLife> life = leaked->life;
    leaked->AddRef();
    leaked->Close();
    EXPECT_EVENTUALLY(HandlerInternal::Of(*leaked).m_ref == 1);
    leaked->DecRef();
    EXPECT_EQ(1, life->deleted);
}

}  // namespace
}  // namespace Orvex::Testing
