// CNFile on a disk that fills up while it is written, and has room again later.
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include "support/file/FileWorld.h"

namespace Orvex::Reticor {
namespace {

using Testing::contentOf;
using Testing::FileFixture;
using Testing::pattern;
using Testing::putContent;
using Testing::TempFolder;

constexpr std::size_t MIB = 1 << 20;

// A file system of 2 MiB, in a namespace of mounts that the calling thread, and those it starts from now on,
// move into for good. It needs root, or a system that lets a user make namespaces.
bool mountSmallDisk(const std::string& folder) {
    const std::string user = std::to_string(::getuid());
    if (::unshare(CLONE_NEWNS) != 0) {
        if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
            return false;
        }
        std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
    }
    return ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=2m") == 0;
}

class NFileFullDiskTest : public FileFixture {
protected:
    void SetUp() override {
        m_mounted = mountSmallDisk(m_folder.file(""));
        FileFixture::SetUp();
    }
    void TearDown() override {
        FileFixture::TearDown();
        if (m_mounted) {
            EXPECT_EQ(0, ::umount2(m_folder.file("").c_str(), MNT_DETACH));
        }
    }

    // What was accepted while there was room, and until the buffers were full, comes to the disk once there
    // is room again.
    void fillAndMakeRoom(CNStorDev_IF* device) {
        putContent(m_folder.file("filler"), pattern(MIB));
        CNFile* const file = open(device, m_folder.file("wanted").c_str(), "w+");
        ASSERT_NE(nullptr, file);
        const std::string bytes = pattern(2 * MIB - 65536, 7);
        std::size_t taken = 0;
        while (client->errors() == 0) {
            taken += static_cast<std::size_t>(
                file->Write(bytes.data() + taken,
                            static_cast<unsigned>(std::min<std::size_t>(10000, bytes.size() - taken))));
            ASSERT_LT(taken, bytes.size()) << "the disk was never full";
        }
        std::filesystem::remove(m_folder.file("filler"));
        file->Close();
        EXPECT_EVENTUALLY(contentOf(m_folder.file("wanted")).size() == taken);
        EXPECT_TRUE(bytes.substr(0, taken) == contentOf(m_folder.file("wanted")));
    }

    // Without a small disk: the device that is always full.
    void tellOnAFullDevice(CNStorDev_IF* device) {
        CNFile* const file = open(device, "/dev/full", "w");
        ASSERT_NE(nullptr, file);
        const std::string bytes = pattern(MIB);
        file->Write(bytes.data(), static_cast<unsigned>(bytes.size()));
        EXPECT_EVENTUALLY(client->errors() > 0);
        EXPECT_EQ(0, file->SetBufferSize(1, 1));
        file->Close();
    }

    void run(CNStorDev_IF* device) {
        if (m_mounted) {
            fillAndMakeRoom(device);
        } else {
            tellOnAFullDevice(device);
        }
    }

private:
    TempFolder m_folder;
    bool m_mounted = false;
};

TEST_F(NFileFullDiskTest, WhatWasAcceptedArrivesOnceThereIsRoomWithPread) {
    run(new CPosixStorDev);
}

TEST_F(NFileFullDiskTest, WhatWasAcceptedArrivesOnceThereIsRoomWithStdio) {
    run(new CDefaultStorDev);
}

}  // namespace
}  // namespace Orvex::Reticor
