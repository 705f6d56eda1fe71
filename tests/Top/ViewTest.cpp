// View: what stands on the screen, at any size.
#include "top/View.h"

#include <clocale>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Top/Samples.h"
#include "top/Text.h"

namespace {

using nlohmann::json;
using top::columns;
using top::Contact;
using top::Line;
using top::Model;
using top::Order;
using top::plain;
using top::Settings;
using top::Style;
using top::View;

namespace Samples = TopSamples;
using Samples::SECOND;

class ViewCase : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(nullptr, std::setlocale(LC_CTYPE, "C.UTF-8"));
        contact.target = "/run/shop.stats";
        contact.process = "pid 4711 shop";
    }
    void TearDown() override { std::setlocale(LC_CTYPE, "C"); }

    void look(const json& what) {
        ++seconds;
        json all = what;
        if (all.contains("taken_us")) {
            all["taken_us"] = seconds * SECOND;
        }
        model.add(Samples::read(all, seconds * SECOND), 4711);
    }
    std::vector<Line> lines(size_t width = 80, size_t height = 24) const {
        return View(model, settings, contact).screen(width, height);
    }
    std::string screen(size_t width = 80, size_t height = 24) const {
        std::string text;
        for (const Line& line : lines(width, height)) {
            text += plain(line) + "\n";
        }
        return text;
    }
    bool shows(const std::string& text, size_t width = 80, size_t height = 24) const {
        return screen(width, height).find(text) != std::string::npos;
    }
    /// Of the first span that has this; HEAD if there is none.
    Style styleOf(const std::string& text, size_t width = 80) const {
        for (const Line& line : lines(width)) {
            for (const top::Span& span : line) {
                if (span.text.find(text) != std::string::npos) {
                    return span.style;
                }
            }
        }
        ADD_FAILURE() << text << " is not on the screen:\n" << screen(width);
        return Style::HEAD;
    }
    /// Which of two stands above the other.
    bool isAbove(const std::string& upper, const std::string& lower) const {
        const std::string text = screen();
        EXPECT_NE(std::string::npos, text.find(upper)) << text;
        EXPECT_NE(std::string::npos, text.find(lower)) << text;
        return text.find(upper) < text.find(lower);
    }

    Model model;
    Settings settings;
    Contact contact;
    uint64_t seconds = 100;
};

/// A process with all there is, seen twice.
class ViewOfProcess : public ViewCase {
protected:
    void SetUp() override {
        ViewCase::SetUp();
        all["timing"] = true;
        all["classes"] = json::array({Samples::handlers("Shop::Till", 1000, 10, 10000000, 3),
                                      Samples::handlers("Shop::Report", 90000, 10, 1000, 1),
                                      Samples::handlers("Idle", 5, 0, 0, 700)});
        all["media_buffers"] = json::array(
            {{{"buffer", 1}, {"senders", 3}, {"frames", 25}, {"bytes", 1200000}, {"put_bytes", 100}}});
        all["media_senders"] =
            json::array({Samples::sender("-1", "keeps_up", "keeps up", 200),
                         Samples::sender("-2", "slow_reader", "reads 1.2 of 4.0 Mbit/s", 1500000),
                         Samples::sender("-3", "stalled", "stalled for 3.2 s", 3200000)});
        all["objects"] =
            json::array({{{"kind", "file"}, {"id", "-65536"}, {"written_bytes", 4096}, {"device_errors", 2}},
                         {{"kind", "stream_sender"}, {"id", "-131072"}, {"waiting_bytes", 70000}},
                         {{"kind", "tick"}, {"id", "-196608"}, {"period_us", 20000}, {"events", 12}}});
        look(all);
        work(all);
        look(all);
    }
    static void work(json& what) {
        what["pools"][0]["calls"] = 4000;
        what["pools"][0]["messages"] = 4000;
        what["pools"][0]["cpu_ns"] = 740000000;
        what["pools"][0]["sockets"] = 12;
        what["classes"][0]["calls"] = 1100;
        what["classes"][0]["timed"] = 110;
        what["classes"][0]["time_ns"] = 10000000 + 100 * 2000000;
        what["classes"][1]["calls"] = 93900;
        what["classes"][1]["timed"] = 20;
        what["classes"][1]["time_ns"] = 1000 + 10 * 3000;
        what["media_buffers"][0]["put_bytes"] = 500100;
    }
    json all = Samples::process(0);
};

TEST_F(ViewOfProcess, TellsOfOtherObjectsWhatTheyTell) {
    settings.part = 5;
    EXPECT_TRUE(shows("file            -65536      device errors 2  written 4.1 kB")) << screen();
    EXPECT_TRUE(shows("stream_sender   -131072     waiting 70 kB")) << screen();
    EXPECT_TRUE(shows("tick            -196608     events 12  period 20 ms")) << screen();
    EXPECT_LT(screen().find("stream_sender"), screen().find("file ")) << "what waits is the load";
    settings.order = Order::TOTAL;
    EXPECT_GT(screen().find("stream_sender"), screen().find("file ")) << "and what was done the total";
    settings.filter = "tick";
    EXPECT_TRUE(shows("-196608"));
    EXPECT_FALSE(shows("-65536"));
}

TEST_F(ViewOfProcess, TellsWhatItLooksAt) {
    EXPECT_EQ(0u, screen().find("reticor-top  /run/shop.stats  pid 4711 shop"));
    EXPECT_TRUE(shows("\n2 handlers, 1 timer armed, times on\n"));
    EXPECT_EQ(Style::HEAD, lines()[0][0].style);
}

TEST_F(ViewOfProcess, TellsPoolsWithReadableFigures) {
    EXPECT_TRUE(shows("pool     busy  cpu 1s    10s    60s  calls/s 1s    10s    60s  queue   left"))
        << screen();
    EXPECT_TRUE(shows("   0      0/2    37 %      -      -       4.0 k      -      -      0  4.1 k"))
        << screen();
}

TEST_F(ViewOfProcess, TellsClassesThoseThatTakeTimeFirst) {
    EXPECT_TRUE(isAbove("Shop::Till ", "Shop::Report "));
    EXPECT_TRUE(isAbove("Shop::Report ", "Idle "));
    const std::string text = screen(100);
    EXPECT_NE(std::string::npos, text.find("2.0 ms")) << text << "of each call of the till";
    EXPECT_NE(std::string::npos, text.find("20 %")) << text;
    EXPECT_NE(std::string::npos, text.find("3.9 k")) << text;
}

TEST_F(ViewOfProcess, TellsSendersThoseThatSufferFirst) {
    EXPECT_TRUE(isAbove("stalled for 3.2 s", "reads 1.2 of 4.0 Mbit/s"));
    EXPECT_TRUE(isAbove("reads 1.2 of 4.0 Mbit/s", "keeps up"));
    EXPECT_EQ(Style::BAD, styleOf("stalled for"));
    EXPECT_EQ(Style::WARN, styleOf("reads 1.2"));
    EXPECT_EQ(Style::NORMAL, styleOf("keeps up"));
    EXPECT_TRUE(shows("3.2 s"));
}

TEST_F(ViewOfProcess, ColoursVerdictsByWhatTheyMean) {
    for (const auto& [verdict, style] :
         std::vector<std::pair<std::string, Style>>{{"network", Style::WARN},
                                                    {"both", Style::WARN},
                                                    {"burst", Style::WARN},
                                                    {"silent", Style::BAD},
                                                    {"waiting", Style::DIM},
                                                    {"unknown", Style::DIM},
                                                    {"a new one", Style::WARN}}) {
        all["media_senders"] = json::array({Samples::sender("-1", verdict, "the sentence", 0)});
        look(all);
        EXPECT_EQ(style, styleOf("the sentence")) << verdict;
    }
}

TEST_F(ViewOfProcess, TellsBuffersAndOtherObjects) {
    EXPECT_TRUE(shows("media buffer"));
    EXPECT_TRUE(shows("1.2 MB")) << screen();
    EXPECT_TRUE(shows("500 kB/s")) << screen();
    EXPECT_TRUE(shows("-65536")) << screen();
    EXPECT_TRUE(shows("4.1 kB")) << screen();
}

TEST_F(ViewOfProcess, MemoryIsALineBelowTheHeadWhereItIsTold) {
    const size_t alone = lines().size();
    EXPECT_FALSE(shows("memory:"));
    all["memory"] = json::array({{{"kind", "free_records"}, {"pieces", 30}, {"bytes", 3000}},
                                 {{"kind", "reserved_records"}, {"pieces", 256}, {"bytes", 28000}},
                                 {{"kind", "media_frames"}, {"pieces", 12}, {"bytes", 4200000}}});
    look(all);
    EXPECT_EQ("memory: 286 records of 31 kB, 12 frames of 4.2 MB", plain(lines()[2]));
    EXPECT_EQ(alone, lines().size());
    EXPECT_EQ("memory: 286 re\xe2\x80\xa6", plain(lines(15)[2])) << "cut to the screen";
    EXPECT_EQ("memory: 286 records of 31 kB, 12 frames of 4.2 MB",
              plain(View(model, settings, contact).text(0)[2]));
}

TEST_F(ViewOfProcess, PartsWithNothingInThemAreNotThere) {
    all = Samples::process(0);
    look(all);
    EXPECT_FALSE(shows("media buffer"));
    EXPECT_FALSE(shows("sender"));
    EXPECT_FALSE(shows("object "));
    EXPECT_FALSE(shows("handlers  "));
    EXPECT_TRUE(shows("pool"));
}

TEST_F(ViewOfProcess, AlarmsStandOutBelowTheHead) {
    all["alarms"] =
        json::array({Samples::alarm("pool_full", true, 3, "pool 0 is full: 3 sockets are left out")});
    all["alarms"][0]["since_us"] = (seconds - 2) * SECOND;
    all["version"] = 2;
    look(all);
    const auto found = lines();
    EXPECT_EQ("! pool 0 is full: 3 sockets are left out, for 3.0 s", plain(found[2]));
    EXPECT_EQ(Style::BAD, found[2][0].style);
    EXPECT_EQ(0u, plain(found[3]).find("! the process tells version 2"));
    EXPECT_EQ(Style::WARN, found[3][0].style);
}

TEST_F(ViewOfProcess, ManyAlarmsLeaveRoomForTheRest) {
    for (int i = 1; i < 20; ++i) {
        all["pools"].push_back(Samples::pool(i));
        all["alarms"].push_back(
            Samples::alarm("pool_full", true, 1, "pool " + std::to_string(i) + " is full"));
    }
    look(all);
    EXPECT_TRUE(shows("and 16 more alarms"));
    EXPECT_TRUE(shows("Shop::Till"));
    EXPECT_TRUE(shows("stalled for 3.2 s"));
}

TEST_F(ViewOfProcess, ABusyPoolWithAQueueStandsOut) {
    EXPECT_EQ(Style::NORMAL, styleOf("0/2"));
    all["pools"][0]["busy"] = 2;
    look(all);
    EXPECT_EQ(Style::WARN, styleOf("2/2"));
    all["pools"][0]["queue_length"] = 1;
    look(all);
    EXPECT_EQ(Style::BAD, styleOf("2/2"));
    EXPECT_NE(Style::BAD, styleOf("4.1 k"));
    all["pools"][0]["places_left_read"] = 0;
    look(all);
    bool stands_out = false;
    for (const Line& line : lines()) {
        for (size_t i = 5; i < line.size() && plain(line).find("2/2") != std::string::npos; ++i) {
            stands_out = stands_out || (line[i].style == Style::BAD && i + 1 == line.size());
        }
    }
    EXPECT_TRUE(stands_out) << screen();
}

TEST_F(ViewOfProcess, SortsByWhatTheUserChooses) {
    settings.order = Order::TOTAL;
    EXPECT_TRUE(isAbove("Shop::Report", "Shop::Till"));
    settings.order = Order::SIZE;
    EXPECT_TRUE(isAbove("Idle", "Shop::Till"));
    EXPECT_TRUE(isAbove("Shop::Till", "Shop::Report"));
    settings.order = Order::NAME;
    EXPECT_TRUE(isAbove("Idle", "Shop::Report"));
    EXPECT_TRUE(isAbove("Shop::Report", "Shop::Till"));
    settings.reverse = true;
    EXPECT_TRUE(isAbove("Shop::Till", "Shop::Report"));
    EXPECT_TRUE(isAbove("Shop::Report", "Idle"));
    EXPECT_TRUE(shows("s sort: name (r)"));
}

TEST_F(ViewOfProcess, WithoutTimesClassesAreSortedByTheirCalls) {
    for (json& row : all["classes"]) {
        row["timed"] = 0;
        row["time_ns"] = 0;
    }
    Model other;
    all["taken_us"] = 1 * SECOND;
    other.add(Samples::read(all), 1);
    all["taken_us"] = 2 * SECOND;
    all["classes"][1]["calls"] = 99000;
    all["classes"][0]["calls"] = 1200;
    other.add(Samples::read(all), 1);
    std::string text;
    for (const Line& line : View(other, settings, contact).screen(80, 24)) {
        text += plain(line) + "\n";
    }
    EXPECT_LT(text.find("Shop::Report"), text.find("Shop::Till")) << text;
}

TEST_F(ViewOfProcess, TheFilterLeavesRowsOutAndKeepsPools) {
    settings.filter = "TILL";
    EXPECT_TRUE(shows("Shop::Till"));
    EXPECT_FALSE(shows("Shop::Report"));
    EXPECT_FALSE(shows("stalled for"));
    EXPECT_TRUE(shows("   0      0/2"));
    EXPECT_TRUE(shows("/ filter: TILL"));
    settings.filter = "stalled";
    EXPECT_FALSE(shows("Shop::Till"));
    EXPECT_TRUE(shows("stalled for"));
    EXPECT_FALSE(shows("keeps up"));
    settings.filter = "FILE";
    EXPECT_TRUE(shows("-65536"));
    settings.filter = "nothing has this";
    EXPECT_FALSE(shows("Idle"));
}

TEST_F(ViewOfProcess, ThePartThatIsChosenHasTheWholeScreen) {
    settings.part = 2;
    EXPECT_TRUE(shows("Shop::Till"));
    EXPECT_FALSE(shows("stalled for"));
    EXPECT_FALSE(shows("   0      0/2"));
    EXPECT_EQ(3u, View(model, settings, contact).rows());
    settings.first = 1;
    EXPECT_FALSE(shows("Shop::Till ")) << "it was scrolled away";
    EXPECT_TRUE(shows("Shop::Report "));
    settings.part = 3;
    settings.first = 0;
    EXPECT_TRUE(shows("stalled for"));
    EXPECT_FALSE(shows("Shop::Till"));
    settings.part = 5;
    EXPECT_TRUE(shows("-65536"));
    EXPECT_EQ(3u, View(model, settings, contact).rows());
    settings.part = 0;
    EXPECT_EQ(0u, View(model, settings, contact).rows()) << "all of them do not scroll";
}

TEST_F(ViewOfProcess, ALongListIsCutAndSaysSo) {
    for (int i = 0; i < 100; ++i) {
        all["classes"].push_back(Samples::handlers("Class" + std::to_string(i), 1));
    }
    look(all);
    EXPECT_TRUE(shows(" more\n"));
    EXPECT_TRUE(shows("stalled for 3.2 s")) << "others keep their place:\n" << screen();
    EXPECT_TRUE(shows("-65536"));
    settings.part = 2;
    EXPECT_TRUE(shows("and 84 more")) << screen();
}

TEST_F(ViewOfProcess, TheKeysStandInTheLastLine) {
    EXPECT_EQ("q quit  s sort: load  / filter  space hold  t times  0-5 parts  ? help",
              plain(lines().back()));
    EXPECT_EQ(Style::DIM, lines().back()[0].style);
}

TEST_F(ViewOfProcess, TheFilterIsSeenWhileItIsTyped) {
    settings.typing = true;
    settings.filter = "ab\x1b";
    EXPECT_EQ("filter: ab?_", plain(lines().back()));
}

TEST_F(ViewOfProcess, ANoticeTakesThePlaceOfTheKeys) {
    settings.notice = "nobody answers";
    EXPECT_EQ("nobody answers", plain(lines().back()));
}

TEST_F(ViewOfProcess, HelpExplainsEveryKeyWithin80By24) {
    settings.help = true;
    const auto found = lines();
    ASSERT_EQ(24u, found.size());
    for (const char* const key :
         {"q ", "s ", "r ", "/ ", "space ", "t ", "1 2 3 4 5", "up, down", "? or h"}) {
        EXPECT_TRUE(shows(std::string("\n") + key)) << key;
    }
    EXPECT_FALSE(shows("\xe2\x80\xa6")) << "nothing of it is cut";
}

TEST_F(ViewOfProcess, ThatIsHeldSaysSo) {
    EXPECT_FALSE(shows("HELD"));
    settings.held = true;
    EXPECT_TRUE(shows(" HELD \n"));
}

TEST_F(ViewOfProcess, ThatHasGoneSaysSoAndKeepsItsFigures) {
    contact.trouble = "Connection refused";
    contact.silent_s = 12;
    const auto found = lines();
    EXPECT_EQ("GONE for 12 s: Connection refused; trying again", plain(found[1]));
    EXPECT_EQ(Style::BAD, found[1][0].style);
    EXPECT_TRUE(shows("Shop::Till"));
}

TEST_F(ViewCase, ThatNeverAnsweredSaysSo) {
    contact.process = "";
    contact.trouble = "No such file or directory";
    EXPECT_TRUE(shows("\nNO ANSWER: No such file or directory; trying again\n")) << screen();
    contact.silent_s = 5;
    EXPECT_TRUE(shows("NO ANSWER for 5.0 s: ")) << screen();
    EXPECT_EQ(24u, lines().size());
}

TEST_F(ViewCase, BeforeTheFirstAnswerThereIsAnEmptyScreenWithKeys) {
    EXPECT_TRUE(shows("q quit"));
    EXPECT_EQ(24u, lines().size());
    EXPECT_FALSE(shows("NO ANSWER"));
}

TEST_F(ViewOfProcess, FitsEveryScreen) {
    all["pools"][0]["sockets_without_place"] = 3;
    all["classes"].push_back(
        Samples::handlers("\xe6\x97\xa5\xe6\x9c\xac::\xe6\x97\xa5\xe6\x9c\xac\xe6\x97\xa5\xe6\x9c\xac", 1));
    look(all);
    for (size_t part = 0; part <= View::PARTS; ++part) {
        settings.part = part;
        for (size_t width = 60; width <= 200; width += 7) {
            for (size_t height = 1; height <= 60; height += height < 12 ? 1 : 5) {
                const auto found = lines(width, height);
                ASSERT_EQ(height, found.size());
                for (const Line& line : found) {
                    ASSERT_LE(columns(plain(line)), width) << width << "x" << height << ": " << plain(line);
                }
            }
        }
    }
}

TEST_F(ViewOfProcess, AScreenOfAnySizeHarmsNothing) {
    for (size_t width = 1; width < 60; ++width) {
        for (size_t height = 1; height < 12; ++height) {
            settings.help = width % 2 == 0;
            ASSERT_EQ(height, lines(width, height).size());
        }
    }
}

TEST_F(ViewOfProcess, ANarrowScreenKeepsWhatMatters) {
    EXPECT_TRUE(shows("busy", 40));
    EXPECT_TRUE(shows("queue", 40));
    EXPECT_TRUE(shows("Shop::Till", 40));
    EXPECT_FALSE(shows("60s", 40));
    EXPECT_TRUE(shows("stalled for", 80));
}

TEST_F(ViewOfProcess, AWideScreenShowsMore) {
    EXPECT_FALSE(shows("messages/s"));
    EXPECT_TRUE(shows("messages/s", 170)) << screen(170);
    EXPECT_TRUE(shows("blocked", 170));
}

TEST_F(ViewOfProcess, NamesCannotDriveTheTerminal) {
    all["classes"][0]["class"] = "Evil\x1b[2J";
    all["media_senders"][0]["why"] = "a\nb";
    contact.process = "pid 1 \x1b]0;x";
    look(all);
    for (const Line& line : lines()) {
        EXPECT_EQ(std::string::npos, plain(line).find('\x1b'));
        EXPECT_EQ(std::string::npos, plain(line).find('\n'));
    }
    EXPECT_TRUE(shows("Evil?[2J"));
}

TEST_F(ViewOfProcess, AsTextNothingIsCutAndThereAreNoKeys) {
    std::string text;
    for (int i = 0; i < 100; ++i) {
        all["classes"].push_back(Samples::handlers("Class" + std::to_string(i), 1));
    }
    all["media_senders"][0]["why"] = std::string(150, 'w');
    look(all);
    for (const Line& line : View(model, settings, contact).text(0)) {
        text += plain(line) + "\n";
    }
    EXPECT_EQ(0u, text.find("reticor-top  /run/shop.stats  pid 4711 shop\n2 handlers"));
    EXPECT_NE(std::string::npos, text.find("Class99 "));
    EXPECT_NE(std::string::npos, text.find(std::string(150, 'w')));
    EXPECT_EQ(std::string::npos, text.find("q quit"));
    EXPECT_EQ(std::string::npos, text.find("more\n"));
    EXPECT_EQ(std::string::npos, text.find("\xe2\x80\xa6"));
}

TEST_F(ViewOfProcess, AsTextOfAWidthItFitsThat) {
    for (const Line& line : View(model, settings, contact).text(80)) {
        EXPECT_LE(columns(plain(line)), 80u) << plain(line);
    }
}

TEST_F(ViewCase, ARelayIsToldByItsOwnFigures) {
    json all = Samples::relay();
    all["clients"].push_back(
        Samples::client("10.0.0.2:99", "stalled", "stalled for 3.0 s: hung up on in 2.0 s"));
    all["clients"][1]["lag_ms"] = 3000;
    all["ended"].push_back({{"address", "10.0.0.9:1"}, {"verdict", "silent"}, {"why", "silent for 9 s"}});
    look(all);
    all["input"]["frames"] = 125;
    all["input"]["bytes"] = 2500000;
    all["totals"]["stalled"] = 1;
    look(all);
    EXPECT_TRUE(shows("relay of /live.mjpg, 25 frames/s, 4.0 Mb/s, 1 client of 100, 1 hung up on"))
        << screen();
    EXPECT_TRUE(shows("client  "));
    EXPECT_TRUE(isAbove("10.0.0.2:99", "127.0.0.1:4711"));
    EXPECT_TRUE(isAbove("127.0.0.1:4711", "10.0.0.9:1")) << "those that have left come last";
    EXPECT_EQ(Style::DIM, styleOf("silent for 9 s"));
    EXPECT_EQ(Style::BAD, styleOf("stalled for 3.0 s"));
    EXPECT_TRUE(shows("left")) << screen();
    EXPECT_FALSE(shows("pool"));
}

}  // namespace
