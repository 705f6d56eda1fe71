// ClassRows: a row for each name, full tables, names that find no room, and threads that enter at once.
#include "Core/count/ClassRows.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include "support/SeededRandom.h"

namespace Orvex::Testing {
namespace {

using Reticor::ClassRows;

const void* tableAt(size_t number) {
    return reinterpret_cast<const void*>(0x200000 + number * 16);
}

TEST(ClassRows, ClassesOfOneNameShareARow) {
    EXPECT_EQ(ClassRows::NOT_CALLED, ClassRows::Find(tableAt(1)));
    const uint32_t row = ClassRows::Enter(tableAt(1), "A");
    EXPECT_EQ(row, ClassRows::Enter(tableAt(2), "A"));
    EXPECT_NE(row, ClassRows::Enter(tableAt(3), "B"));
    EXPECT_EQ(row, ClassRows::Find(tableAt(2)));
    EXPECT_STREQ("A", ClassRows::Name(row));
    EXPECT_STREQ("not called yet", ClassRows::Name(ClassRows::NOT_CALLED));
}

TEST(ClassRows, NamesAreCopied) {
    std::string name = "Plugin";
    const uint32_t row = ClassRows::Enter(tableAt(1), name.c_str());
    name.assign("xxxxxx");
    EXPECT_STREQ("Plugin", ClassRows::Name(row));
}

TEST(ClassRows, TheClassesForWhichThereIsNoRowShareTheLastOne) {
    for (size_t i = 1; i < ClassRows::OTHERS; ++i) {
        EXPECT_EQ(i, ClassRows::Enter(tableAt(i), std::to_string(i).c_str()));
    }
    for (size_t i = ClassRows::OTHERS; i < 5000; ++i) {
        ASSERT_EQ(ClassRows::OTHERS, ClassRows::Enter(tableAt(i), std::to_string(i).c_str()));
    }
    EXPECT_EQ(200u, ClassRows::Find(tableAt(200))) << "and those before them are found";
    EXPECT_STREQ("other classes", ClassRows::Name(ClassRows::OTHERS));
}

// What the places and the room for names hold, as the header has it.
constexpr size_t PLACES_TAKEN_AT_MOST = 4 * ClassRows::COUNT * 3 / 4;
constexpr size_t ROOM_FOR_NAMES = 128 * ClassRows::COUNT;

template <class>
struct ManyNames {};

TEST(ClassRowsNames, AreReadAsPeopleWriteThem) {
    const uint32_t row = ClassRows::Enter(tableAt(1), typeid(ManyNames<ManyNames<int>>).name());
    EXPECT_STREQ(
        "Orvex::Testing::(anonymous namespace)::ManyNames<Orvex::Testing::(anonymous "
        "namespace)::ManyNames<int> >",
        ClassRows::Name(row));
    EXPECT_EQ(ClassRows::Name(row), ClassRows::Name(row)) << "the same text for the life of the process";
}

TEST(ClassRowsNames, OneThatNoCompilerWroteIsGivenAsItIs) {
    const uint32_t row = ClassRows::Enter(tableAt(1), "?? not mangled");
    EXPECT_STREQ("?? not mangled", ClassRows::Name(row));
    const uint32_t nameless = ClassRows::Enter(tableAt(2), "");
    EXPECT_STREQ("", ClassRows::Name(nameless));
    EXPECT_NE(row, nameless);
}

TEST(ClassRowsNames, ARowThatNobodyHasIsEmpty) {
    EXPECT_STREQ("", ClassRows::Name(1));
    EXPECT_STREQ("", ClassRows::Name(ClassRows::OTHERS - 1));
}

TEST(ClassRowsNames, OneThatDoesNotFitInTheRoomIsAmongTheOthersAndShorterOnesGoOn) {
    const std::string half(ROOM_FOR_NAMES / 2 - 1, '?');  // with its end, half of the room
    const std::string rest(ROOM_FOR_NAMES / 2 - 3, '!');  // leaves two bytes
    const uint32_t first = ClassRows::Enter(tableAt(1), half.c_str());
    EXPECT_EQ(ClassRows::OTHERS, ClassRows::Enter(tableAt(2), (half + "x").c_str()));
    const uint32_t second = ClassRows::Enter(tableAt(3), rest.c_str());
    EXPECT_NE(ClassRows::OTHERS, second);
    EXPECT_EQ(ClassRows::OTHERS, ClassRows::Enter(tableAt(4), "?!"));
    const uint32_t last = ClassRows::Enter(tableAt(5), "?");
    EXPECT_EQ(second + 1, last) << "two bytes hold one letter and the end";
    EXPECT_EQ(ClassRows::OTHERS, ClassRows::Enter(tableAt(6), ""));
    EXPECT_EQ(first, ClassRows::Enter(tableAt(7), half.c_str())) << "a known name needs no room";
    EXPECT_EQ(half, ClassRows::Name(first));
    EXPECT_EQ(rest, ClassRows::Name(second));
    EXPECT_STREQ("?", ClassRows::Name(last));
    EXPECT_EQ(ClassRows::OTHERS, ClassRows::Find(tableAt(4))) << "and is found so without a lock";
}

TEST(ClassRowsPlaces, AClassThatFindsNoneIsFoundByItsNameEachTime) {
    for (size_t i = 0; i < PLACES_TAKEN_AT_MOST; ++i) {
        ASSERT_EQ(1 + i % 50, ClassRows::Enter(tableAt(i), ("name " + std::to_string(i % 50)).c_str()));
    }
    const void* const late = tableAt(PLACES_TAKEN_AT_MOST);
    EXPECT_EQ(8u, ClassRows::Enter(late, "name 7"));
    EXPECT_EQ(ClassRows::NOT_CALLED, ClassRows::Find(late));
    EXPECT_EQ(8u, ClassRows::Enter(late, "name 7"));
    EXPECT_EQ(51u, ClassRows::Enter(late, "new name")) << "rows are left";
    for (size_t i = 0; i < PLACES_TAKEN_AT_MOST; ++i) {
        ASSERT_EQ(1 + i % 50, ClassRows::Find(tableAt(i)));
    }
}

TEST(ClassRowsPlaces, TheFirstNameOfATableStays) {
    const uint32_t row = ClassRows::Enter(tableAt(1), "first");
    EXPECT_EQ(row, ClassRows::Enter(tableAt(1), "second"));
    EXPECT_STREQ("first", ClassRows::Name(row));
    EXPECT_EQ(row + 1, ClassRows::Enter(tableAt(2), "second"));
}

// Tables lie anywhere, so searches meet and go round the end of the places.
TEST(ClassRowsPlaces, AnyMixOfTablesAndNamesMatchesAMap) {
    SeededRandom random;
    std::map<const void*, uint32_t> tables;
    std::map<std::string, uint32_t> names;
    for (int i = 0; i < 5000; ++i) {
        const bool near = random.oneIn(2);
        const uintptr_t at = near ? 0x7000 + random.between<uintptr_t>(0, 400) * 8
                                  : random.between<uintptr_t>(1, uintptr_t{1} << 44) * 8;
        const void* const table = reinterpret_cast<const void*>(at);
        const std::string name = "class " + std::to_string(random.between(0, 320));
        const auto known = tables.find(table);
        ASSERT_EQ(known != tables.end() ? known->second : ClassRows::NOT_CALLED, ClassRows::Find(table));
        uint32_t expected = 0;
        if (known != tables.end()) {
            expected = known->second;
        } else if (names.count(name) != 0) {
            expected = names[name];
        } else {
            expected = static_cast<uint32_t>(names.size()) + 1;
            expected = expected < ClassRows::OTHERS ? expected : ClassRows::OTHERS;
            if (expected != ClassRows::OTHERS) {
                names[name] = expected;
            }
        }
        ASSERT_EQ(expected, ClassRows::Enter(table, name.c_str())) << "call " << i;
        if (tables.size() < PLACES_TAKEN_AT_MOST) {
            tables.emplace(table, expected);
        }
    }
    for (const auto& [name, row] : names) {
        EXPECT_EQ(name, ClassRows::Name(row));
    }
}

TEST(ClassRowsThreads, ThatEnterAtOnceAgreeOnEveryRow) {
    constexpr size_t THREADS = 4;
    constexpr size_t NAMES = 100;
    std::vector<std::vector<uint32_t>> rows(THREADS, std::vector<uint32_t>(NAMES));
    std::atomic<bool> wrong{false};
    std::vector<std::thread> threads;
    for (size_t t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, t] {
            for (size_t i = 0; i < NAMES; ++i) {
                // Each thread has a table of its own for every name, and shares another one with all.
                const std::string name = "shared " + std::to_string(i);
                rows[t][i] = ClassRows::Enter(tableAt(1000 * (t + 1) + i), name.c_str());
                const uint32_t found = ClassRows::Find(tableAt(i));
                wrong = wrong || (found != ClassRows::NOT_CALLED && found != rows[t][i]);
                wrong = wrong || ClassRows::Enter(tableAt(i), name.c_str()) != rows[t][i];
                wrong = wrong || ClassRows::Name(rows[t][i]) != name;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_FALSE(wrong);
    for (size_t t = 1; t < THREADS; ++t) {
        EXPECT_EQ(rows[0], rows[t]);
    }
    EXPECT_EQ(NAMES + 1, ClassRows::Enter(tableAt(900), "one more")) << "no row was given twice";
}

TEST(ClassRowsThreads, ThatAskForANameAtOnceGetOneText) {
    for (size_t round = 10; round < 60; ++round) {
        const std::string name = "Round" + std::to_string(round);
        const uint32_t row = ClassRows::Enter(tableAt(round), ("7" + name).c_str());
        std::vector<const char*> seen(3);
        std::atomic<size_t> ready{0};
        std::vector<std::thread> readers;
        for (const char*& text : seen) {
            readers.emplace_back([&, row] {
                ++ready;
                while (ready < seen.size()) {
                    std::this_thread::yield();
                }
                text = ClassRows::Name(row);
            });
        }
        for (std::thread& reader : readers) {
            reader.join();
        }
        EXPECT_EQ(name, seen[0]);
        EXPECT_EQ(seen[0], seen[1]);
        EXPECT_EQ(seen[0], seen[2]);
    }
}

}  // namespace
}  // namespace Orvex::Testing
