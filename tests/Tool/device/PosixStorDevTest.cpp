// CPosixStorDev: the device over pread and pwrite.
#include <Reticor/PosixStorDev.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "support/LogCapture.h"
#include "support/file/FileWorld.h"
#include "support/file/SyncFault.h"

namespace Orvex::Reticor {
namespace {

using Testing::contentOf;
using Testing::LogCapture;
using Testing::putContent;
using Testing::TempFolder;

class PosixStorDev : public ::testing::Test {
protected:
    ~PosixStorDev() override {
        if (device != nullptr) {
            device->Close();
        }
    }
    void close() {
        device->Close();
        device = nullptr;
    }
    std::string read(unsigned len) {
        std::string bytes(len, '\0');
        const int n = device->Read(bytes.data(), len);
        bytes.resize(static_cast<std::size_t>(std::max(n, 0)));
        return bytes;
    }

    TempFolder folder;
    const std::string path = folder.file("file");
    CPosixStorDev* device = new CPosixStorDev;
};

TEST_F(PosixStorDev, WritesReadsAndSeeks) {
    ASSERT_EQ(0, device->Open(path.c_str(), "w+"));
    EXPECT_TRUE(device->NeedAIO());
    EXPECT_EQ(10, device->Write("0123456789", 10));
    EXPECT_EQ("0123456789", contentOf(path)) << "nothing waits in the process";
    EXPECT_EQ(0, device->Seek(2, 0));
    EXPECT_EQ("234", read(3));
    EXPECT_EQ(0, device->Seek(-3, 1));
    EXPECT_EQ("23", read(2));
    EXPECT_EQ(1, device->Write("A", 1));
    EXPECT_EQ("56789", read(100));
    EXPECT_EQ("", read(100));
    EXPECT_EQ(-1, device->Seek(0, 2));
    EXPECT_EQ(-1, device->Seek(-1, 0));
    EXPECT_EQ(-1, device->Seek(-11, 1));
    EXPECT_EQ(-1, device->Seek(LLONG_MAX, 1)) << "no overflow";
}

TEST_F(PosixStorDev, TheModesAreThoseOfFopen) {
    LogCapture log;
    EXPECT_EQ(-1, device->Open(path.c_str(), "r"));
    EXPECT_TRUE(log.contains(2, "open file failed! No such file or directory\n")) << log.dump();
    putContent(path, "old");
    ASSERT_EQ(0, device->Open(path.c_str(), "rb"));
    EXPECT_EQ(-1, device->Write("x", 1));
    EXPECT_EQ("old", read(10));
    ASSERT_EQ(0, device->Open(path.c_str(), "a+"));
    EXPECT_EQ(3, device->Write("new", 3)) << "at the end, wherever the position is";
    EXPECT_EQ("oldnew", contentOf(path));
    ASSERT_EQ(0, device->Open(path.c_str(), "w"));
    EXPECT_EQ("", contentOf(path));
    char byte = 0;
    EXPECT_EQ(-1, device->Read(&byte, 1));
    EXPECT_EQ(-1, device->Open(path.c_str(), "wx"));
    EXPECT_TRUE(log.contains(2, "open file failed! File exists\n")) << log.dump();
    for (const char* bad : {"", "q", "+"}) {
        EXPECT_EQ(-1, device->Open(path.c_str(), bad));
    }
    EXPECT_EQ(-1, device->Open(nullptr, "r"));
    EXPECT_EQ(-1, device->Open(path.c_str(), nullptr));
}

TEST_F(PosixStorDev, ADirectoryIsRefused) {
    LogCapture log;
    EXPECT_EQ(-1, device->Open(folder.file("").c_str(), "r"));
    EXPECT_TRUE(log.contains(2, "open file failed! Is a directory\n")) << log.dump();
}

TEST_F(PosixStorDev, WithoutAFileEverythingFails) {
    LogCapture log;
    char byte = 0;
    NFile_Info info;
    EXPECT_EQ(-1, device->Write("x", 1));
    EXPECT_EQ(-1, device->Read(&byte, 1));
    EXPECT_EQ(-1, device->Seek(0, 0));
    EXPECT_EQ(-1, device->Stat(&info));
    EXPECT_TRUE(log.contains(2, "get fstat failed! Bad file descriptor\n")) << log.dump();
}

TEST_F(PosixStorDev, AFullDiskIsMinus1) {
    ASSERT_EQ(0, device->Open("/dev/full", "w"));
    EXPECT_EQ(-1, device->Write("x", 1));
    EXPECT_EQ(ENOSPC, errno);
}

TEST_F(PosixStorDev, AFileThatIsTooLargeIsMinus1) {
    ASSERT_EQ(0, device->Open(path.c_str(), "w"));
    ASSERT_EQ(0, device->Seek(LLONG_MAX, 0));
    EXPECT_EQ(-1, device->Write("x", 1));
}

TEST_F(PosixStorDev, OffsetsAbove2GiBAreKept) {
    constexpr long long FAR = 5LL << 30;
    ASSERT_EQ(0, device->Open(path.c_str(), "w+"));
    ASSERT_EQ(0, device->Seek(FAR, 0));
    EXPECT_EQ(3, device->Write("far", 3));
    ASSERT_EQ(0, device->Seek(FAR + 1, 0));
    EXPECT_EQ("ar", read(10));
    struct stat truth;
    ASSERT_EQ(0, ::stat(path.c_str(), &truth));
    NFile_Info info;
    EXPECT_EQ(0, device->Stat(&info));
    EXPECT_EQ(FAR + 3, info.size);
    EXPECT_EQ(truth.st_ctime, info.time_create);
    EXPECT_EQ(truth.st_mtime, info.time_write);
    EXPECT_EQ(path, info.name);
}

TEST_F(PosixStorDev, APipeIsServedInOrder) {
    ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
    const int reader = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_EQ(0, device->Open(path.c_str(), "w"));
    EXPECT_EQ(-1, device->Seek(0, 0));
    EXPECT_EQ(3, device->Write("abc", 3));
    char got[8] = {};
    EXPECT_EQ(3, ::read(reader, got, sizeof(got)));
    EXPECT_STREQ("abc", got);
    ::close(reader);
}

// ---- the end -------------------------------------------------------------------------------------------

TEST_F(PosixStorDev, FinishClosesAndSaysWhetherThatFailed) {
    ASSERT_EQ(0, device->Open(path.c_str(), "w"));
    EXPECT_EQ(0, device->Finish(false));
    EXPECT_EQ(-1, device->Write("x", 1));
    EXPECT_EQ(0, device->Finish(false)) << "there is nothing more to close";

    const int next = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::close(next);
    ASSERT_EQ(0, device->Open(path.c_str(), "w"));
    ::close(next);
    LogCapture log;
    EXPECT_EQ(-1, device->Finish(false));
    EXPECT_TRUE(log.contains(2, "close file failed! Bad file descriptor\n")) << log.dump();
    close();
    EXPECT_EQ(1u, log.lines().size()) << "and nothing is closed twice";
}

TEST_F(PosixStorDev, FinishSyncsOnDemandAndSaysWhetherThatFailed) {
    {
        Testing::SyncFault none;
        ASSERT_EQ(0, device->Open(path.c_str(), "w"));
        EXPECT_EQ(0, device->Finish(false));
        EXPECT_EQ(0, none.calls());
        ASSERT_EQ(0, device->Open(path.c_str(), "w"));
        EXPECT_EQ(0, device->Finish(true));
        EXPECT_EQ(1, none.calls());
    }
    LogCapture log;
    Testing::SyncFault fault(EIO);
    ASSERT_EQ(0, device->Open(path.c_str(), "w"));
    EXPECT_EQ(-1, device->Finish(true));
    EXPECT_TRUE(log.contains(2, "sync file failed! Input/output error\n")) << log.dump();
}

TEST_F(PosixStorDev, WhatHasNoMediumNeedsNoSync) {
    ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
    const int reader = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_EQ(0, device->Open(path.c_str(), "w"));
    EXPECT_EQ(0, device->Finish(true));
    ::close(reader);
}

// As a handler's calls come: on any worker of its pool, one after another.
TEST_F(PosixStorDev, OrdinaryThreadsShareOnePosition) {
    ASSERT_EQ(0, device->Open(path.c_str(), "w+"));
    EXPECT_EQ(1, device->Write("a", 1));
    std::thread([this] {
        EXPECT_EQ(1, device->Write("b", 1));
        EXPECT_EQ(0, device->Seek(0, 0));
    }).join();
    EXPECT_EQ("ab", read(10));
}

// Each thread makes sure that the other one has moved "the" position between its Seek and its transfer.
TEST_F(PosixStorDev, ALoadAndAWritePassAtOnceDoNotDisturbEachOther) {
    constexpr int ROUNDS = 2000;
    const std::string old(Testing::BLOCK, 'o');
    putContent(path, old);
    ASSERT_EQ(0, device->Open(path.c_str(), "r+"));
    std::thread loads([&] {
        EnterFileWorker();
        for (int i = 0; i < ROUNDS; ++i) {
            char byte = 0;
            EXPECT_EQ(0, device->Seek(i, 0));
            EXPECT_EQ(1, device->Read(&byte, 1));
            EXPECT_EQ('o', byte);
        }
    });
    std::thread writes([&] {
        EnterFileWorker();
        for (int i = 0; i < ROUNDS; ++i) {
            EXPECT_EQ(0, device->Seek(10000 + 2 * i, 0));
            EXPECT_EQ(1, device->Write("n", 1));
            EXPECT_EQ(1, device->Write("N", 1));
        }
    });
    loads.join();
    writes.join();
    std::string wanted = old;
    for (int i = 0; i < ROUNDS; ++i) {
        wanted.replace(10000 + 2 * static_cast<std::size_t>(i), 2, "nN");
    }
    EXPECT_TRUE(wanted == contentOf(path));
}

}  // namespace
}  // namespace Orvex::Reticor
