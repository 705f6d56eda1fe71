// read_dump: what is good of a dump, and that nothing in a file can harm its reader.
#include "trace/Dump.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "Trace/MadeDump.h"
#include "Trace/TraceReader.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

trace::Dump readGood(const std::string& bytes) {
    std::string why;
    const auto dump = trace::read_dump(bytes, why);
    EXPECT_TRUE(dump) << why;
    return dump.value_or(trace::Dump());
}

std::string refusal(const std::string& bytes) {
    std::string why;
    EXPECT_FALSE(trace::read_dump(bytes, why));
    return why;
}

std::vector<TraceEvent> numbered(uint64_t first, size_t count) {
    std::vector<TraceEvent> events;
    for (uint64_t n = first; n < first + count; ++n) {
        events.push_back(MadeDump::event(n * 10, TRACE_BLOCKED, n));
    }
    return events;
}

std::vector<uint64_t> objectsOf(const trace::Thread& thread) {
    std::vector<uint64_t> objects;
    for (const trace::Event& event : thread.events) {
        objects.push_back(event.object);
    }
    return objects;
}

TEST(ReadDump, TellsTimesInMicrosecondsSinceTheBeginning) {
    MadeDump made;
    made.addThread(77, {MadeDump::event(0, TRACE_BLOCKED), MadeDump::event(1500, TRACE_FREE)});
    const trace::Dump dump = readGood(made.bytes());
    EXPECT_EQ(4711u, dump.pid);
    EXPECT_TRUE(dump.whole);
    EXPECT_DOUBLE_EQ(100, dump.end_us);
    ASSERT_EQ(1u, dump.threads.size());
    EXPECT_EQ(77u, dump.threads[0].id);
    EXPECT_EQ(3, dump.threads[0].pool);
    EXPECT_EQ("worker", dump.threads[0].name);
    EXPECT_TRUE(dump.threads[0].live);
    ASSERT_EQ(2u, dump.threads[0].events.size());
    EXPECT_DOUBLE_EQ(0, dump.threads[0].events[0].us);
    EXPECT_DOUBLE_EQ(1.5, dump.threads[0].events[1].us);
    EXPECT_EQ(TRACE_FREE, dump.threads[0].events[1].what);
}

TEST(ReadDump, ACounterThatPassesItsFiftySixBitsGoesOn) {
    MadeDump made;
    made.header.begin_ticks = (uint64_t{7} << 56) - 500;
    made.header.dump_ticks = made.header.begin_ticks + 100000;
    made.addThread(77, {{(made.header.begin_ticks + 2000) << TRACE_TICKS_SHIFT | TRACE_BLOCKED, 0}});
    EXPECT_DOUBLE_EQ(2, readGood(made.bytes()).threads.at(0).events.at(0).us);
}

TEST(ReadDump, NamesClassesAsPeopleReadThem) {
    MadeDump made;
    made.addClass(5, "N4Shop4TillE");
    made.addClass(6, "not a mangled name");
    made.addClass(300, "N4Shop4TillE");  // there is no such row
    const trace::Dump dump = readGood(made.bytes());
    EXPECT_EQ("Shop::Till", dump.classes.at(5));
    EXPECT_EQ("not a mangled name", dump.classes.at(6));
    EXPECT_EQ(2u, dump.classes.size());
}

TEST(ReadDump, AFullRingIsPutInItsOrder) {
    MadeDump made;
    made.addThread(77, numbered(13, MadeDump::PLACES), 21);
    // The oldest may be being overwritten just now.
    EXPECT_EQ((std::vector<uint64_t>{14, 15, 16, 17, 18, 19, 20}),
              objectsOf(readGood(made.bytes()).threads.at(0)));
}

TEST(ReadDump, LeavesOutWhatWasOverwrittenWhileItWasRead) {
    for (uint64_t meanwhile = 0; meanwhile <= 10; ++meanwhile) {
        MadeDump made;
        made.addThread(77, numbered(13, MadeDump::PLACES), 21, 0, meanwhile);
        const std::vector<uint64_t> left = objectsOf(readGood(made.bytes()).threads.at(0));
        EXPECT_EQ(meanwhile >= 7 ? 0 : 7 - meanwhile, left.size());
        EXPECT_TRUE(left.empty() || left.back() == 20);
    }
}

TEST(ReadDump, LeavesOutWhatWasOfAnEarlierThread) {
    MadeDump made;
    made.addThread(77, numbered(0, 6), 0, 4);
    EXPECT_EQ((std::vector<uint64_t>{4, 5}), objectsOf(readGood(made.bytes()).threads.at(0)));
}

TEST(ReadDump, ARingThatChangedHandsMeanwhileIsLeftOut) {
    MadeDump made;
    made.addThread(77, numbered(0, 6));
    std::string bytes = made.bytes(false);
    bytes[bytes.size() - 8] = 1;  // the thread at the end of the part
    EXPECT_TRUE(readGood(bytes).threads.empty());
}

TEST(ReadDump, SaysWhatIsWrongWithAFile) {
    EXPECT_NE(std::string::npos, refusal("").find("not a dump"));
    EXPECT_NE(std::string::npos, refusal(std::string(1000, 'x')).find("not a dump"));
    MadeDump made;
    made.header.version = 9;
    EXPECT_NE(std::string::npos, refusal(made.bytes()).find("version 9"));
    made.header.version = DUMP_VERSION;
    made.header.header_size = 10;
    EXPECT_NE(std::string::npos, refusal(made.bytes()).find("damaged"));
    made.header.header_size = 1000000;
    EXPECT_NE(std::string::npos, refusal(made.bytes()).find("damaged"));
    made.header.header_size = sizeof(DumpHeader);
    made.header.places = 0;
    EXPECT_NE(std::string::npos, refusal(made.bytes()).find("damaged"));
}

TEST(ReadDump, AClockThatStoodStillHarmsNobody) {
    MadeDump made;
    made.header.dump_ticks = made.header.begin_ticks;
    made.addThread(77, numbered(0, 3));
    EXPECT_EQ(3u, readGood(made.bytes()).threads.at(0).events.size());
}

MadeDump someDump() {
    MadeDump made;
    made.addClass(5, "N4Shop4TillE");
    const uint64_t till = uint64_t{5} << TRACE_ROW_SHIFT | 0x1234;
    made.addThread(77, {MadeDump::event(10, TRACE_PUSH + 1, 0xABC), MadeDump::event(20, TRACE_POP + 1, 0xABC),
                        MadeDump::event(30, TRACE_ENTER + 7, till), MadeDump::event(40, TRACE_FRAME_PUT, 1),
                        MadeDump::event(50, TRACE_FRAME_SENT, uint64_t{1} << TRACE_SHORT_SHIFT | 9),
                        MadeDump::event(60, TRACE_LEAVE + 7, 0x1234)});
    made.addThread(78, numbered(13, MadeDump::PLACES), 21);
    return made;
}

TEST(ReadDump, OfATruncatedFileTheThreadsThatAreWholeAreLeft) {
    const std::string bytes = someDump().bytes();
    size_t most = 0;
    for (size_t size = sizeof(DumpHeader); size < bytes.size(); ++size) {
        const trace::Dump dump = readGood(bytes.substr(0, size));
        EXPECT_FALSE(dump.whole) << size;
        EXPECT_GE(dump.threads.size(), most) << "a longer file has more";
        most = dump.threads.size();
        drawn(dump).expectInOrder();
    }
    EXPECT_EQ(2u, most);
}

// Whatever bytes are changed, nothing is read beyond the file, and the picture is JSON.
TEST(ReadDump, GarbledFilesHarmNobody) {
    const std::string good = someDump().bytes();
    std::minstd_rand random(1);
    size_t read = 0;
    for (int round = 0; round < 3000; ++round) {
        std::string bytes = good;
        for (size_t changes = 1 + random() % 6; changes > 0; --changes) {
            bytes[random() % bytes.size()] = static_cast<char>(random());
        }
        std::string why;
        if (const auto dump = trace::read_dump(bytes, why)) {
            drawn(*dump, ++read % 16 == 0);
        } else {
            EXPECT_NE(std::string(), why);
        }
    }
    EXPECT_LT(1000u, read);
}

}  // namespace
}  // namespace Orvex::Testing
