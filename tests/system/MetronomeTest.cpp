// The example metronome as a whole program.
#include <csignal>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/program/ChildProcess.h"

using Orvex::Testing::ChildProcess;

namespace {

std::vector<std::string> command(const std::vector<std::string>& options) {
    std::vector<std::string> words{RETICOR_EXAMPLES_DIR "/metronome"};
    words.insert(words.end(), options.begin(), options.end());
    return words;
}

// The lines up to the end of the program, those of one rate apart from those of the other.
struct Output {
    explicit Output(ChildProcess& program) {
        for (std::string line = program.readLine(); !program.hasEnded(); line = program.readLine()) {
            if (line.find(" off") == std::string::npos) {
                beats += line + "\n";
            } else {
                reports.push_back(line);
            }
        }
    }
    std::string beats;
    std::vector<std::string> reports;
};

}  // namespace

TEST(Metronome, CountsItsBeatsWithASecondVoiceFromTheSecondBarOn) {
    ChildProcess program(command({"--bpm", "3000", "--beats", "9", "--report", "0.05"}));
    const Output output(program);
    EXPECT_EQ(
        "   1  TOCK\n   2\n   3\n   4\n"
        "   5  TOCK\n      tick\n   6\n      tick\n   7\n      tick\n   8\n      tick\n"
        "   9  TOCK\n",
        output.beats);
    ASSERT_GE(output.reports.size(), 2U);
    EXPECT_EQ(0U, output.reports.front().rfind("      after ", 0)) << output.reports.front();
    EXPECT_EQ(0U, output.reports.back().rfind("9 beats, the worst ", 0)) << output.reports.back();
    EXPECT_EQ(0, program.wait());
}

TEST(Metronome, EndsInOrderWhenItIsToldTo) {
    for (const int signal : {SIGINT, SIGTERM}) {
        ChildProcess program(command({"--bpm", "6000", "--report", "0.05"}));
        while (program.readLine().find("      after ") != 0) {
            ASSERT_FALSE(program.hasEnded());
        }
        program.signal(signal);
        const Output output(program);
        EXPECT_EQ(0, program.wait());
        ASSERT_FALSE(output.reports.empty());
        EXPECT_NE(output.reports.back().find(" beats, the worst "), std::string::npos);
    }
}

TEST(Metronome, RefusesWhatItCannotPlay) {
    ChildProcess program(command({"--bpm", "0"}));
    program.exchange("");
    EXPECT_NE(0, program.wait());
}
