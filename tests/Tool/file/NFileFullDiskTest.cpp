// CNFile on a disk that fills up while it is written, and has room again later.
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include "support/SeededRandom.h"
#include "support/file/FileWorld.h"

namespace Orvex::Reticor {
namespace {

using Testing::contentOf;
using Testing::FileFixture;
using Testing::pattern;
using Testing::putContent;
using Testing::TempFolder;

constexpr size_t MIB = 1 << 20;

// A file system of 2 MiB, in a namespace of mounts that the calling thread, and those it starts from now on,
// move into for good. It needs root, or a system that lets a user make namespaces.
bool mount_small_disk(const std::string& folder) {
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

// No file of this process becomes longer. What a write beyond it gets is EFBIG, and no signal.
void limit_files(rlim_t bytes) {
    ::signal(SIGXFSZ, SIG_IGN);
    rlimit limit = {};
    EXPECT_EQ(0, ::getrlimit(RLIMIT_FSIZE, &limit));
    limit.rlim_cur = std::min(bytes, limit.rlim_max);
    EXPECT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &limit));
}

// A folder on a disk that has room for so many bytes, until `makeRoom`. Where no disk can be mounted it is
// the length of the files that is limited.
class SmallDisk {
public:
    SmallDisk() : m_mounted(mount_small_disk(m_folder.file(""))) {}
    ~SmallDisk() {
        if (m_mounted) {
            EXPECT_EQ(0, ::umount2(m_folder.file("").c_str(), MNT_DETACH));
        }
    }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    void leaveRoomFor(size_t bytes) {
        if (m_mounted) {
            putContent(filler(), pattern(2 * MIB - bytes));
        } else {
            limit_files(bytes);
        }
    }
    void makeRoom() {
        if (m_mounted) {
            std::filesystem::remove(filler());
        } else {
            limit_files(RLIM_INFINITY);
        }
    }
    std::string file(const std::string& name) const { return m_folder.file(name); }

private:
    std::string filler() const { return m_folder.file("filler"); }

    TempFolder m_folder;
    const bool m_mounted;
};

// Called on the caller's thread, as a file without workers calls every device.
template <typename Device>
class Direct : public Device {
public:
    bool NeedAIO() override { return false; }
};

class NFileFullDisk : public FileFixture {
protected:
    // What was accepted while there was room, and until the buffers were full, comes to the disk once there
    // is room again.
    void fillAndMakeRoom(CNStorDev_IF* device, size_t room) {
        m_disk.leaveRoomFor(room);
        CNFile* const file = open(device, path.c_str(), "w+");
        ASSERT_NE(nullptr, file);
        const std::string bytes = pattern(2 * MIB - 65536, 7);
        size_t taken = 0;
        while (client->errors() == 0) {
            taken += static_cast<size_t>(file->Write(
                bytes.data() + taken, static_cast<unsigned>(std::min<size_t>(10000, bytes.size() - taken))));
            ASSERT_LT(taken, bytes.size()) << "the disk was never full";
        }
        m_disk.makeRoom();
        file->Close();
        EXPECT_EVENTUALLY(contentOf(path).size() == taken);
        EXPECT_TRUE(bytes.substr(0, taken) == contentOf(path));
    }

    // Small writes all over the file, the later ones over the earlier. Result: what must be in the file.
    // Where the disk is full a call takes less, or nothing.
    std::string scatter(CNFile& file) {
        std::string wanted;
        Testing::SeededRandom random;
        for (int i = 0; i < 3000 && client->errors() == 0; ++i) {
            const int rooms = client->rooms();
            const auto offset = random.between<size_t>(0, MIB);
            const std::string bytes = pattern(random.between<size_t>(1, 3000), static_cast<unsigned>(i));
            EXPECT_EQ(0, file.Seek(static_cast<long long>(offset), 0));
            const auto n = static_cast<size_t>(file.Write(bytes.data(), static_cast<unsigned>(bytes.size())));
            if (n > 0) {
                wanted.resize(std::max(wanted.size(), offset + n));
                wanted.replace(offset, n, bytes, 0, n);
            }
            if (n < bytes.size() && NFileProbe::buffers(file) > 0) {
                EXPECT_EVENTUALLY(client->rooms() > rooms || client->errors() > 0);
            }
        }
        return wanted;
    }

    SmallDisk m_disk;
    const std::string path = m_disk.file("wanted");
};

TEST_F(NFileFullDisk, WhatWasAcceptedArrivesOnceThereIsRoomWithPread) {
    fillAndMakeRoom(new CPosixStorDev, MIB);
}

TEST_F(NFileFullDisk, WhatWasAcceptedArrivesOnceThereIsRoomWithStdio) {
    fillAndMakeRoom(new CDefaultStorDev, MIB);
}

// The disk becomes full inside a block: what the device took then it must have on the disk.
TEST_F(NFileFullDisk, ADiskThatFillsUpInsideABlockLosesNothingWithPread) {
    fillAndMakeRoom(new CPosixStorDev, 446464);
}

TEST_F(NFileFullDisk, ADiskThatFillsUpInsideABlockLosesNothingWithStdio) {
    fillAndMakeRoom(new CDefaultStorDev, 446464);
}

TEST_F(NFileFullDisk, ADirectWriteTellsWhatIsOnTheDisk) {
    m_disk.leaveRoomFor(307200);
    CNFile* const file = open(new Direct<CDefaultStorDev>, path.c_str(), "w+");
    ASSERT_NE(nullptr, file);
    const std::string bytes = pattern(MIB);
    EXPECT_EQ(307200, file->Write(bytes.data(), MIB));
    EXPECT_EQ(0, file->Write(bytes.data(), 1));
    EXPECT_EQ(307200u, contentOf(path).size());
    m_disk.makeRoom();
    EXPECT_EQ(static_cast<int>(MIB - 307200), file->Write(bytes.data() + 307200, MIB - 307200));
    file->Close();
    EXPECT_TRUE(bytes == contentOf(path));
}

TEST_F(NFileFullDisk, ScatteredDirectWritesTellWhatIsOnTheDisk) {
    m_disk.leaveRoomFor(300000);
    CNFile* const file = open(new Direct<CDefaultStorDev>, path.c_str(), "w+");
    ASSERT_NE(nullptr, file);
    const std::string wanted = scatter(*file);
    file->Close();
    EXPECT_TRUE(wanted == contentOf(path));
}

TEST_F(NFileFullDisk, ScatteredWritesThatWereAcceptedArriveOnceThereIsRoom) {
    m_disk.leaveRoomFor(300000);
    CNFile* const file = open(new CDefaultStorDev, path.c_str(), "w+");
    ASSERT_NE(nullptr, file);
    std::string wanted = scatter(*file);
    EXPECT_EVENTUALLY(client->errors() > 0);
    m_disk.makeRoom();
    file->Close();
    EXPECT_EVENTUALLY(contentOf(path) == wanted);
}

}  // namespace
}  // namespace Orvex::Reticor
