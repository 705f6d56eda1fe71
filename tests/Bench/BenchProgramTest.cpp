// reticor-bench as a whole: each benchmark for a fraction of a second, its table, its JSON, and wrong use.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/Eventually.h"
#include "support/program/ChildProcess.h"
#include "support/program/TempFolder.h"

namespace {

using namespace Orvex::Testing;
using nlohmann::json;
using Words = std::vector<std::string>;

const std::string BENCH = RETICOR_BUILD_DIR "/tools/reticor-bench";

struct Outcome {
    std::string output;
    std::string errors;
    int code = -1;
};

Outcome run(const Words& words) {
    const TempFolder folder;
    const std::string errors = folder.file("errors");
    Words command{"sh", "-c", "exec \"$@\" 2>" + errors, "sh", BENCH};
    command.insert(command.end(), words.begin(), words.end());
    ChildProcess process(command);
    Outcome outcome;
    outcome.output = process.exchange("");
    outcome.code = process.wait(ChildProcess::WORK_LIMIT_MS);
    ChildProcess reader({"cat", errors});
    outcome.errors = reader.exchange("");
    return outcome;
}

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

/// Long enough for something to happen in it on a machine that does other things too.
json measured(const Words& words, const std::string& seconds = "0.3") {
    Words all = words;
    all.insert(all.end(), {"--json", "--seconds", seconds});
    const Outcome outcome = run(all);
    EXPECT_EQ(0, outcome.code) << outcome.errors;
    EXPECT_EQ("", outcome.errors);
    EXPECT_EQ(1, std::count(outcome.output.begin(), outcome.output.end(), '\n')) << "one line";
    return json::parse(outcome.output, nullptr, false);
}

double median(const json& row, const std::string& figure) {
    return row.at("figures").at(figure).at("median").get<double>();
}

// Every contender that is built in was measured, and its figures are in order.
void expectWhole(const json& all, const std::string& first, bool more_is_better) {
    ASSERT_TRUE(all.is_object());
    EXPECT_EQ(first, all.at("ratio_of"));
    EXPECT_LE(1, all.at("machine").at("processors").get<int>());
    ASSERT_TRUE(all.at("best_peer").is_string()) << "plain epoll is everywhere";
    std::set<std::string> names;
    double best_ratio_of_peers = 0;
    for (const json& row : all.at("rows")) {
        EXPECT_TRUE(names.insert(row.at("name")).second);
        ASSERT_EQ(row.at("built_in").get<bool>(), row.contains("figures")) << row;
        if (!row.contains("figures")) {
            continue;
        }
        for (const json& figure : row.at("figures")) {
            EXPECT_LE(figure.at("least"), figure.at("median")) << row;
            EXPECT_LE(figure.at("median"), figure.at("most")) << row;
        }
        EXPECT_LT(0, median(row, first)) << row;
        if (row.at("peer")) {
            best_ratio_of_peers = std::max(best_ratio_of_peers, row.at("ratio").get<double>());
        }
    }
    EXPECT_DOUBLE_EQ(1, best_ratio_of_peers);
    EXPECT_EQ(1U, names.count("Reticor"));
    const auto named = [&](const std::string& name) {
        return *std::find_if(all.at("rows").begin(), all.at("rows").end(),
                             [&](const json& row) { return row.at("name") == name; });
    };
    const json own = named("Reticor");
    const json best = named(all.at("best_peer"));
    EXPECT_FALSE(own.at("peer").get<bool>());
    const double quotient = median(own, first) / median(best, first);
    EXPECT_NEAR(more_is_better ? quotient : 1 / quotient, own.at("ratio").get<double>(), 1e-9);
}

TEST(BenchProgram, EchoTellsRequestsAndWhatTheyCost) {
    const json all = measured({"echo", "--clients", "7", "--rounds", "2", "--threads", "1"});
    expectWhole(all, "requests_per_s", true);
    EXPECT_EQ(7, all.at("clients"));
    EXPECT_EQ(2, all.at("rounds"));
    EXPECT_EQ(1, all.at("threads"));
    const json& own = all.at("rows").at(0);
    // A request takes a microsecond at the least, and seven are under way at the most.
    EXPECT_GT(1e7, median(own, "requests_per_s"));
    EXPECT_LT(0.1, median(own, "cpu_us_per_request"));
    EXPECT_LE(median(own, "p50_us"), median(own, "p99_us"));
}

TEST(BenchProgram, FanoutDeliversTheStreamToEachClient) {
    const json all = measured({"fanout", "--clients", "5", "--rounds", "1"}, "1");
    expectWhole(all, "cpu_us_per_frame", false);
    const json& own = all.at("rows").at(0);
    EXPECT_GE(5 * 25 * 2, median(own, "frames_per_s")) << "25 frames a second to five clients";
    EXPECT_LT(0, median(own, "delay_p50_us"));
}

TEST(BenchProgram, MessagesAreCountedForASecondByTheMillion) {
    const json all = measured({"messages", "--clients", "3", "--rounds", "1"});
    const json& own = all.at("rows").at(0);
    EXPECT_EQ("Reticor", own.at("name"));
    EXPECT_LT(1, median(own, "ns_per_message"));
    EXPECT_GT(1e6, median(own, "ns_per_message"));
    EXPECT_LT(0, median(own, "serial_ns_per_message"));
    EXPECT_EQ("ns_per_message", all.at("ratio_of"));
    if (all.at("best_peer").is_string()) {
        expectWhole(all, "ns_per_message", false);
    }
    EXPECT_TRUE(has(run({"messages", "--seconds", "0.05", "--rounds", "1"}).output, "50000 messages of one"));
}

TEST(BenchProgram, PrintsATableThatIsHonestAboutTheMachine) {
    const Outcome outcome = run({"echo", "--clients", "2", "--seconds", "0.2", "--rounds", "2"});
    EXPECT_EQ(0, outcome.code) << outcome.errors;
    for (const char* part : {"echo: 2 clients, 64 bytes", "processor", ", load ",
                             "medians of 2 rounds of 0.2 s", "requests/s", "least to most", "\nReticor ",
                             "\nReticor's kit ", "\nplain epoll ", "\nratio: to the best peer, "}) {
        EXPECT_TRUE(has(outcome.output, part)) << part << outcome.output;
    }
}

TEST(BenchProgram, ListsWhatThereIsAndWhatWasNotBuiltIn) {
    const Outcome outcome = run({"list"});
    EXPECT_EQ(0, outcome.code);
    for (const char* part : {"echo ", "fanout ", "messages ", "Reticor         built in\n", "TBB  ", "asio  ",
                             "libevent  ", "libuv  "}) {
        EXPECT_TRUE(has(outcome.output, part)) << part << outcome.output;
    }
    const json all = measured({"messages", "--clients", "1", "--rounds", "1"});
    for (const json& row : all.at("rows")) {
        std::string line = row.at("name");
        line.append(16 - line.size(), ' ');
        EXPECT_TRUE(
            has(outcome.output, line + (row.at("built_in").get<bool>() ? "built in" : "not built in")))
            << line;
    }
}

TEST(BenchProgram, WrongUseIsToldInASentence) {
    struct Case {
        Words words;
        const char* said;
    };
    for (const Case& one :
         {Case{{}, "A subcommand is required"}, Case{{"sing"}, "there is no benchmark sing; there are echo,"},
          Case{{"echo", "--clients", "0"}, "--clients: Value 0 not in range"},
          Case{{"echo", "--seconds", "nan"}, "--seconds"}, Case{{"messages", "--rounds", "0"}, "--rounds"},
          Case{{"fanout", "--threads", "2"}, "--threads"}}) {
        const Outcome outcome = run(one.words);
        EXPECT_NE(0, outcome.code) << one.said;
        EXPECT_EQ("", outcome.output);
        EXPECT_TRUE(has(outcome.errors, one.said)) << outcome.errors;
    }
}

TEST(BenchProgram, APartThatCannotBeIsToldWithItsContender) {
    // Every server has too few descriptors for its clients.
    ChildProcess process(
        {"sh", "-c", "ulimit -n 12; exec \"$0\" echo --clients 40 --seconds 0.1 2>&1", BENCH});
    const std::string said = process.exchange("");
    EXPECT_EQ(1, process.wait(ChildProcess::WORK_LIMIT_MS));
    EXPECT_TRUE(has(said, "reticor-bench: Reticor: ")) << said;
}

// The processes of a program that was killed do not stay behind.
TEST(BenchProgram, ItsPartsEndWithIt) {
    ChildProcess process({BENCH, "echo", "--seconds", "60"});
    const std::string children =
        "/proc/" + std::to_string(process.pid()) + "/task/" + std::to_string(process.pid()) + "/children";
    Words parts;
    EXPECT_EVENTUALLY([&] {
        ChildProcess reader({"cat", children});
        std::string all = reader.exchange("");
        parts.clear();
        for (size_t end = all.find(' '); end != std::string::npos; end = all.find(' ')) {
            parts.push_back(all.substr(0, end));
            all.erase(0, end + 1);
        }
        return parts.size() == 2;
    }());
    process.signal(SIGKILL);
    EXPECT_EQ(-SIGKILL, process.wait());
    for (const std::string& part : parts) {
        EXPECT_EVENTUALLY([&] {
            ChildProcess reader({"sh", "-c", "cat /proc/" + part + "/cmdline 2>/dev/null | tr '\\0' ' '"});
            return !has(reader.exchange(""), "reticor-bench --part");
        }());
    }
}

}  // namespace
