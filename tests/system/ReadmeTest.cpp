// The first program of README.md: it is built as it is printed (see Samples.cmake), and does what the page
// says.
#include <csignal>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "support/program/ChildProcess.h"
#include "support/program/TcpClient.h"

using Orvex::Testing::ChildProcess;
using Orvex::Testing::TcpClient;

namespace {

std::string text_of_file(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    EXPECT_FALSE(text.str().empty()) << path;
    return text.str();
}

}  // namespace

TEST(Readme, FirstProgramRuns) {
    ChildProcess program({RETICOR_BUILD_DIR "/samples/readme_program"});
    const std::string line = program.readLine();
    ASSERT_EQ(0U, line.rfind("listening on 127.0.0.1:", 0)) << line;
    TcpClient client(std::stoi(line.substr(line.rfind(':') + 1)));
    EXPECT_TRUE(client.echoes("hello"));
    program.signal(SIGINT);
    EXPECT_EQ(0, program.wait());
}

TEST(Readme, FirstProgramIsTheExampleOfThatName) {
    const std::string readme = text_of_file(RETICOR_SOURCE_DIR "/README.md");
    const size_t begin = readme.find("```cpp\n") + 7;
    const std::string printed = readme.substr(begin, readme.find("```\n", begin) - begin);
    const std::string example = text_of_file(RETICOR_SOURCE_DIR "/examples/first_program.cpp");
    ASSERT_GE(example.size(), printed.size());
    EXPECT_EQ(example.substr(example.size() - printed.size()), printed);
    EXPECT_EQ(readme.find("```cpp\n", begin), std::string::npos) << "only the first program is extracted";
}
