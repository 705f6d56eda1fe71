// The programs that come along, as the compiler and the linker have made them: mistakes of memory are harder
// to misuse in them.
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/program/ChildProcess.h"

using Orvex::Testing::ChildProcess;

namespace {

// Every example and every tool.
std::vector<std::string> programs() {
    std::vector<std::string> found;
    for (const char* folder : {RETICOR_EXAMPLES_DIR, RETICOR_BUILD_DIR "/tools"}) {
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            const auto mode = entry.status().permissions();
            if (entry.is_regular_file() &&
                (mode & std::filesystem::perms::owner_exec) != std::filesystem::perms::none) {
                found.push_back(entry.path());
            }
        }
    }
    EXPECT_GE(found.size(), 9u);
    return found;
}

std::string readelf(const std::string& what, const std::string& path) {
    ChildProcess program({"readelf", "--wide", what, path});
    const std::string text = program.exchange("");
    EXPECT_EQ(0, program.wait());
    return text;
}

bool has(const std::string& text, const std::string& word) {
    return text.find(word) != std::string::npos;
}

TEST(Hardening, ProgramsLieWhereTheSystemLikesAndNothingTheLinkerFillsInStaysWritable) {
    for (const std::string& path : programs()) {
        const std::string dynamic = readelf("--dynamic", path);
        const size_t flags = dynamic.find("(FLAGS_1)");
        ASSERT_NE(std::string::npos, flags) << path;
        const std::string words = dynamic.substr(flags, dynamic.find('\n', flags) - flags);
        EXPECT_TRUE(has(words, " NOW")) << path << words;
        EXPECT_TRUE(has(words, " PIE")) << path << words;
        EXPECT_TRUE(has(readelf("--segments", path), "GNU_RELRO")) << path;
    }
}

// Neither in builds with sanitizers, which have checks of their own, nor in those that are not optimised.
#if RETICOR_CHECKED_CALLS
TEST(Hardening, ProgramsHaveCanariesAndCallTheCheckedFunctions) {
    for (const std::string& path : programs()) {
        const std::string symbols = readelf("--dyn-syms", path);
        EXPECT_TRUE(has(symbols, " __stack_chk_fail@")) << path;
        // What some programs call, all would.
        EXPECT_FALSE(has(symbols, " printf@")) << path;
        EXPECT_FALSE(has(symbols, " fprintf@")) << path;
    }
    EXPECT_TRUE(has(readelf("--dyn-syms", RETICOR_EXAMPLES_DIR "/file_copy"), " __printf_chk@"));
}
#endif

}  // namespace
