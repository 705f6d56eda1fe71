// CNetThread::SetHolderNotes: where references on a handler are taken and given back, as ListHandlers and
// the list of handlers tell it.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <Reticor/Stats.h>

#include "Core/handle/HandlerInternal.h"
#include "Core/stats/PlaceNames.h"
#include "Core/stats/StatsServer.h"
#include "Core/stats/StatsTexts.h"
#include "support/PoolFixture.h"
#include "support/core/Gate.h"

// Exported by the test program, as a program that is linked with -rdynamic exports all of its functions.
extern "C" {
__attribute__((visibility("default"), noinline)) void reticor_test_takes(
    Orvex::Reticor::CNetHandler* handler) {
    handler->AddRef();
    asm volatile("");
}
__attribute__((visibility("default"), noinline)) void reticor_test_gives_back(
    Orvex::Reticor::CNetHandler* handler) {
    handler->DecRef();
    asm volatile("");
}
}

namespace Orvex::Testing {
namespace {

using namespace Reticor;

__attribute__((noinline)) void takeUnseen(CNetHandler* handler) {
    handler->AddRef();
    asm volatile("");
}

// A copy of what is good during the call only.
struct HeldAt {
    std::string function;
    std::string module;
    uint64_t offset;
    uint64_t address;
    uint64_t taken;
    uint64_t given_back;
    uint32_t in_library;
};

struct Told {
    bool found = false;
    HandlerInfo info{};
    std::vector<HeldAt> holders;

    const HeldAt* of(const std::string& function) const {
        for (const HeldAt& holder : holders) {
            if (holder.function == function) {
                return &holder;
            }
        }
        return nullptr;
    }
};

struct Search {
    int64_t id;
    Told told;
};

bool copyIfWanted(void* context, const HandlerInfo& handler) {
    Search& search = *static_cast<Search*>(context);
    if (handler.id != search.id) {
        return true;
    }
    search.told.found = true;
    search.told.info = handler;
    for (uint32_t i = 0; i < handler.holder_count; ++i) {
        const HandlerHolder& holder = *handler.holders[i];
        EXPECT_EQ(sizeof(HandlerHolder), holder.size);
        EXPECT_EQ(STATS_VERSION, holder.version);
        search.told.holders.push_back({holder.function, holder.module, holder.offset, holder.address,
                                       holder.taken, holder.given_back, holder.in_library});
    }
    return false;
}

Told toldOf(CNetHandler& handler) {
    Search search{handler.GetID(), {}};
    EXPECT_LT(0, CNetThread::ListHandlers(&copyIfWanted, &search));
    EXPECT_TRUE(search.told.found);
    return search.told;
}

class HandlerHolders : public PoolFixture {
protected:
    void SetUp() override {
        PoolFixture::SetUp();
        CNetThread::SetHolderNotes(true);
        handler = new TestHandler;
        CNetThread::SetHolderNotes(false);
    }
    void TearDown() override {
        closeAndWait(handler);
        PoolFixture::TearDown();
    }
    // The lines that the list of handlers has after that of the handler, up to the next handler.
    static std::vector<std::string> linesOf(CNetHandler& of) {
        const std::string text = stats_answer("handlers");
        std::vector<std::string> lines;
        bool its = false;
        for (size_t begin = 0; begin < text.size();) {
            const size_t end = text.find('\n', begin);
            const std::string line = text.substr(begin, end - begin);
            begin = end + 1;
            if (line.front() != ' ') {
                its = line.find(" " + std::to_string(of.GetID()) + " ") != std::string::npos;
            } else if (its) {
                lines.push_back(line);
            }
        }
        return lines;
    }
    TestHandler* handler = nullptr;
};

TEST_F(HandlerHolders, ALeakIsNamedByThePlaceThatMadeIt) {
    CNetThread::SetHolderNotes(true);
    auto* leaked = new TestHandler;
    CNetThread::SetHolderNotes(false);
    const std::shared_ptr<HandlerLife> life = leaked->life;
    reticor_test_takes(leaked);
    reticor_test_takes(leaked);
    leaked->AddRef();
    reticor_test_gives_back(leaked);
    leaked->Close();
    EXPECT_EVENTUALLY(HandlerInternal::Of(*leaked).m_ref == 2);
    const Told told = toldOf(*leaked);
    EXPECT_STREQ("detached", told.info.state);
    EXPECT_EQ(1u, told.info.noted);
    EXPECT_EQ(0, told.info.own_references) << "the library has given its own back";
    ASSERT_EQ(3u, told.holders.size());
    EXPECT_EQ("reticor_test_takes", told.holders[0].function) << "the one that holds most comes first";
    EXPECT_EQ(2u, told.holders[0].taken);
    EXPECT_EQ(0u, told.holders[0].given_back);
    EXPECT_EQ("reticor_test_gives_back", told.holders[2].function);
    EXPECT_EQ(0u, told.holders[2].taken);
    EXPECT_EQ(1u, told.holders[2].given_back);
    EXPECT_EQ(0u, told.holders[0].in_library);
    reticor_test_gives_back(leaked);
    EXPECT_EQ(0, life->closes);
    reticor_test_gives_back(leaked);
    EXPECT_EQ(1, life->deleted);
}

TEST_F(HandlerHolders, OffsetAndFileLeadToTheCall) {
    reticor_test_takes(handler);
    const Told told = toldOf(*handler);
    const HeldAt* const holder = told.of("reticor_test_takes");
    ASSERT_NE(nullptr, holder);
    Dl_info program;
    ASSERT_NE(0, ::dladdr(reinterpret_cast<const void*>(&reticor_test_takes), &program));
    const auto begin = reinterpret_cast<uintptr_t>(program.dli_fbase);
    EXPECT_EQ(holder->address - 1, begin + holder->offset) << "the program is position-independent";
    EXPECT_GT(holder->address, reinterpret_cast<uintptr_t>(&reticor_test_takes));
    EXPECT_LT(holder->address, reinterpret_cast<uintptr_t>(&reticor_test_takes) + 128);
    EXPECT_EQ(0, ::access(holder->module.c_str(), R_OK)) << holder->module;
    EXPECT_EQ(program.dli_fname, holder->module);
    handler->DecRef();
}

TEST_F(HandlerHolders, WhatTheLibraryHoldsItselfIsToldApart) {
    EXPECT_EQ(1, toldOf(*handler).info.own_references) << "the pool's";
    EXPECT_EQ(0u, toldOf(*handler).info.holder_count);
    reticor_test_takes(handler);
    Gate gate;
    handler->on_message = [&](long, unsigned int, long) {
        gate.pass();
        return 0;
    };
    handler->Notify(handler->GetID(), 100, 0);
    ASSERT_TRUE(gate.awaitArrivals(1));
    const Told told = toldOf(*handler);
    EXPECT_EQ(3, told.info.references);
    EXPECT_EQ(2, told.info.own_references) << "the pool's, and that of the call";
    EXPECT_EQ(1u, told.info.holder_count);
    gate.open();
    reticor_test_gives_back(handler);
    EXPECT_EVENTUALLY(toldOf(*handler).info.own_references == 1);
}

TEST_F(HandlerHolders, AFunctionThatIsNotExportedIsAFileWithAnOffset) {
    takeUnseen(handler);
    const Told told = toldOf(*handler);
    ASSERT_EQ(1u, told.holders.size());
    EXPECT_EQ("", told.holders[0].function);
    EXPECT_NE(std::string::npos, told.holders[0].module.find("tests_core"));
    char offset[32];
    std::snprintf(offset, sizeof(offset), "+0x%jx", static_cast<uintmax_t>(told.holders[0].offset));
    const std::string name = told.holders[0].module.substr(told.holders[0].module.rfind('/') + 1);
    ASSERT_EQ(2u, linesOf(*handler).size());
    EXPECT_EQ("            taken 1, given back 0: " + name + offset, linesOf(*handler)[0]);
    handler->DecRef();
}

TEST_F(HandlerHolders, TheListOfHandlersHasALineForEachPlace) {
    reticor_test_takes(handler);
    reticor_test_takes(handler);
    reticor_test_gives_back(handler);
    const std::vector<std::string> lines = linesOf(*handler);
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ(0u, lines[0].find("            taken 2, given back 0: reticor_test_takes, tests_core"))
        << lines[0];
    EXPECT_EQ(0u, lines[1].find("            taken 0, given back 1: reticor_test_gives_back, ")) << lines[1];
    EXPECT_EQ("            held by the library for itself: 1", lines[2]);
    reticor_test_gives_back(handler);
    EXPECT_EQ(3u, linesOf(*handler).size());
}

TEST_F(HandlerHolders, AHandlerWithoutNotesTellsNothingOfThem) {
    auto* plain = new TestHandler;
    reticor_test_takes(plain);
    const Told told = toldOf(*plain);
    EXPECT_EQ(2, told.info.references);
    EXPECT_EQ(0u, told.info.noted);
    EXPECT_EQ(0u, told.info.holder_count);
    EXPECT_EQ(nullptr, told.info.holders);
    EXPECT_EQ(0, told.info.own_references);
    EXPECT_TRUE(linesOf(*plain).empty());
    reticor_test_gives_back(plain);
    closeAndWait(plain);
}

TEST_F(HandlerHolders, PlacesBeyondTheSixteenthAreOneLine) {
    HolderNotes& notes = *HandlerInternal::Of(*handler).m_holders;
    for (uintptr_t address = 0x11; address <= 0x11 + 16; ++address) {
        notes.NoteTaken(reinterpret_cast<const void*>(address));
        notes.NoteGivenBack(reinterpret_cast<const void*>(address));
    }
    const Told told = toldOf(*handler);
    EXPECT_EQ(17u, told.holders.size());
    const std::vector<std::string> lines = linesOf(*handler);
    ASSERT_EQ(18u, lines.size());
    EXPECT_EQ(1, std::count(lines.begin(), lines.end(), "            taken 1, given back 1: other places"));
    EXPECT_EQ(1, std::count(lines.begin(), lines.end(), "            taken 1, given back 1: 0x11"))
        << "no module is there: the bare address";
    const auto bare = std::find_if(told.holders.begin(), told.holders.end(),
                                   [](const HeldAt& holder) { return holder.address == 0x11; });
    ASSERT_NE(told.holders.end(), bare);
    EXPECT_EQ("", bare->module);
    EXPECT_EQ("", bare->function);
    EXPECT_EQ(0u, bare->offset);
}

TEST_F(HandlerHolders, TheSocketOfStatisticsAndItsListSwitchThem) {
    EXPECT_EQ("holders on\n", stats_answer("holders on"));
    auto* noted = new TestHandler;
    EXPECT_EQ("holders off\n", stats_answer("holders off"));
    auto* plain = new TestHandler;
    EXPECT_EQ(1u, toldOf(*noted).info.noted);
    EXPECT_EQ(0u, toldOf(*plain).info.noted);
    closeAndWait(noted);
    closeAndWait(plain);
}

TEST_F(HandlerHolders, ListsWhileThreadsTakeAndGiveBackAndHandlersComeAndGo) {
    CNetThread::SetHolderNotes(true);
    std::atomic<bool> goes_on{true};
    std::vector<std::thread> users;
    for (int i = 0; i < 2; ++i) {
        users.emplace_back([&] {
            // A worker that gets no processor ends none of them: the list that is walked must not grow.
            const auto lives = std::make_shared<HandlerLife>();
            int made = 0;
            while (goes_on) {
                reticor_test_takes(handler);
                reticor_test_gives_back(handler);
                if (made - lives->deleted == 100) {
                    std::this_thread::yield();
                    continue;
                }
                ++made;
                auto* brief = new TestHandler(0, lives);
                brief->AddRef();
                brief->Close();
                reticor_test_gives_back(brief);
            }
        });
    }
    EXPECT_EVENTUALLY(toldOf(*handler).holders.size() == 2);
    for (int look = 0; look < 50; ++look) {
        const Told told = toldOf(*handler);
        EXPECT_LE(told.holders.size(), 2u);
        EXPECT_FALSE(stats_answer("handlers").empty());
    }
    goes_on = false;
    for (std::thread& user : users) {
        user.join();
    }
    CNetThread::SetHolderNotes(false);
    const Told told = toldOf(*handler);
    EXPECT_EQ(1, told.info.own_references);
    ASSERT_EQ(2u, told.holders.size());
    EXPECT_EQ(told.of("reticor_test_takes")->taken, told.of("reticor_test_gives_back")->given_back);
}

TEST(PlaceNames, KnowsFunctionsOfLibrariesAndNothingOfOtherAddresses) {
    PlaceNames names;
    const auto libc = reinterpret_cast<uintptr_t>(::dlsym(RTLD_DEFAULT, "ftok"));
    const PlaceNames::Place& place = names.Of(libc + 1);
    EXPECT_EQ("ftok", place.function);
    EXPECT_NE(std::string::npos, place.module.find("/libc")) << place.module;
    EXPECT_FALSE(place.in_library);
    EXPECT_EQ(&place, &names.Of(libc + 1)) << "asked once";
    int local = 0;
    EXPECT_EQ("", names.Of(reinterpret_cast<uintptr_t>(&local)).module);
    EXPECT_EQ("", names.Of(1).module);
}

TEST(PlaceNames, NamesOfClassesAreReadable) {
    PlaceNames names;
    // Of the library of C++, which exports its mangled name.
    const auto address = reinterpret_cast<uintptr_t>(::dlsym(RTLD_DEFAULT, "_ZNSt6locale7classicEv"));
    ASSERT_NE(0u, address);
    EXPECT_EQ("std::locale::classic()", names.Of(address + 1).function);
}

}  // namespace
}  // namespace Orvex::Testing
