// CDefaultStorDev: the device over stream files.
#include <Reticor/DefaultStorDev.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "support/LogCapture.h"
#include "support/file/FileWorld.h"
#include "support/file/SyncFault.h"

namespace Orvex::Reticor {
namespace {

using Testing::contentOf;
using Testing::LogCapture;
using Testing::putContent;
using Testing::TempFolder;

class DefaultStorDev : public ::testing::Test {
protected:
    ~DefaultStorDev() override {
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
        bytes.resize(static_cast<std::size_t>(device->Read(bytes.data(), len)));
        return bytes;
    }

    TempFolder folder;
    const std::string path = folder.file("file");
    CDefaultStorDev* device = new CDefaultStorDev;
};

TEST_F(DefaultStorDev, WritesReadsAndSeeks) {
    ASSERT_EQ(0, device->Open(path.c_str(), "w+"));
    EXPECT_TRUE(device->NeedAIO());
    EXPECT_EQ(10, device->Write("0123456789", 10));
    EXPECT_EQ(0, device->Seek(2, 0));
    EXPECT_EQ("234", read(3));
    EXPECT_EQ(0, device->Seek(2, 1));
    EXPECT_EQ("789", read(10));
    EXPECT_EQ("", read(10)) << "the end of the file";
    EXPECT_EQ(-1, device->Seek(0, 2));
    EXPECT_EQ(-1, device->Seek(0, -1));
    EXPECT_NE(0, device->Seek(-1, 0));
    close();
    EXPECT_EQ("0123456789", contentOf(path));
}

// The C library leaves undefined what happens without the positioning in between.
TEST_F(DefaultStorDev, TurnsFromReadingToWritingAndBack) {
    putContent(path, "0123456789");
    ASSERT_EQ(0, device->Open(path.c_str(), "r+"));
    EXPECT_EQ("012", read(3));
    EXPECT_EQ(2, device->Write("AB", 2));
    EXPECT_EQ("56", read(2));
    EXPECT_EQ(1, device->Write("C", 1));
    close();
    EXPECT_EQ("012AB56C89", contentOf(path));
}

TEST_F(DefaultStorDev, APathOfMoreThan255BytesIsCut) {
    const std::string long_path = path + "/" + std::string(400, 'x');
    const std::string cut = folder.file(std::string(255 - folder.file("").size(), 'y'));
    ASSERT_EQ(255u, cut.size());
    ASSERT_EQ(0, device->Open((cut + "zzz").c_str(), "w"));
    NFile_Info info;
    ASSERT_EQ(0, device->Stat(&info));
    EXPECT_EQ(cut, info.name);
    EXPECT_TRUE(std::filesystem::exists(cut));
    LogCapture log;
    EXPECT_EQ(-1, device->Open(long_path.c_str(), "w"));
    EXPECT_TRUE(log.contains(2, "open file failed! No such file or directory\n")) << log.dump();
}

TEST_F(DefaultStorDev, OpenThatFailsLogsTheReason) {
    LogCapture log;
    EXPECT_EQ(-1, device->Open(path.c_str(), "r"));
    EXPECT_TRUE(log.contains(2, "open file failed! No such file or directory\n")) << log.dump();
    EXPECT_EQ(std::string::npos, log.lines()[0].start.find("this:")) << log.lines()[0].start;
    EXPECT_EQ(-1, device->Open(folder.file("").c_str(), "w"));
    EXPECT_TRUE(log.contains(2, "open file failed! Is a directory\n")) << log.dump();
    EXPECT_EQ(-1, device->Open(nullptr, nullptr));
}

TEST_F(DefaultStorDev, WithoutAStreamNothingIsWrittenReadOrSought) {
    char byte = 0;
    EXPECT_EQ(0, device->Write("x", 1));
    EXPECT_EQ(0, device->Read(&byte, 1));
    EXPECT_EQ(-1, device->Seek(0, 0));
}

TEST_F(DefaultStorDev, StatTellsWhatIsOnTheDisk) {
    putContent(path, "0123456789");
    ASSERT_EQ(0, device->Open(path.c_str(), "r+"));
    device->Seek(10, 0);
    device->Write("more", 4);
    struct stat truth;
    ASSERT_EQ(0, ::stat(path.c_str(), &truth));
    NFile_Info info;
    info.attrib = 7;
    EXPECT_EQ(0, device->Stat(&info));
    EXPECT_EQ(14, info.size) << "nothing waits in the stream";
    EXPECT_EQ(truth.st_ctime, info.time_create);
    EXPECT_EQ(truth.st_atime, info.time_access);
    EXPECT_EQ(truth.st_mtime, info.time_write);
    EXPECT_EQ(0, info.attrib);
    EXPECT_EQ(path, info.name);
}

TEST_F(DefaultStorDev, StatOfAFileThatWasRemovedLogsAndGivesMinus1) {
    ASSERT_EQ(0, device->Open(path.c_str(), "w"));
    std::filesystem::remove(path);
    LogCapture log;
    NFile_Info info;
    EXPECT_EQ(-1, device->Stat(&info));
    EXPECT_TRUE(log.contains(2, "get fstat failed! No such file or directory\n")) << log.dump();
}

TEST_F(DefaultStorDev, OffsetsAbove2GiBReachTheStreamWhole) {
    constexpr long long FAR = 5LL << 30;
    ASSERT_EQ(0, device->Open(path.c_str(), "w+"));
    ASSERT_EQ(0, device->Seek(FAR, 0));
    EXPECT_EQ(3, device->Write("far", 3));
    ASSERT_EQ(0, device->Seek(FAR + 1, 0));
    EXPECT_EQ("ar", read(10));
    NFile_Info info;
    EXPECT_EQ(0, device->Stat(&info));
    EXPECT_EQ(FAR + 3, info.size);
}

TEST_F(DefaultStorDev, AFullDiskIsAShortCountOfTheWriteThatMeetsIt) {
    ASSERT_EQ(0, device->Open("/dev/full", "w"));
    const std::string much(Testing::BLOCK, 'x');
    EXPECT_EQ(0, device->Write(much.data(), Testing::BLOCK));
    EXPECT_EQ(0, device->Write("abc", 3));
    EXPECT_EQ(0, device->Seek(3, 0));
    EXPECT_EQ(0, device->Write("def", 3));
    LogCapture log;
    close();
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_F(DefaultStorDev, WhatAWriteTookIsWithTheSystem) {
    ASSERT_EQ(0, device->Open(path.c_str(), "w"));
    EXPECT_EQ(3, device->Write("abc", 3));
    EXPECT_EQ("abc", contentOf(path));
    EXPECT_EQ(0, device->Seek(1, 0));
    EXPECT_EQ(1, device->Write("X", 1));
    EXPECT_EQ("aXc", contentOf(path));
}

TEST_F(DefaultStorDev, FinishClosesAndSaysWhetherThatFailed) {
    ASSERT_EQ(0, device->Open(path.c_str(), "w"));
    EXPECT_EQ(0, device->Finish(false));
    EXPECT_EQ(0, device->Write("x", 1));
    EXPECT_EQ(0, device->Finish(true)) << "there is nothing more to close";

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

TEST_F(DefaultStorDev, FinishSyncsOnDemandAndSaysWhetherThatFailed) {
    LogCapture log;
    Testing::SyncFault fault(EIO);
    ASSERT_EQ(0, device->Open(path.c_str(), "w"));
    EXPECT_EQ(0, device->Finish(false));
    ASSERT_EQ(0, device->Open(path.c_str(), "w"));
    EXPECT_EQ(-1, device->Finish(true));
    EXPECT_EQ(1, fault.calls());
    EXPECT_TRUE(log.contains(2, "sync file failed! Input/output error\n")) << log.dump();
}

TEST_F(DefaultStorDev, FinishOfACopyLetsTheOtherGoOn) {
    ASSERT_EQ(0, device->Open(path.c_str(), "w"));
    CDefaultStorDev copy(*device);
    EXPECT_EQ(0, device->Finish(false));
    EXPECT_EQ(3, copy.Write("abc", 3));
    EXPECT_EQ("abc", contentOf(path));
}

TEST_F(DefaultStorDev, CopiesShareTheStreamAndTheLastOneClosesIt) {
    ASSERT_EQ(0, device->Open(path.c_str(), "w"));
    auto* const copy = new CDefaultStorDev(*device);
    auto* const assigned = new CDefaultStorDev;
    *assigned = *copy;
    EXPECT_EQ(1, device->Write("a", 1));
    close();
    EXPECT_EQ(1, copy->Write("b", 1));
    copy->Close();
    EXPECT_EQ(1, assigned->Write("c", 1));
    NFile_Info info;
    EXPECT_EQ(0, assigned->Stat(&info)) << "the path was copied, too";
    assigned->Close();
    EXPECT_EQ("abc", contentOf(path));
}

TEST_F(DefaultStorDev, ChildrenDoNotInheritTheDescriptor) {
    const int next = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::close(next);
    ASSERT_EQ(0, device->Open(path.c_str(), "w"));
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(next, F_GETFD) & FD_CLOEXEC);
}

TEST_F(DefaultStorDev, ADirectoryReadsAsEmpty) {
    ASSERT_EQ(0, device->Open(folder.file("").c_str(), "r"));
    EXPECT_EQ("", read(100));
}

TEST(StorDev, TheInterfaceCopiesNothingAndWantsWorkers) {
    class Plain : public CNStorDev_IF {
        int Open(const char*, const char*) override { return 0; }
        void Close() override {}
        int Write(const char*, unsigned) override { return -1; }
        int Read(char*, unsigned) override { return -1; }
        int Seek(long long, int) override { return 0; }
        int Stat(NFile_Info*) override { return 0; }
    };
    Plain one;
    Plain other(one);
    other = one;
    EXPECT_TRUE(static_cast<CNStorDev_IF&>(other).NeedAIO());
}

}  // namespace
}  // namespace Orvex::Reticor
