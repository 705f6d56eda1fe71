// Report: what scripts get.
#include "top/Report.h"

#include <string>

#include <gtest/gtest.h>

#include "Top/Samples.h"

namespace {

using nlohmann::json;
using top::Contact;
using top::Model;
using top::reportJson;

namespace Samples = TopSamples;
using Samples::SECOND;

json report(const Model& model, const std::string& answer) {
    Contact contact;
    contact.target = "/run/shop.stats";
    const std::string text = reportJson(model, contact, answer);
    EXPECT_EQ(text.size() - 1, text.find('\n')) << "one line";
    const json all = json::parse(text, nullptr, false);
    EXPECT_TRUE(all.is_object()) << text;
    return all;
}

TEST(TopReport, HasWhatTheProcessSaidUnchanged) {
    const json said = Samples::process(5 * SECOND);
    Model model;
    model.add(Samples::read(said), 4711);
    const json all = report(model, said.dump() + "\n");
    EXPECT_EQ(said, all["stats"]);
    EXPECT_EQ("/run/shop.stats", all["target"]);
    EXPECT_EQ(4711, all["pid"]);
    EXPECT_TRUE(all["pool_rates"].empty()) << "of one look";
    EXPECT_TRUE(all["class_rates"].empty());
    EXPECT_TRUE(all["alarms"].empty());
}

TEST(TopReport, HasRatesAndAlarmsOfTwoLooks) {
    json said = Samples::process(5 * SECOND);
    said["classes"] = json::array({Samples::handlers("Till", 10, 1, 1000)});
    Model model;
    model.add(Samples::read(said), 1);
    said["taken_us"] = 7 * SECOND;
    said["classes"] = json::array({Samples::handlers("Till", 30, 3, 9000)});
    said["pools"][0]["messages"] = 50;
    said["pools"][0]["cpu_ns"] = 1000000000;
    said["alarms"] =
        json::array({Samples::alarm("clock_late", true, 2, "timers of pool 0 are late: 2 wait")});
    model.add(Samples::read(said), 1);
    const json all = report(model, said.dump());
    ASSERT_EQ(1u, all["pool_rates"].size());
    EXPECT_EQ(0, all["pool_rates"][0]["pool"]);
    EXPECT_DOUBLE_EQ(2, all["pool_rates"][0]["seconds"]);
    EXPECT_DOUBLE_EQ(25, all["pool_rates"][0]["messages"]);
    EXPECT_DOUBLE_EQ(0.25, all["pool_rates"][0]["utilisation"]);
    EXPECT_DOUBLE_EQ(0, all["pool_rates"][0]["socket_events"]);
    ASSERT_EQ(1u, all["class_rates"].size());
    EXPECT_EQ("Till", all["class_rates"][0]["class"]);
    EXPECT_DOUBLE_EQ(10, all["class_rates"][0]["calls"]);
    EXPECT_DOUBLE_EQ(4e-5, all["class_rates"][0]["busy"]);
    ASSERT_EQ(1u, all["alarms"].size());
    EXPECT_EQ(true, all["alarms"][0]["bad"]);
    EXPECT_EQ("timers of pool 0 are late: 2 wait", all["alarms"][0]["text"]);
}

TEST(TopReport, ARelayIsReportedToo) {
    Model model;
    model.add(Samples::read(Samples::relay(), SECOND), 0);
    const json all = report(model, Samples::relay().dump());
    EXPECT_EQ(Samples::relay(), all["stats"]);
    EXPECT_EQ(0, all["pid"]);
}

TEST(TopReport, NamesStayJsonWhateverTheyAre) {
    json said = Samples::process(SECOND);
    said["classes"] = json::array({Samples::handlers("quote\" back\\ line\n escape\x1b", 1)});
    Model model;
    model.add(Samples::read(said), 1);
    said["taken_us"] = 2 * SECOND;
    model.add(Samples::read(said), 1);
    EXPECT_EQ("quote\" back\\ line\n escape\x1b", report(model, said.dump())["class_rates"][0]["class"]);
}

}  // namespace
