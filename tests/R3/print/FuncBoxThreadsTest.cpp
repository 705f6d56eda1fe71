// TFuncBox with several threads and several owners: entries are whole when they are seen, and a box lives as
// long as somebody has a reference on it.
#include "R3/print/FuncBox.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/LogCapture.h"

namespace {

using Orvex::Reticor::acquire_func_box;
using Orvex::Reticor::drop_func_box;
using Orvex::Reticor::FuncBoxRef;
using Orvex::Reticor::g_r3_funcbox;
using Orvex::Reticor::r3_store_flag;
using Orvex::Reticor::R3Register;
using Orvex::Reticor::TFuncBox;
using Orvex::Reticor::TFuncEntry;

int return_first(int first, int, int, int, int, int, int, int, int, int) {
    return first;
}

void* as_pointer(Orvex::Reticor::R3Function func) {
    return reinterpret_cast<void*>(func);
}

TEST(FuncBoxThreads, ARegisteredEntryIsWholeWhoeverFindsIt) {
    constexpr int THREADS = 3;
    constexpr int EACH = 200;
    const auto box = std::make_unique<TFuncBox>();
    std::vector<std::string> names;
    for (int i = 0; i < THREADS * EACH; ++i) {
        names.push_back("command" + std::to_string(i));
    }
    std::atomic<int> done{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, t] {
            for (int i = t * EACH; i < (t + 1) * EACH; ++i) {
                const char* const name = names[static_cast<size_t>(i)].c_str();
                EXPECT_EQ(0, box->Register(as_pointer(&return_first), name, name));
            }
            ++done;
        });
    }
    while (done < THREADS) {
        for (int i = box->Count(); i-- > 0;) {
            const TFuncEntry& entry = box->At(i);
            ASSERT_EQ(&return_first, entry.func);
            ASSERT_NE(nullptr, entry.name);
            ASSERT_EQ(&entry, box->Find(entry.name));
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::set<std::string> found;
    for (int i = 0; i < box->Count(); ++i) {
        found.insert(box->At(i).name);
    }
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), found);
}

// Of several that want one name one gets it, and the others are told so.
TEST(FuncBoxThreads, OneOfSeveralRegistrationsOfANameSucceeds) {
    const Orvex::Testing::LogCapture log;
    constexpr int ROUNDS = 100;
    const auto box = std::make_unique<TFuncBox>();
    std::vector<std::string> names;
    for (int i = 0; i < ROUNDS; ++i) {
        names.push_back("name" + std::to_string(i));
    }
    std::atomic<int> successes{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            for (const std::string& name : names) {
                successes += box->Register(as_pointer(&return_first), name.c_str(), nullptr) == 0 ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(ROUNDS, successes);
    EXPECT_EQ(ROUNDS, box->Count());
    EXPECT_EQ(size_t{2} * ROUNDS, log.count(2, "TFuncBox::Register already exist!\n"));
}

// The debug server's end drops the box while a client's command still runs in it.
TEST(FuncBoxThreads, ABoxThatIsHeldOutlivesTheGlobalReference) {
    FuncBoxRef mine;
    mine.adopt(acquire_func_box());
    ASSERT_NE(nullptr, mine.get());
    EXPECT_EQ(g_r3_funcbox, mine.get());
    ASSERT_EQ(0, mine.get()->Register(as_pointer(&return_first), "held", nullptr));
    {
        const FuncBoxRef another(mine.get());
        drop_func_box();
        EXPECT_EQ(nullptr, g_r3_funcbox);
        drop_func_box();  // There is nothing to drop any more.
        EXPECT_NE(nullptr, another.get()->Find("held"));
    }
    const TFuncEntry* const entry = mine.get()->Find("held");
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ(5, entry->func(5, 0, 0, 0, 0, 0, 0, 0, 0, 0));
    EXPECT_EQ(0, R3Register(as_pointer(&return_first), "after", nullptr));
    EXPECT_NE(mine.get(), g_r3_funcbox) << "a new one was made";
    EXPECT_EQ(nullptr, g_r3_funcbox->Find("held"));
    EXPECT_NE(nullptr, g_r3_funcbox->Find("after"));
}

// LeakSanitizer and AddressSanitizer count the ends.
TEST(FuncBoxThreads, BoxesThatComeAndGoUnderTheirUsersEndOnce) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> users;
    for (int i = 0; i < 2; ++i) {
        users.emplace_back([&] {
            while (!stop) {
                FuncBoxRef box;
                box.adopt(acquire_func_box());
                box.get()->Find("nobody");
                EXPECT_GE(box.get()->Count(), 0);
            }
        });
    }
    for (int i = 0; i < 300; ++i) {
        drop_func_box();
    }
    stop = true;
    for (std::thread& user : users) {
        user.join();
    }
}

TEST(FuncBoxThreads, AReferenceOnNothingIsNone) {
    const FuncBoxRef empty;
    const FuncBoxRef null(nullptr);
    EXPECT_EQ(nullptr, empty.get());
    EXPECT_EQ(nullptr, null.get());
}

std::atomic<int32_t> g_flag_of_command{0};

TEST(R3Command, AFlagCommandLooksAtItsFirstNumberAlone) {
    EXPECT_EQ(0, r3_store_flag<g_flag_of_command>(-7, 1, 2, 3, 4, 5, 6, 7, 8, 9));
    EXPECT_EQ(-7, g_flag_of_command);
    EXPECT_EQ(0, r3_store_flag<g_flag_of_command>(0, 1, 1, 1, 1, 1, 1, 1, 1, 1));
    EXPECT_EQ(0, g_flag_of_command);
}

}  // namespace
