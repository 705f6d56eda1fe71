// The probes of the shared library, and the bpftrace scripts that look at them. Where the machine does not
// let bpftrace work (it needs root), the cases that need it say so and end.
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "Core/count/Points.h"
#include "support/Eventually.h"
#include "support/program/ChildProcess.h"

namespace Orvex::Testing {
namespace {

const std::string SCRIPTS = RETICOR_SOURCE_DIR "/tools/bpftrace/";

std::string outputOf(const std::string& command) {
    ChildProcess shell({"/bin/sh", "-c", command + " 2>&1"});
    return shell.exchange("");
}

#if defined(__has_include)
#if __has_include(<sys/sdt.h>)
constexpr bool HAS_PROBES = true;
#else
constexpr bool HAS_PROBES = false;
#endif
#endif

// Every point has its probe, once, with a semaphore that is 0 in the file.
TEST(Probes, StandInTheLibraryWithTheirSemaphores) {
    const std::string notes = outputOf("readelf --notes " RETICOR_BUILD_DIR "/libReticor.so");
    std::set<std::string> names = {
#define RETICOR_POINT_NAME(name) #name,
        RETICOR_POINTS(RETICOR_POINT_NAME)
#undef RETICOR_POINT_NAME
    };
    for (const std::string& name : names) {
        const size_t at = notes.find("Name: " + name + "\n");
        EXPECT_EQ(HAS_PROBES, at != std::string::npos) << name;
        if (at != std::string::npos) {
            EXPECT_EQ(std::string::npos, notes.find("Name: " + name + "\n", at + 1)) << name << " twice";
            const std::string rest = notes.substr(at, 200);
            EXPECT_NE(std::string::npos, rest.find("Semaphore: 0x")) << rest;
            EXPECT_EQ(std::string::npos, rest.find("Semaphore: 0x0000000000000000")) << rest;
        }
    }
    const std::string section = outputOf("readelf --hex-dump=.probes " RETICOR_BUILD_DIR "/libReticor.so");
    for (size_t line = section.find("  0x"); line != std::string::npos;
         line = section.find("  0x", line + 1)) {
        const std::string words = section.substr(line + 2, 46);
        EXPECT_EQ(std::string::npos, words.find_first_of("123456789abcdef", words.find(' '))) << words;
    }
}

struct ScriptCase {
    const char* name;  // and arguments
    std::vector<const char*> wanted;
};

// In the name of the case.
void PrintTo(const ScriptCase& one, std::ostream* out) {
    *out << one.name;
}

class BpftraceScript : public ::testing::TestWithParam<ScriptCase> {
protected:
    // Why it does not work here; empty if it does.
    static std::string missing() {
        if (!HAS_PROBES) {
            return "the library was built without probes";
        }
        if (::geteuid() != 0) {
            return "bpftrace needs root";
        }
        const std::string said = outputOf("bpftrace -e 'BEGIN { printf(\"it works\\n\"); exit(); }'");
        return said.find("\nit works\n") != std::string::npos ? "" : "bpftrace does not work here: " + said;
    }
};

// The script ends itself, so many seconds after it has attached: a signal that comes earlier can be lost.
std::string scriptOutput(const std::string& script, pid_t pid, int seconds) {
    const size_t end = script.find(' ');
    const std::string timed = ::testing::TempDir() + "script-" + std::to_string(::getpid()) + ".bt";
    const std::string arguments = end != std::string::npos ? script.substr(end) : "";
    const std::string said = outputOf(
        "{ cat " + script.substr(0, end) + "; echo 'interval:s:" + std::to_string(seconds) +
        " { exit(); }'; } > " + timed + " && bpftrace -p " + std::to_string(pid) + " " + timed + arguments);
    std::remove(timed.c_str());
    return said;
}

TEST_P(BpftraceScript, ShowsWhatItIsFor) {
    const auto& [name, wanted] = GetParam();
    const std::string why_not = missing();
    if (!why_not.empty()) {
        std::printf("left out: %s\n", why_not.c_str());
        return;
    }
    ChildProcess traced({RETICOR_BUILD_DIR "/tests/traced_program"});
    ASSERT_EQ("ready", traced.readLine());
    std::string said;
    bool complete = false;
    for (int seconds = 2; seconds <= 16 && !complete; seconds *= 2) {
        said = scriptOutput(SCRIPTS + name, traced.pid(), seconds);
        complete = true;
        for (const char* part : wanted) {
            complete = complete && said.find(part) != std::string::npos;
        }
    }
    EXPECT_TRUE(complete) << said;
    EXPECT_EQ(std::string::npos, said.find("Error")) << said;
    traced.exchange("");
    EXPECT_EQ(0, traced.wait()) << "it goes on when nobody looks any more";
}

INSTANTIATE_TEST_SUITE_P(
    All, BpftraceScript,
    ::testing::Values(
        ScriptCase{"queue-wait.bt", std::vector<const char*>{"@wait_us[message]", "@wait_us[timer]"}},
        ScriptCase{"slow-handlers.bt 1000", std::vector<const char*>{"Shop::Till handle_timeout of handler -",
                                                                     "@call_us[Shop::Till, handle_message]"}},
        ScriptCase{"blocked-senders.bt", std::vector<const char*>{"@times[-", "@blocked_ms[-"}},
        ScriptCase{"drops-by-cause.bt",
                   std::vector<const char*>{"@drops[channel not chosen, 1]", "@drops_of_sender[-"}},
        ScriptCase{"timer-lateness.bt", std::vector<const char*>{"@late_us:", "@latest_us: "}},
        ScriptCase{"message-roads.bt",
                   std::vector<const char*>{"@roads[outside, Shop::Till, handle_timeout]",
                                            "@roads[Shop::Till, Shop::Till, handle_message]"}}),
    [](const auto& test) {
        std::string name;
        for (const char* letter = test.param.name; *letter != '.'; ++letter) {
            name += *letter == '-' ? '_' : *letter;
        }
        return name;
    });

}  // namespace
}  // namespace Orvex::Testing
