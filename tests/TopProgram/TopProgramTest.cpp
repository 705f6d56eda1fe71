// reticor-top as a whole: in a real terminal, without one, and beside processes that hang, die and come back.
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/Eventually.h"
#include "support/program/ChildProcess.h"
#include "support/program/RelayProgram.h"
#include "support/program/TcpClient.h"
#include "support/program/TempFolder.h"
#include "support/program/Terminal.h"

namespace {

using namespace Orvex::Testing;
using nlohmann::json;

const std::string TOP = RETICOR_BUILD_DIR "/tools/reticor-top";

/// A process that serves its statistics.
class Shop {
public:
    explicit Shop(const std::string& path) : m_process({RETICOR_BUILD_DIR "/tests/shop_program", path}) {
        EXPECT_EQ("serving", m_process.readLine());
    }
    void hang() { m_process.write("hang\n"); }
    void go_on() { m_process.write("go on\n"); }
    void signal(int number) { m_process.signal(number); }
    int kill() {
        m_process.signal(SIGKILL);
        return m_process.wait();
    }
    int end() {
        m_process.write("end\n");
        return m_process.wait();
    }
    std::string pid() const { return "pid " + std::to_string(m_process.pid()) + " shop_program"; }

private:
    ChildProcess m_process;
};

struct Outcome {
    std::string output;
    std::string errors;
    int code = -1;
};

/// Runs the program without a terminal.
Outcome run(const std::vector<std::string>& words, const TempFolder& folder) {
    const std::string errors = folder.file("errors");
    std::vector<std::string> command{"sh", "-c", "exec \"$@\" 2>" + errors, "sh", TOP};
    command.insert(command.end(), words.begin(), words.end());
    ChildProcess process(command);
    Outcome outcome;
    outcome.output = process.exchange("");
    outcome.code = process.wait();
    ChildProcess reader({"cat", errors});
    outcome.errors = reader.exchange("");
    return outcome;
}

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class TopProgram : public testing::Test {
protected:
    std::string line(const std::string& options = "") const {
        return TOP + " --every 0.2 " + options + " " + path;
    }

    TempFolder folder;
    const std::string path = folder.file("stats");
};

TEST_F(TopProgram, ShowsAProcessOn80By24) {
    Shop shop(path);
    Terminal terminal(line(), 80, 24);
    ASSERT_TRUE(terminal.shows(shop.pid()));
    ASSERT_TRUE(terminal.shows("Shop::Report "));
    ASSERT_TRUE(terminal.shows("q quit"));
    ASSERT_TRUE(terminal.ceasesToShow(
        "cpu 1s    10s    60s  calls/s 1s    10s    60s  queue   left\n   0      0/2       -"));
    const std::vector<std::string> lines = terminal.lines();
    ASSERT_EQ(24u, lines.size());
    EXPECT_EQ(0u, lines[0].find("reticor-top  " + path.substr(0, 8))) << lines[0];
    EXPECT_EQ(0u, lines[1].find("2 handlers, ")) << lines[1];
    EXPECT_EQ("pool     busy  cpu 1s    10s    60s  calls/s 1s    10s    60s  queue   left", lines[4]);
    EXPECT_EQ(0u, lines[2].find("memory: ")) << lines[2];
    EXPECT_TRUE(has(lines[2], " records of ")) << lines[2];
    EXPECT_EQ(0u, lines[5].find("   0      ")) << lines[5];
    EXPECT_TRUE(has(lines[5], "/2 ")) << lines[5];
    EXPECT_EQ("q quit  s sort: load  / filter  space hold  t times  0-5 parts  ? help", lines[23]);
    for (const std::string& one : lines) {
        EXPECT_FALSE(has(one, "!")) << "nothing is wrong: " << one;
    }
    terminal.press("q");
    EXPECT_TRUE(terminal.shows("ended with 0"));
    EXPECT_EQ(0, shop.end());
}

TEST_F(TopProgram, KeysChangeWhatIsShown) {
    Shop shop(path);
    Terminal terminal(line(), 80, 24);
    ASSERT_TRUE(terminal.shows("Shop::Report "));
    terminal.press("s");
    EXPECT_TRUE(terminal.shows("s sort: total"));
    terminal.press("r");
    EXPECT_TRUE(terminal.shows("s sort: total (r)"));
    terminal.press("2");
    EXPECT_TRUE(terminal.ceasesToShow("   0      "));
    EXPECT_TRUE(terminal.shows("Shop::Till "));
    terminal.press("Down");
    EXPECT_TRUE(terminal.ceasesToShow("Shop::Till ")) << "the one with fewer calls was first";
    terminal.press("Home");
    EXPECT_TRUE(terminal.shows("Shop::Till "));
    terminal.press("NPage");
    EXPECT_TRUE(terminal.ceasesToShow("Shop::Till "));
    terminal.press("0");
    EXPECT_TRUE(terminal.shows("queue"));
    terminal.press("?");
    EXPECT_TRUE(terminal.shows("reticor-top: keys"));
    terminal.press("x");
    EXPECT_TRUE(terminal.ceasesToShow("reticor-top: keys"));
    terminal.press("q");
    EXPECT_TRUE(terminal.shows("ended with 0"));
}

TEST_F(TopProgram, TheFilterIsTypedWithCorrections) {
    Shop shop(path);
    Terminal terminal(line(), 80, 24);
    ASSERT_TRUE(terminal.shows("Shop::Report "));
    terminal.press("/");
    EXPECT_TRUE(terminal.shows("filter: _"));
    terminal.type("tilq\xc3\xa4");
    EXPECT_TRUE(terminal.shows("filter: tilq\xc3\xa4_")) << "q is a letter here";
    EXPECT_TRUE(terminal.ceasesToShow("Shop::Till "));
    terminal.press("BSpace");
    terminal.press("BSpace");
    EXPECT_TRUE(terminal.shows("filter: til_"));
    EXPECT_TRUE(terminal.shows("Shop::Till "));
    EXPECT_TRUE(terminal.ceasesToShow("Shop::Report "));
    terminal.press("Enter");
    EXPECT_TRUE(terminal.shows("/ filter: til  space"));
    terminal.press("Escape");
    EXPECT_TRUE(terminal.shows("Shop::Report "));
    terminal.press("q");
    EXPECT_TRUE(terminal.shows("ended with 0"));
}

TEST_F(TopProgram, HoldStopsTheFiguresAndGoesOn) {
    Shop shop(path);
    Terminal terminal(line(), 80, 24);
    ASSERT_TRUE(terminal.shows("Shop::Report "));
    terminal.press("Space");
    ASSERT_TRUE(terminal.shows("HELD"));
    // Nobody asks, so nobody notices that it has gone: not while another is looked at twice.
    EXPECT_EQ(-SIGKILL, shop.kill());
    const std::string elsewhere = folder.file("elsewhere");
    Shop other(elsewhere);
    EXPECT_EQ(0, run({"--once", "--every", "0.6", elsewhere}, folder).code);
    terminal.press("s");
    ASSERT_TRUE(terminal.shows("s sort: total")) << "keys work";
    EXPECT_FALSE(has(terminal.screen(), "GONE"));
    EXPECT_TRUE(has(terminal.screen(), "HELD"));
    terminal.press("Space");
    EXPECT_TRUE(terminal.shows("GONE"));
    EXPECT_FALSE(has(terminal.screen(), "HELD"));
    terminal.press("q");
    EXPECT_TRUE(terminal.shows("ended with 0"));
}

TEST_F(TopProgram, TimesAreMeasuredWhileWanted) {
    Shop shop(path);
    const auto timing = [&] {
        return json::parse(run({"--json", "--every", "0.1", path}, folder).output)["stats"]["timing"];
    };
    Terminal terminal(line(), 80, 24);
    ASSERT_TRUE(terminal.shows("times off"));
    EXPECT_EQ(false, timing());
    terminal.press("t");
    EXPECT_TRUE(terminal.shows("times on"));
    EXPECT_EQ(true, timing());
    EXPECT_TRUE(terminal.shows(" us")) << "how long a call takes";
    terminal.press("t");
    EXPECT_TRUE(terminal.shows("times off"));
    terminal.press("t");
    EXPECT_TRUE(terminal.shows("times on"));
    terminal.press("q");
    EXPECT_TRUE(terminal.shows("ended with 0"));
    EXPECT_EQ(false, timing()) << "the process is as it was before";
}

TEST_F(TopProgram, TimesThatWereOnBeforeStayOn) {
    Shop shop(path);
    Terminal first(line("--timing"), 80, 24);
    ASSERT_TRUE(first.shows("times on"));
    Terminal second(line(), 80, 24);
    ASSERT_TRUE(second.shows("times on"));
    second.press("q");
    ASSERT_TRUE(second.shows("ended with 0"));
    EXPECT_TRUE(has(run({"--once", "--every", "0.1", path}, folder).output, "times on"));
}

TEST_F(TopProgram, FollowsTheSizeOfTheTerminal) {
    Shop shop(path);
    Terminal terminal(line(), 80, 24);
    ASSERT_TRUE(terminal.shows("Shop::Report "));
    EXPECT_FALSE(has(terminal.screen(), "messages/s"));
    terminal.resize(170, 30);
    EXPECT_TRUE(terminal.shows("messages/s"));
    EXPECT_TRUE(eventually([&] { return terminal.lines().at(29).find("q quit") == 0; })) << terminal.screen();
    terminal.resize(40, 12);
    EXPECT_TRUE(terminal.ceasesToShow("messages/s"));
    EXPECT_TRUE(eventually([&] { return terminal.lines().at(11).find("q quit") == 0; })) << terminal.screen();
    EXPECT_TRUE(terminal.shows("Shop::Report"));
    terminal.resize(12, 3);
    EXPECT_TRUE(eventually([&] { return terminal.lines().at(2).find("q quit") == 0; })) << terminal.screen();
    terminal.resize(80, 24);
    EXPECT_TRUE(terminal.shows("? help"));
    EXPECT_TRUE(terminal.shows("Shop::Report "));
    terminal.press("q");
    EXPECT_TRUE(terminal.shows("ended with 0"));
}

TEST_F(TopProgram, ShowsAProcessAllOfWhoseWorkersHang) {
    Shop shop(path);
    Terminal terminal(line(), 80, 24);
    ASSERT_TRUE(terminal.shows("Shop::Report "));
    shop.hang();
    EXPECT_TRUE(terminal.shows("! pool 0 hangs: all 2 workers busy, nothing served for"));
    EXPECT_TRUE(terminal.shows("! Shop::Report::handle_message runs for over"))
        << "by the class of its handler";
    EXPECT_TRUE(terminal.shows("! timers of pool 0 are late: 1 waits for a worker, for "))
        << "the till's, by the process's own word";
    EXPECT_TRUE(terminal.shows(" 2/2 "));
    shop.go_on();
    EXPECT_TRUE(terminal.ceasesToShow("hangs"));
    EXPECT_TRUE(terminal.ceasesToShow("runs for over"));
    EXPECT_TRUE(terminal.shows("! timers of pool 0 were late, by ")) << "for ten seconds";
    terminal.press("q");
    EXPECT_TRUE(terminal.shows("ended with 0"));
    EXPECT_EQ(0, shop.end());
}

TEST_F(TopProgram, TellsThatTheProcessHasDiedAndFindsItsSuccessor) {
    auto shop = std::make_unique<Shop>(path);
    Terminal terminal(line(), 100, 24);
    ASSERT_TRUE(terminal.shows(shop->pid()));
    ASSERT_TRUE(terminal.shows("Shop::Report "));
    EXPECT_EQ(-SIGKILL, shop->kill());
    EXPECT_TRUE(terminal.shows("GONE"));
    EXPECT_TRUE(terminal.shows("Connection refused; trying again"));
    EXPECT_TRUE(has(terminal.screen(), "Shop::Report ")) << "what was known stays to be seen";
    shop = std::make_unique<Shop>(path);
    EXPECT_TRUE(terminal.shows(shop->pid()));
    EXPECT_TRUE(terminal.shows("another process answers now"));
    EXPECT_FALSE(has(terminal.screen(), "GONE"));
    EXPECT_EQ(0, shop->end());
    EXPECT_TRUE(terminal.shows("GONE"));
    EXPECT_TRUE(terminal.shows("No such file or directory; trying again"));
    terminal.press("q");
    EXPECT_TRUE(terminal.shows("ended with 0"));
}

TEST_F(TopProgram, WaitsForAProcessThatIsNotThereYet) {
    Terminal terminal(line(), 80, 24);
    ASSERT_TRUE(terminal.shows("NO ANSWER"));
    ASSERT_TRUE(terminal.shows("No such file or directory; trying again"));
    Shop shop(path);
    EXPECT_TRUE(terminal.shows(shop.pid()));
    EXPECT_FALSE(has(terminal.screen(), "NO ANSWER"));
    terminal.press("q");
    EXPECT_TRUE(terminal.shows("ended with 0"));
}

TEST_F(TopProgram, KeysWorkWhileTheProcessSaysNothing) {
    Shop shop(path);
    Terminal terminal(line(), 80, 24);
    ASSERT_TRUE(terminal.shows("Shop::Report "));
    shop.signal(SIGSTOP);
    EXPECT_TRUE(terminal.shows("no answer yet; trying again"));
    terminal.press("?");
    EXPECT_TRUE(terminal.shows("reticor-top: keys"));
    terminal.press("x");
    EXPECT_TRUE(terminal.ceasesToShow("reticor-top: keys"));
    terminal.resize(60, 20);
    EXPECT_TRUE(eventually([&] { return terminal.lines().at(19).find("q quit") == 0; })) << terminal.screen();
    shop.signal(SIGCONT);
    EXPECT_TRUE(terminal.ceasesToShow("trying again"));
    shop.signal(SIGSTOP);
    EXPECT_TRUE(terminal.shows("trying again"));
    terminal.press("q");
    EXPECT_TRUE(terminal.shows("ended with 0")) << "it ends without an answer too";
    shop.signal(SIGCONT);
}

/// The terminal as it was before, by what stty says of it.
TEST_F(TopProgram, TheTerminalIsAsItWasWhateverEndsTheProgram) {
    Shop shop(path);
    for (const std::string way : {"q", "C-c", "TERM", "HUP", "INT"}) {
        const std::string settings = folder.file("settings-" + way);
        Terminal terminal("echo before; stty -a >" + settings + ".1; " + line("--timing") +
                              "; code=$?; stty -a >" + settings + ".2; cmp " + settings + ".1 " + settings +
                              ".2 && echo restored; (exit $code)",
                          80, 24);
        ASSERT_TRUE(terminal.shows("times on")) << way;
        EXPECT_FALSE(has(terminal.screen(), "before")) << "it has a screen of its own";
        if (way.size() == 1 || way == "C-c") {
            terminal.press(way);
        } else {
            const int number = way == "TERM" ? SIGTERM : way == "HUP" ? SIGHUP : SIGINT;
            ASSERT_EQ(0, ::kill(terminal.program(), number));
        }
        EXPECT_TRUE(terminal.shows("ended with 0")) << way;
        EXPECT_TRUE(terminal.shows("before")) << way;
        EXPECT_TRUE(terminal.shows("restored")) << way;
        EXPECT_FALSE(has(terminal.screen(), "q quit")) << way;
        EXPECT_TRUE(has(run({"--once", "--every", "0.1", path}, folder).output, "times off")) << way;
    }
}

TEST_F(TopProgram, WithoutUtf8ItKeepsToAscii) {
    Shop shop(path);
    Terminal terminal("LC_ALL=C " + line("--filter Sh\xc3\xb6p"), 24, 10);
    ASSERT_TRUE(terminal.shows("~"));
    for (const char letter : terminal.screen()) {
        EXPECT_LT(0, letter);
    }
    terminal.press("q");
    EXPECT_TRUE(terminal.shows("ended with 0"));
}

TEST_F(TopProgram, ShowsARelayAndItsClientThatTakesNothing) {
    RelayProgram relay({"--stall-timeout", "60", "--sndbuf", "16384"});
    Viewer stalled(relay, "/live.mjpg", 4096);
    Terminal terminal(TOP + " --every 0.2 " + relay.url(""), 100, 24);
    EXPECT_TRUE(terminal.shows("relay of /live.mjpg"));
    EXPECT_TRUE(terminal.shows("1 client of 100"));
    EXPECT_TRUE(terminal.shows("stalled for "));
    EXPECT_FALSE(has(terminal.screen(), "pool")) << "its page does not tell of pools";
    terminal.press("t");
    EXPECT_TRUE(terminal.shows("a relay's page has no switch for times"));
    EXPECT_EQ(0, relay.end());
    EXPECT_TRUE(terminal.shows("Connection refused; trying again"));
    terminal.press("q");
    EXPECT_TRUE(terminal.shows("ended with 0"));
}

TEST_F(TopProgram, OnceNeedsNoTerminal) {
    Shop shop(path);
    const Outcome outcome = run({"--once", "--every", "0.3", path}, folder);
    EXPECT_EQ(0, outcome.code);
    EXPECT_EQ("", outcome.errors);
    EXPECT_EQ(0u, outcome.output.find("reticor-top  " + path + "  " + shop.pid() + "\n2 handlers, "))
        << outcome.output;
    EXPECT_TRUE(has(outcome.output, "\nShop::Report"));
    EXPECT_TRUE(has(outcome.output, "messages/s")) << "nothing is left out for want of columns";
    EXPECT_FALSE(has(outcome.output, "\x1b")) << "no letters that drive a terminal";
    EXPECT_FALSE(has(outcome.output, "q quit"));
    ChildProcess piped({"sh", "-c", TOP + " --once --every 0.1 " + path + " | cat"});
    EXPECT_EQ(0u, piped.exchange("").find("reticor-top  "));
    EXPECT_EQ(0, piped.wait());
}

TEST_F(TopProgram, OnceTellsWhatHangsByItsClass) {
    Shop shop(path);
    shop.hang();
    std::string output;
    EXPECT_TRUE(eventually([&] {
        output = run({"--once", "--every", "1", path}, folder).output;
        return has(output, "! pool 0 hangs: all 2 workers busy");
    })) << output;
    EXPECT_TRUE(has(output, "! Shop::Report::handle_message runs for over 1.")) << output;
    shop.go_on();
}

TEST_F(TopProgram, JsonIsOneLineForPrograms) {
    Shop shop(path);
    const Outcome outcome = run({"--json", "--every", "0.3", path}, folder);
    EXPECT_EQ(0, outcome.code);
    const json all = json::parse(outcome.output, nullptr, false);
    ASSERT_TRUE(all.is_object()) << outcome.output;
    EXPECT_EQ(path, all["target"]);
    EXPECT_EQ(1, all["stats"]["version"]);
    ASSERT_EQ(1u, all["pool_rates"].size());
    EXPECT_LT(0, all["pool_rates"][0]["messages"].get<double>());
    EXPECT_LE(0.3, all["pool_rates"][0]["seconds"].get<double>());
    EXPECT_LE(2u, all["class_rates"].size());
    EXPECT_TRUE(all["alarms"].is_array());
    EXPECT_TRUE(all["stats"]["alarms"].is_array());
    EXPECT_LE(3u, all["stats"]["memory"].size());
}

TEST_F(TopProgram, ScriptsAreToldWhatIsWrong) {
    Outcome outcome = run({"--once", path}, folder);
    EXPECT_EQ(1, outcome.code);
    EXPECT_EQ("", outcome.output);
    EXPECT_EQ("reticor-top: " + path + ": No such file or directory\n", outcome.errors);
    outcome = run({"--json", "http://127.0.0.1:1"}, folder);
    EXPECT_EQ(1, outcome.code);
    EXPECT_EQ("reticor-top: http://127.0.0.1:1: Connection refused\n", outcome.errors);
    outcome = run({"--once", "https://host"}, folder);
    EXPECT_EQ(1, outcome.code);
    EXPECT_EQ("reticor-top: https://host: only http:// is understood\n", outcome.errors);
    outcome = run({}, folder);
    EXPECT_LT(1, outcome.code);
    EXPECT_TRUE(has(outcome.errors, "TARGET"));
}

TEST_F(TopProgram, AProcessThatSaysNonsenseIsToldOf) {
    RelayProgram relay({});
    const Outcome page = run({"--once", relay.url("/live-page-that-is-not-there")}, folder);
    EXPECT_EQ(1, page.code);
    EXPECT_TRUE(has(page.errors, ": it answered: HTTP/1.1 404")) << page.errors;
    Terminal terminal(TOP + " " + relay.url("/nothing"), 80, 24);
    EXPECT_TRUE(terminal.shows("NO ANSWER"));
    EXPECT_TRUE(terminal.shows("it answered: HTTP/1.1 404"));
    terminal.press("q");
    EXPECT_TRUE(terminal.shows("ended with 0"));
}

TEST_F(TopProgram, WithoutATerminalItSaysWhatNeedsNone) {
    const Outcome outcome = run({path}, folder);
    EXPECT_EQ(1, outcome.code);
    EXPECT_EQ("", outcome.output) << "ncurses was not started";
    EXPECT_EQ("reticor-top: this is not a terminal; --once and --json need none\n", outcome.errors);
}

TEST_F(TopProgram, ATerminalThatNobodyKnowsIsNamed) {
    Terminal terminal("TERM=no-such-terminal " + line(), 120, 24);
    EXPECT_TRUE(terminal.shows(
        "reticor-top: the terminal no-such-terminal is not known; --once and --json need none"));
    EXPECT_TRUE(terminal.shows("ended with 1"));
}

/// The program in a terminal of ours, whose every byte is counted.
class CountedTerminal {
public:
    explicit CountedTerminal(const std::vector<std::string>& command) {
        winsize size{24, 80, 0, 0};
        m_pid = ::forkpty(&m_fd, nullptr, nullptr, &size);
        if (m_pid == 0) {
            ::setenv("TERM", "xterm-256color", 1);
            ::setenv("LC_ALL", "C.UTF-8", 1);
            std::vector<char*> words;
            for (const std::string& word : command) {
                words.push_back(const_cast<char*>(word.c_str()));
            }
            words.push_back(nullptr);
            ::execv(words[0], words.data());
            ::_exit(127);
        }
        ::fcntl(m_fd, F_SETFL, O_NONBLOCK);
    }
    ~CountedTerminal() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
        hang_up();
    }
    CountedTerminal(const CountedTerminal&) = delete;
    CountedTerminal& operator=(const CountedTerminal&) = delete;

    /// All that has come since the last call.
    std::string take() {
        std::string bytes;
        char room[4096];
        for (ssize_t got = 0; (got = ::read(m_fd, room, sizeof room)) > 0;) {
            bytes.append(room, static_cast<size_t>(got));
        }
        return bytes;
    }
    void hang_up() {
        if (m_fd >= 0) {
            ::close(m_fd);
            m_fd = -1;
        }
    }
    /// Its exit code, or minus the signal that ended it.
    int wait() {
        int status = 0;
        EXPECT_TRUE(eventually([&] { return ::waitpid(m_pid, &status, WNOHANG) == m_pid; }));
        m_pid = -1;
        return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
    }

private:
    pid_t m_pid = -1;
    int m_fd = -1;
};

TEST_F(TopProgram, SendsOnlyWhatHasChanged) {
    Shop shop(path);
    shop.hang();  // nothing but the times of the calls changes from look to look
    CountedTerminal terminal({TOP, "--every", "0.1", path});
    std::string all;
    ASSERT_TRUE(eventually([&] { return has(all += terminal.take(), "Shop::Report::handle_message"); }));
    // Some changes of figures, each of which is a look.
    all.clear();
    size_t looks = 0;
    size_t most = 0;
    ASSERT_TRUE(eventually([&] {
        const std::string bytes = terminal.take();
        looks += bytes.empty() ? 0 : 1;
        most = std::max(most, bytes.size());
        all += bytes;
        return looks >= 10;
    }));
    EXPECT_GT(600u, all.size() / looks) << "a whole screen has 1920 letters";
    EXPECT_FALSE(has(all, "reticor-top")) << "the head stays";
    EXPECT_FALSE(has(all, "q quit")) << "the keys stay";
    shop.go_on();
}

TEST_F(TopProgram, EndsWhenItsTerminalGoesAway) {
    Shop shop(path);
    CountedTerminal terminal({TOP, "--every", "0.1", "--timing", path});
    std::string all;
    ASSERT_TRUE(eventually([&] { return has(all += terminal.take(), "Shop::Report"); }));
    terminal.hang_up();
    EXPECT_EQ(0, terminal.wait());
    EXPECT_TRUE(has(run({"--once", "--every", "0.1", path}, folder).output, "times off"));
}

}  // namespace
