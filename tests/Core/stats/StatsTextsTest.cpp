// The texts of a snapshot, read by readers that refuse what a stranger's would refuse.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <Reticor/Stats.h>

#include "Core/stats/MediaSource.h"
#include "Core/stats/StatsTexts.h"
#include "support/core/SockPoolFixture.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

// ---- readers -------------------------------------------------------------------------------------------

// The series of an exposition, by name and labels. Refuses a series that is there twice, one without a type
// before it, a family that comes twice, and histograms that fall or whose count is another one.
class Exposition {
public:
    explicit Exposition(const std::string& text) {
        std::istringstream lines(text);
        EXPECT_EQ('\n', text.back());
        for (std::string line; std::getline(lines, line);) {
            line.rfind("# ", 0) == 0 ? comment(line) : sample(line);
        }
        for (const auto& [name, type] : m_types) {
            if (type == "histogram") {
                check_histogram(name);
            }
        }
    }

    double at(const std::string& series) const {
        const auto found = m_series.find(series);
        EXPECT_NE(m_series.end(), found) << series;
        return found != m_series.end() ? found->second : -1;
    }
    const std::map<std::string, double>& series() const { return m_series; }

    // Series that are counters.
    bool is_counter(const std::string& series) const {
        const std::string family = family_of(series.substr(0, series.find('{')));
        const std::string& type = m_types.at(family);
        return type == "counter" || type == "histogram";
    }

private:
    void comment(const std::string& line) {
        static const std::regex FORM("# (HELP|TYPE) ([a-zA-Z_:][a-zA-Z0-9_:]*) (.+)");
        std::smatch parts;
        ASSERT_TRUE(std::regex_match(line, parts, FORM)) << line;
        if (parts[1] == "TYPE") {
            EXPECT_TRUE(m_types.emplace(parts[2], parts[3]).second) << "twice: " << line;
            EXPECT_TRUE(parts[3] == "counter" || parts[3] == "gauge" || parts[3] == "histogram") << line;
            m_present = parts[2];
        }
    }

    void sample(const std::string& line) {
        static const std::regex FORM(R"(([a-zA-Z_:][a-zA-Z0-9_:]*)(\{[a-z]+="(?:[^"\\]|\\.)*")"
                                     R"((?:,[a-z]+="(?:[^"\\]|\\.)*")*\})? (\S+))");
        std::smatch parts;
        ASSERT_TRUE(std::regex_match(line, parts, FORM)) << line;
        EXPECT_EQ(m_present, family_of(parts[1])) << "not under its own type: " << line;
        char* end = nullptr;
        const std::string number = parts[3];
        const double value = std::strtod(number.c_str(), &end);
        EXPECT_EQ('\0', *end) << line;
        EXPECT_TRUE(m_series.emplace(parts[1].str() + parts[2].str(), value).second) << "twice: " << line;
    }

    std::string family_of(const std::string& name) const {
        for (const char* ending : {"_bucket", "_sum", "_count"}) {
            const size_t size = std::string(ending).size();
            if (name.size() > size && name.compare(name.size() - size, size, ending) == 0) {
                const std::string family = name.substr(0, name.size() - size);
                const auto found = m_types.find(family);
                if (found != m_types.end() && found->second == "histogram") {
                    return family;
                }
            }
        }
        return name;
    }

    void check_histogram(const std::string& name) const {
        static const std::regex EDGE("(.*?),?le=\"([^\"]+)\"\\}");
        std::map<std::string, std::map<double, double>> buckets;  // by the other labels
        for (const auto& [series, value] : m_series) {
            std::smatch parts;
            if (series.rfind(name + "_bucket", 0) == 0 && std::regex_match(series, parts, EDGE)) {
                buckets[parts[1]][parts[2] == "+Inf" ? 1e300 : std::atof(parts[2].str().c_str())] = value;
            }
        }
        for (const auto& [labels, edges] : buckets) {
            double below = 0;
            for (const auto& [edge, value] : edges) {
                EXPECT_GE(value, below) << labels << " at " << edge;
                below = value;
            }
            const std::string rest = labels.substr((name + "_bucket").size());
            EXPECT_EQ(edges.rbegin()->second, at(name + "_count" + (rest == "{" ? "" : rest + "}")));
        }
    }

    std::map<std::string, std::string> m_types;
    std::map<std::string, double> m_series;
    std::string m_present;
};

// Whether a text is one JSON value; keys of an object may not repeat.
class JsonReader {
public:
    explicit JsonReader(const std::string& text) : m_text(text) {}
    bool reads() {
        const bool good = value();
        blanks();
        return good && m_at == m_text.size();
    }

private:
    void blanks() {
        while (m_at < m_text.size() && std::isspace(static_cast<unsigned char>(m_text[m_at])) != 0) {
            ++m_at;
        }
    }
    bool take(char letter) {
        blanks();
        const bool there = m_at < m_text.size() && m_text[m_at] == letter;
        m_at += there ? 1 : 0;
        return there;
    }
    bool word(const std::string& expected) {
        const bool there = m_text.compare(m_at, expected.size(), expected) == 0;
        m_at += there ? expected.size() : 0;
        return there;
    }
    bool string(std::string& found) {
        if (!take('"')) {
            return false;
        }
        const size_t begin = m_at;
        while (m_at < m_text.size() && m_text[m_at] != '"') {
            m_at += m_text[m_at] == '\\' ? 2 : 1;
        }
        found = m_text.substr(begin, m_at - begin);
        return take('"');
    }
    bool number() {
        const size_t begin = m_at;
        while (m_at < m_text.size() &&
               std::string("+-.eE0123456789").find(m_text[m_at]) != std::string::npos) {
            ++m_at;
        }
        return m_at > begin;
    }
    template <class Entry>
    bool list(char close, Entry entry) {
        if (take(close)) {
            return true;
        }
        do {
            if (!entry()) {
                return false;
            }
        } while (take(','));
        return take(close);
    }
    bool value() {
        blanks();
        std::string ignored;
        if (take('{')) {
            std::set<std::string> keys;
            return list('}', [&] {
                std::string key;
                return string(key) && keys.insert(key).second && take(':') && value();
            });
        }
        if (take('[')) {
            return list(']', [&] { return value(); });
        }
        return string(ignored) || word("true") || word("false") || word("null") || number();
    }

    const std::string& m_text;
    size_t m_at = 0;
};

using Writer = size_t (CStats::*)(char*, size_t) const;

std::string written(const CStats& stats, Writer write) {
    std::string text((stats.*write)(nullptr, 0), '?');
    EXPECT_EQ(text.size(), (stats.*write)(&text[0], text.size()));
    return text;
}

std::string written(Writer write) {
    CStats stats;
    EXPECT_EQ(0, stats.Take());
    return written(stats, write);
}

class Quoted : public TestHandler {};

class StatsTexts : public SockPoolFixture {
protected:
    void work() {
        const int goal = handler->life->messages + 32;
        for (int i = 0; i < 32; ++i) {
            handler->Notify(handler->GetID(), 100, i);
        }
        EXPECT_EVENTUALLY(handler->life->messages >= goal);
    }
};

// ---- the exposition format -------------------------------------------------------------------------------

TEST(ExpositionReader, RefusesWhatItShouldRefuse) {
    const char* const wrong[] = {
        "# TYPE a gauge\na 1\na 2\n",                           // twice
        "# TYPE a gauge\nb 1\n",                                // under another family
        "# TYPE a gauge\na{b=\"c} 1\n",                         // no end of the label
        "# TYPE a gauge\na 1\n# TYPE b gauge\na{c=\"d\"} 1\n",  // torn apart
    };
    for (const char* text : wrong) {
        testing::TestPartResultArray failures;
        {
            testing::ScopedFakeTestPartResultReporter reporter(
                testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
            const Exposition read{text};
        }
        EXPECT_GT(failures.size(), 0) << text;
    }
}

TEST_F(StatsTexts, TheExpositionHasEverySeriesOnceAndCountersNeverFall) {
    CStats::SetTiming(true);
    work();
    const int index = CNetThread::CreatePrivatePool(1, false);
    Exposition before(written(&CStats::toPrometheus));
    EXPECT_EQ(1, before.at("reticor_build_info{version=\"1.0.0\"}"));
    EXPECT_EQ(2, before.at("reticor_pools"));
    EXPECT_GE(before.at("reticor_pool_messages_total{pool=\"0\"}"), 32);
    EXPECT_EQ(0, before.at("reticor_pool_messages_total{pool=\"" + std::to_string(index) + "\"}"));
    EXPECT_GE(before.at("reticor_handlers{class=\"Orvex::Testing::TestHandler\"}"), 1);
    EXPECT_GE(before.at("reticor_pool_run_seconds_count{pool=\"0\"}"), 1);
    work();
    const Exposition after(written(&CStats::toPrometheus));
    for (const auto& [series, value] : before.series()) {
        if (before.is_counter(series)) {
            EXPECT_GE(after.at(series), value) << series;
        }
    }
    EXPECT_GE(after.at("reticor_pool_messages_total{pool=\"0\"}") -
                  before.at("reticor_pool_messages_total{pool=\"0\"}"),
              32);
    CNetThread::DestroyPrivatePool(index);
    CStats::SetTiming(false);
}

// ---- media ----------------------------------------------------------------------------------------------

// A buffer with more senders than the text and the metrics have.
void manySenders(MediaRows& rows) {
    constexpr size_t SENDERS = MOST_SENDERS + 5;
    rows.buffers.push_back({3, SENDERS, 7, 70000, 900000});
    for (size_t i = 0; i < SENDERS; ++i) {
        SenderVerdict one;
        one.kind = i == 0 ? SenderVerdictKind::STALLED : SenderVerdictKind::KEEPS_UP;
        one.sender = -65536 * static_cast<int64_t>(i + 1);
        one.buffer = 3;
        one.lag_us = 1500000;
        std::snprintf(one.sentence, sizeof one.sentence, "%s", i == 0 ? "stalled for 1.5 s" : "keeps up");
        rows.senders.push_back(one);
    }
}

TEST_F(StatsTexts, HaveTheSendersOfMediaThatSufferMost) {
    MediaSource::Set(&manySenders);
    const Exposition metrics(written(&CStats::toPrometheus));
    EXPECT_EQ(25, metrics.at("reticor_media_buffer_senders{buffer=\"3\"}"));
    EXPECT_EQ(1, metrics.at("reticor_media_senders{verdict=\"stalled\"}"));
    EXPECT_EQ(24, metrics.at("reticor_media_senders{verdict=\"keeps_up\"}"));
    EXPECT_EQ(1.5, metrics.at("reticor_media_sender_lag_seconds{sender=\"-65536\",buffer=\"3\"}"));
    EXPECT_EQ(0U,
              metrics.series().count("reticor_media_sender_lag_seconds{sender=\"-1376256\",buffer=\"3\"}"));
    const std::string json = written(&CStats::toJson);
    EXPECT_TRUE(JsonReader(json).reads()) << json;
    EXPECT_NE(std::string::npos, json.find("\"sender\":\"-1638400\"")) << "all of them";
    const std::string text = written(&CStats::toText);
    EXPECT_NE(std::string::npos, text.find("stalled for 1.5 s\n")) << text;
    EXPECT_NE(std::string::npos, text.find("and 5 that suffer less\n")) << text;
}

void oneLateSender(MediaRows& rows) {
    rows.buffers.push_back({3, 1, 7, 70000, 900000});
    SenderVerdict late;
    late.sender = -65536;
    late.buffer = 3;
    late.stepped.by_level[5] = 4;
    late.stepped.by_level[10] = 1;
    late.stepped.by_channel[0] = 5;
    late.filtered.by_level[2] = 3;
    late.filtered.by_channel[7] = 3;
    rows.senders.push_back(late);
}

TEST_F(StatsTexts, HaveTheFramesThatASenderWasNotSentByTheirCause) {
    MediaSource::Set(&oneLateSender);
    const std::string json = written(&CStats::toJson);
    EXPECT_TRUE(JsonReader(json).reads()) << json;
    EXPECT_NE(std::string::npos,
              json.find("\"drops\":{\"stepped\":{\"frames\":5,\"levels\":{\"5\":4,\"10\":1},"
                        "\"channels\":{\"0\":5}},\"filtered\":{\"frames\":3,\"levels\":{\"2\":3},"
                        "\"channels\":{\"7\":3}}}"))
        << json;
    const Exposition metrics(written(&CStats::toPrometheus));
    const auto dropped = [&metrics](const char* cause) {
        return metrics.at(
            std::string("reticor_media_sender_dropped_frames_total{sender=\"-65536\",buffer=\"3\","
                        "cause=\"") +
            cause + "\"}");
    };
    EXPECT_EQ(5, dropped("stepped"));
    EXPECT_EQ(3, dropped("filtered"));
    for (const char* cause : {"too_old", "no_key", "not_chosen", "disposable"}) {
        EXPECT_EQ(0, dropped(cause)) << cause;
    }
}

// ---- JSON and text ---------------------------------------------------------------------------------------

TEST_F(StatsTexts, TheJsonIsJsonWithIdsAsStrings) {
    Gate gate;
    holdInMessage(gate);
    const std::string text = written(&CStats::toJson);
    EXPECT_TRUE(JsonReader(text).reads()) << text;
    EXPECT_NE(std::string::npos, text.find("\"handler\":\"" + std::to_string(handler->GetID()) + "\""))
        << text;
    EXPECT_NE(std::string::npos, text.find("\"class\":\"Orvex::Testing::TestHandler\"")) << text;
    EXPECT_EQ(1, std::count(text.begin(), text.end(), '\n')) << "one line, that a reader may split by";
    for (const char* wrong : {"", "{", "{\"a\":1,\"a\":2}", "[1,]", "{\"a\" 1}", "{}x"}) {
        EXPECT_FALSE(JsonReader(wrong).reads()) << wrong;
    }
}

TEST_F(StatsTexts, TheTextTellsInWhichCallAWorkerIs) {
    Gate gate;
    holdInMessage(gate);
    const std::string text = written(&CStats::toText);
    EXPECT_NE(std::string::npos,
              text.find("is in handle_message of handler " + std::to_string(handler->GetID()) + "\n"))
        << text;
}

TEST_F(StatsTexts, AShortRoomIsFilledAndTheWholeLengthTold) {
    CStats stats;
    ASSERT_EQ(0, stats.Take());
    const std::string whole = written(stats, &CStats::toText);
    char room[11] = "0123456789";
    EXPECT_EQ(whole.size(), stats.toText(room, 5));
    EXPECT_EQ(whole.substr(0, 5) + "56789", room);
    EXPECT_EQ(0u, CStats().toText(room, 5));
}

}  // namespace
}  // namespace Orvex::Testing
