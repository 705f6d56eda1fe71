// The first program of README.md: it is built as it is printed (see Samples.cmake), and does what the page
// says.
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "support/program/ChildProcess.h"

using Orvex::Testing::ChildProcess;

namespace {

std::string contents(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    EXPECT_FALSE(text.str().empty()) << path;
    return text.str();
}

}  // namespace

TEST(Readme, FirstProgramRuns) {
    ChildProcess program({RETICOR_BUILD_DIR "/samples/readme_program"});
    EXPECT_EQ("tick 1\ntick 2\ntick 3\n", program.exchange(""));
    EXPECT_EQ(0, program.wait());
}

TEST(Readme, FirstProgramIsTheExampleOfThatName) {
    const std::string readme = contents(RETICOR_SOURCE_DIR "/README.md");
    const size_t begin = readme.find("```cpp\n") + 7;
    const std::string printed = readme.substr(begin, readme.find("```\n", begin) - begin);
    const std::string example = contents(RETICOR_SOURCE_DIR "/examples/first_program.cpp");
    ASSERT_GE(example.size(), printed.size());
    EXPECT_EQ(example.substr(example.size() - printed.size()), printed);
    EXPECT_EQ(readme.find("```cpp\n", begin), std::string::npos) << "only the first program is extracted";
}
