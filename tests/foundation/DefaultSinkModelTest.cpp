// The default sink beside models: what a place may write in a second, and what a full pipe lets it keep.
#include <Infra/Log.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include <Infra/Thread.h>

#include "DefaultSink.h"
#include "support/HandClock.h"
#include "support/SeededRandom.h"
#include "support/foundation/SmallPipe.h"

namespace Orvex::Infra {
namespace {

using namespace Testing;

constexpr char MODEL_FILE[] = "model.cpp";

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

// What the sink does with the lines of a few places.
class PlacesModel {
public:
    static constexpr int PLACES = 5;

    // Sentences of what was left out, in no order, and then the line if it is admitted.
    std::vector<std::string> write(int place, const std::string& text, uint64_t now_us) {
        std::vector<std::string> said = tell(now_us);
        if (m_limit == 0) {
            said.push_back(text);
            return said;
        }
        Place& one = m_places[static_cast<size_t>(place)];
        if (one.limit == 0 || now_us - one.second_us >= SECOND_US) {
            one = {m_limit, 0, 0, now_us};
        }
        if (one.count < one.limit) {
            ++one.count;
            said.push_back(text);
        } else {
            ++one.left_out;
        }
        return said;
    }
    std::vector<std::string> tell(uint64_t now_us) {
        std::vector<std::string> said;
        for (size_t i = 0; i < PLACES; ++i) {
            Place& place = m_places[i];
            if (place.left_out > 0 && now_us - place.second_us >= SECOND_US) {
                said.push_back("[model.cpp:" + std::to_string(i) +
                               "] tid:" + std::to_string(CThread::getCurrentThreadID()) + ", " +
                               std::to_string(place.left_out) +
                               " more lines of this place were left out : it may write " +
                               std::to_string(place.limit) + " in a second");
                // Its next second begins here.
                place = {m_limit, 0, 0, now_us};
            }
        }
        return said;
    }
    void set_limit(unsigned int limit) { m_limit = limit; }

private:
    static constexpr uint64_t SECOND_US = 1000000;
    struct Place {
        unsigned int limit = 0;  // of this second; 0: it has written nothing yet
        unsigned int count = 0;
        unsigned int left_out = 0;
        uint64_t second_us = 0;
    };
    std::array<Place, PLACES> m_places;
    unsigned int m_limit = 100;
};

TEST(DefaultSinkModel, EachPlaceHasItsLinesOfASecondAndTheRestIsTold) {
    SeededRandom random;
    HandClock clock;
    SmallPipe pipe(SmallPipe::ROOMY);
    PlacesModel model;
    unsigned int limit = 100;
    for (int i = 0; i < 3000 && !testing::Test::HasFailure(); ++i) {
        SCOPED_TRACE("step " + std::to_string(i));
        std::vector<std::string> wanted;
        if (random.oneIn(5)) {
            clock.advanceUs(random.between<int64_t>(0, 700000));
        }
        if (random.oneIn(40)) {
            const unsigned int before = limit;
            limit = random.between(0u, 4u);
            EXPECT_EQ(before, setLogLimit(limit));
            model.set_limit(limit);
        }
        if (random.oneIn(10)) {
            CThread::sleep(0);
            wanted = model.tell(clock.nowUs());
        } else {
            const int place = random.between(0, PlacesModel::PLACES - 1);
            const std::string text = "line " + std::to_string(i);
            logFilter(2, "", MODEL_FILE, "", place, "", "%s\n", text.c_str());
            wanted = model.write(place, text, clock.nowUs());
        }
        std::vector<std::string> found = lines_of(pipe.read());
        // What was left out is told first, in an order of its own.
        const bool has_line = !wanted.empty() && wanted.back().rfind("line ", 0) == 0;
        EXPECT_TRUE(!has_line || (!found.empty() && found.back() == wanted.back()));
        std::sort(found.begin(), found.end());
        std::sort(wanted.begin(), wanted.end());
        EXPECT_EQ(wanted, found);
    }
    setLogLimit(100);
}

// With more busy places than it can look at together, lines come without a limit rather than not at all.
TEST(DefaultSinkModel, PlacesThatFindNoRoomInItsTableAreNotLimited) {
    HandClock clock;
    SmallPipe pipe;
    const unsigned int before = setLogLimit(1);
    constexpr int MANY = 300;  // more than the table has
    std::string all;
    for (int round = 0; round < 2; ++round) {
        for (int place = 0; place < MANY; ++place) {
            logFilter(2, "", MODEL_FILE, "", place, "", "x\n");
            all += pipe.read();
        }
    }
    setLogLimit(before);
    EXPECT_GE(all.size(), size_t{2} * (MANY + 100));
    EXPECT_LT(all.size(), size_t{2} * 2 * MANY);
}

// Lines with numbers, some of them dropped: the notices say how many, just where they are missing.
class RingModel {
public:
    // The next line, of that many bytes.
    std::string next(size_t length) {
        std::string text = std::to_string(m_next++) + " ";
        text.resize(std::max(length, text.size()), '.');
        return text;
    }
    // Takes what has come.
    void read(const std::string& bytes) {
        m_unread += bytes;
        for (size_t end; (end = m_unread.find('\n')) != std::string::npos;) {
            take(m_unread.substr(0, end));
            m_unread.erase(0, end + 1);
        }
    }
    bool has_all() const { return m_expected == m_next && m_unread.empty(); }
    uint64_t notices() const { return m_notices; }

private:
    void take(const std::string& line) {
        const std::string notice = ", standard error was not read : ";
        const size_t found = line.find(notice);
        if (found != std::string::npos) {
            ++m_notices;
            m_expected += std::stoull(line.substr(found + notice.size()));
            EXPECT_NE(std::string::npos, line.find(" lines were dropped")) << line;
            return;
        }
        EXPECT_EQ(m_expected, std::stoull(line)) << line;
        m_expected = std::stoull(line) + 1;
    }

    uint64_t m_next = 0;
    uint64_t m_expected = 0;
    uint64_t m_notices = 0;
    std::string m_unread;
};

TEST(DefaultSinkModel, WhatIsDroppedIsCountedWhereItIsMissingHoweverTheReaderReads) {
    SeededRandom random;
    HandClock clock;
    SmallPipe pipe;
    RingModel model;
    const unsigned int limit_before = setLogLimit(0);
    for (int i = 0; i < 60; ++i) {
        // From a burst that fits to one of three times the ring.
        for (int lines = random.between(1, 200); lines > 0; --lines) {
            const std::string text = model.next(random.between<size_t>(10, 1000));
            logFilter(2, "", MODEL_FILE, "", 1, "", "%s\n", text.c_str());
        }
        for (int reads = random.between(0, 40); reads > 0; --reads) {
            model.read(pipe.read());
            CThread::sleep(0);
        }
    }
    for (int i = 0; i < 200 && !model.has_all(); ++i) {
        CThread::sleep(0);
        model.read(pipe.read());
    }
    setLogLimit(limit_before);
    EXPECT_TRUE(model.has_all());
    EXPECT_GT(model.notices(), 0u);
}

// With a reader that is always too slow it tells of its drops when half of the ring is free, and not with
// every line that finds room.
TEST(DefaultSinkModel, DropsAreToldWhenThereIsRoomAgainAndNotOneByOne) {
    constexpr int PAGES = 64;
    HandClock clock;
    SmallPipe pipe;
    RingModel model;
    const unsigned int limit_before = setLogLimit(0);
    for (int page = 0; page < PAGES; ++page) {
        for (int line = 0; line < 20; ++line) {
            logFilter(2, "", MODEL_FILE, "", 1, "", "%s\n", model.next(1000).c_str());
        }
        model.read(pipe.read());
    }
    setLogLimit(limit_before);
    EXPECT_GT(model.notices(), 0u);
    EXPECT_LE(model.notices(), uint64_t{PAGES} * SmallPipe::BYTES / (Detail::DefaultSink::RING_SIZE / 2) + 1);
}

}  // namespace
}  // namespace Orvex::Infra
