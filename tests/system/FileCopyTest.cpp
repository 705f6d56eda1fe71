// The example file_copy as a whole program.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "support/program/ChildProcess.h"

using Orvex::Testing::ChildProcess;

namespace {

class FileCopy : public testing::Test {
protected:
    FileCopy() {
        m_folder = "/tmp/reticor-copy-" + std::string(6, 'X');  // which mkdtemp replaces
        EXPECT_NE(nullptr, mkdtemp(m_folder.data()));
    }
    ~FileCopy() override { std::filesystem::remove_all(m_folder); }

    std::string path(const char* name) const { return m_folder + "/" + name; }

    static std::string content(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    void expectCopied(const std::string& bytes) {
        std::ofstream(path("source"), std::ios::binary) << bytes;
        ChildProcess program({RETICOR_EXAMPLES_DIR "/file_copy", path("source"), path("target")});
        const std::string line = program.readLine();
        EXPECT_EQ(0u, line.find("copied " + std::to_string(bytes.size()) + " bytes, checksum ")) << line;
        EXPECT_NE(std::string::npos, line.find(", verified")) << line;
        EXPECT_NE(std::string::npos, program.readLine().find("the longest call held its caller for "));
        EXPECT_EQ(0, program.wait());
        EXPECT_TRUE(bytes == content(path("target")));
    }

private:
    std::string m_folder;
};

TEST_F(FileCopy, CopiesAndVerifies) {
    std::string bytes;
    for (unsigned i = 0; bytes.size() < 3000000; ++i) {
        bytes += std::to_string(i);
    }
    expectCopied(bytes);
}

TEST_F(FileCopy, CopiesAnEmptyFile) {
    expectCopied("");
}

TEST_F(FileCopy, ATargetThatCannotBeMadeIsAnError) {
    std::ofstream(path("source")) << "some";
    ChildProcess program({RETICOR_EXAMPLES_DIR "/file_copy", path("source"), path("no/such/folder")});
    EXPECT_EQ("", program.exchange(""));
    EXPECT_EQ(1, program.wait());
}

// Nobody makes room while the program runs, so it gives up.
TEST_F(FileCopy, AFullDiskIsAnError) {
    std::ofstream(path("source")) << "some";
    ChildProcess program({RETICOR_EXAMPLES_DIR "/file_copy", path("source"), "/dev/full"});
    program.exchange("");
    EXPECT_EQ(1, program.wait());
}

TEST_F(FileCopy, ATargetWhoseCloseFailsIsAnError) {
    std::ofstream(path("source")) << "some";
    ChildProcess program({"/usr/bin/env", "LD_PRELOAD=" RETICOR_FILE_FAULT, "FILE_FAULT_CLOSE=1",
                          "FILE_FAULT_PATH=" + path("target"), RETICOR_EXAMPLES_DIR "/file_copy",
                          path("source"), path("target")});
    EXPECT_EQ("", program.exchange(""));
    EXPECT_EQ(1, program.wait());
}

TEST_F(FileCopy, ASourceThatEndsEarlyIsAnError) {
    std::ofstream(path("source")) << std::string(300000, 'x');
    ChildProcess program({"/usr/bin/env", "LD_PRELOAD=" RETICOR_FILE_FAULT, "FILE_FAULT_END=200001",
                          "FILE_FAULT_PATH=" + path("source"), RETICOR_EXAMPLES_DIR "/file_copy",
                          path("source"), path("target")});
    EXPECT_EQ("", program.exchange(""));
    EXPECT_EQ(1, program.wait());
}

}  // namespace
