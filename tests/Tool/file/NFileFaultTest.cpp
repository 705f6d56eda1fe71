// CNFile: devices that fail, block and lie, Close at any moment, and the change of buffers under way.
#include <Reticor/NFile.h>

#include <unistd.h>

#include <Infra/Time.h>

#include "support/file/FileWorld.h"
#include "support/socket/Allocations.h"

namespace Orvex::Reticor {
namespace {

using Testing::BLOCK;
using Testing::contentOf;
using Testing::FileFixture;
using Testing::Gate;
using Testing::MemoryDevice;
using Testing::pattern;
using Testing::putContent;
using Testing::StillFileFixture;
using Testing::TempFolder;

using Calls = std::vector<std::string>;

class NFileFault : public StillFileFixture {
protected:
    std::string read(CNFile& file, unsigned len) {
        std::string bytes(len, '\0');
        eof = false;
        bytes.resize(static_cast<std::size_t>(file.Read(bytes.data(), len, eof)));
        return bytes;
    }
    int write(CNFile& file, const std::string& bytes) {
        return file.Write(bytes.data(), static_cast<unsigned>(bytes.size()));
    }
    // Brings tasks at rest back, as the time does.
    static void endRest() {
        uint64_t due = 0;
        while (file_tasks().BeginWatch(&due)) {
            file_tasks().EndWatch(due, UINT64_MAX - 1, false);
        }
    }
    bool eof = false;
};

// ---- writes that fail ----------------------------------------------------------------------------------

class WriteResults : public NFileFault, public ::testing::WithParamInterface<int> {};

TEST_P(WriteResults, AWriteThatFailsGivesMessage8AndIsTriedAgain) {
    MemoryDevice* const device = newDevice();
    int failures = 3;
    device->on_write = [&](unsigned) { return failures-- > 0 ? GetParam() : MemoryDevice::LET_BE; };
    CNFile* const file = open(device);
    EXPECT_EQ(4, write(*file, "data"));
    file->Seek(0, 0);
    for (int i = 1; i <= 3; ++i) {
        EXPECT_TRUE(step());
        EXPECT_EVENTUALLY(client->errors() == i);
        EXPECT_FALSE(step()) << "it rests, and keeps no worker";
        EXPECT_EQ(1, file_tasks().Count(file));
        endRest();
    }
    EXPECT_TRUE(step());
    EXPECT_EQ("data", disk->content());
    EXPECT_EQ(0, file_tasks().Count(file));
    EXPECT_EQ("data", closed(file));
    EXPECT_EQ(3, client->errors());
}

// 10000 is more than was asked for.
INSTANTIATE_TEST_SUITE_P(NFile, WriteResults, ::testing::Values(-1, 0, -5, INT_MIN + 1, 10000));

TEST_F(NFileFault, ShortCountsAreNoFailure) {
    MemoryDevice* const device = newDevice();
    device->on_write = [](unsigned len) { return static_cast<int>(std::min(len, 1000u)); };
    device->on_read = [](unsigned len) { return static_cast<int>(std::min(len, 7u)); };
    CNFile* const file = open(device);
    const std::string bytes = pattern(20000);
    write(*file, bytes);
    file->Seek(0, 0);
    EXPECT_EQ("", read(*file, 20000));
    drain();
    EXPECT_TRUE(bytes == read(*file, 20000));
    EXPECT_TRUE(bytes == closed(file));
    EXPECT_EQ(0, client->errors());
}

// What the device has taken of a block before it failed may be lost with the failure.
TEST_F(NFileFault, ABlockThatFailedInTheMiddleIsWrittenWhole) {
    MemoryDevice* const device = newDevice();
    int calls = 0;
    device->on_write = [&](unsigned) {
        return ++calls == 2 ? 1000 : (calls == 3 ? -1 : MemoryDevice::LET_BE);
    };
    CNFile* const file = open(device);
    const std::string bytes = pattern(3 * BLOCK);
    EXPECT_EQ(static_cast<int>(3 * BLOCK), write(*file, bytes));
    EXPECT_TRUE(step());
    EXPECT_EVENTUALLY(client->errors() == 1);
    EXPECT_TRUE(bytes == closed(file));
    EXPECT_EQ((Calls{"seek 0", "write 131072", "seek 131072", "write 1000", "write failed", "seek 131072",
                     "write 131072", "seek 262144", "write 131072", "close"}),
              disk->log());
}

TEST_F(NFileFault, ABlockThatFailedInTheMiddleGoesOnThereWhereTheDeviceCannotSeek) {
    MemoryDevice* const device = newDevice();
    int calls = 0;
    device->on_seek = [](long long) { return -1; };
    device->on_write = [&](unsigned) {
        return ++calls == 2 ? 1000 : (calls == 3 ? -1 : MemoryDevice::LET_BE);
    };
    CNFile* const file = open(device);
    const std::string bytes = pattern(3 * BLOCK);
    EXPECT_EQ(static_cast<int>(3 * BLOCK), write(*file, bytes));
    EXPECT_TRUE(step());
    EXPECT_EVENTUALLY(client->errors() == 1);
    EXPECT_TRUE(bytes == closed(file));
}

TEST_F(NFileFault, AWriterThatWaitsForRoomIsToldWhenTheDeviceTakesBytesAgain) {
    MemoryDevice* const device = newDevice();
    bool full = true;
    device->on_write = [&](unsigned) { return full ? -1 : MemoryDevice::LET_BE; };
    CNFile* const file = open(device);
    const std::string bytes = pattern(5 * BLOCK);
    EXPECT_EQ(static_cast<int>(4 * BLOCK), write(*file, bytes));
    for (int i = 0; i < 20; ++i) {
        while (step()) {
        }
        endRest();
    }
    EXPECT_EQ(0, client->rooms());
    EXPECT_EVENTUALLY(client->errors() >= 20);
    full = false;
    drain();
    EXPECT_EVENTUALLY(client->rooms() == 1);
    EXPECT_EQ(static_cast<int>(BLOCK), write(*file, bytes.substr(4 * BLOCK)));
    EXPECT_TRUE(bytes == closed(file));
}

// Bytes that are not on the disk yet must not be read as if they had never been.
TEST_F(NFileFault, ALoadWaitsForWritesThatFail) {
    MemoryDevice* const device = newDevice();
    bool full = true;
    device->on_write = [&](unsigned) { return full ? -1 : MemoryDevice::LET_BE; };
    CNFile* const file = open(device);
    write(*file, "data");
    EXPECT_EQ("", read(*file, 1));
    for (int i = 0; i < 5; ++i) {
        while (step()) {
        }
        endRest();
    }
    EXPECT_EQ(0, client->loads());
    EXPECT_EQ(0, disk->reads);
    full = false;
    drain();
    EXPECT_EVENTUALLY(client->loads() == 1);
    EXPECT_EQ("", read(*file, 1));
    EXPECT_TRUE(eof);
    closed(file);
}

// Blocks and callers that counted on a pass which then fails.
TEST_F(NFileFault, WhatWasLeftToAPassThatFailsIsTriedAgain) {
    Gate gate;
    MemoryDevice* const device = newDevice();
    int failures = 2;
    device->on_write = [&](unsigned) {
        gate.pass();
        return failures-- > 0 ? -1 : MemoryDevice::LET_BE;
    };
    CNFile* const file = open(device);
    const std::string bytes = pattern(5 * BLOCK);
    EXPECT_EQ(static_cast<int>(BLOCK), file->Write(bytes.data(), BLOCK));
    std::thread worker([] { step(); });
    ASSERT_TRUE(gate.awaitArrivals(1));
    EXPECT_EQ(static_cast<int>(3 * BLOCK), write(*file, bytes.substr(BLOCK)));
    gate.open();
    worker.join();
    EXPECT_EVENTUALLY(client->errors() == 1);
    drain();
    EXPECT_EVENTUALLY(client->rooms() == 1);
    EXPECT_EQ(static_cast<int>(BLOCK), write(*file, bytes.substr(4 * BLOCK)));
    EXPECT_TRUE(bytes == closed(file));
}

// The read task found a pass at work and left the load to it.
TEST_F(NFileFault, ALoadThatWasLeftToAPassThatFailsIsMadeAllTheSame) {
    Gate gate;
    MemoryDevice* const device = newDevice();
    disk->bytes = pattern(3 * BLOCK);
    int failures = 1;
    device->on_write = [&](unsigned) {
        gate.pass();
        return failures-- > 0 ? -1 : MemoryDevice::LET_BE;
    };
    CNFile* const file = open(device);
    EXPECT_EQ(static_cast<int>(BLOCK), write(*file, pattern(BLOCK, 2)));
    std::thread worker([] { step(); });
    ASSERT_TRUE(gate.awaitArrivals(1));
    EXPECT_EQ("", read(*file, 1));
    EXPECT_TRUE(step());
    gate.open();
    worker.join();
    drain();
    EXPECT_EVENTUALLY(client->loads() == 1);
    EXPECT_EQ(pattern(3 * BLOCK).substr(BLOCK, 1), read(*file, 1));
    closed(file);
}

TEST_F(NFileFault, ADeviceThatCannotSeekIsServedInOrder) {
    MemoryDevice* const device = newDevice();
    device->on_seek = [](long long) { return -1; };
    CNFile* const file = open(device);
    const std::string bytes = pattern(3 * BLOCK + 5);
    write(*file, bytes);
    EXPECT_TRUE(bytes == closed(file));
    EXPECT_EQ(0, client->errors());
}

TEST_F(NFileFault, ASeekThatFailsElsewhereIsAFailure) {
    MemoryDevice* const device = newDevice();
    bool broken = true;
    device->on_seek = [&](long long) { return broken ? -1 : MemoryDevice::LET_BE; };
    CNFile* const file = open(device);
    file->Seek(100, 0);
    write(*file, "data");
    file->Seek(0, 0);
    EXPECT_TRUE(step());
    EXPECT_EVENTUALLY(client->errors() >= 1);
    EXPECT_EQ(0, disk->writes) << "not wherever the device stands";
    broken = false;
    EXPECT_EQ(std::string(100, '\0') + "data", closed(file));
}

TEST_F(NFileFault, AFullDiskIsToldByMessage8) {
    CNFile* const file = open(new CPosixStorDev, "/dev/full", "w");
    ASSERT_NE(nullptr, file);
    write(*file, "data");
    file->Seek(0, 0);
    EXPECT_TRUE(step());
    EXPECT_EVENTUALLY(client->errors() == 1);
    EXPECT_EQ(0, file->SetBufferSize(1, 1)) << "gives up what does not fit";
    file->Close();
    drain();
}

// ---- loads that fail -----------------------------------------------------------------------------------

TEST_F(NFileFault, AfterAReadErrorReadGives0ForEverUntilTheBuffersAreNew) {
    MemoryDevice* const device = newDevice();
    disk->bytes = "0123456789";
    int result = -1;
    device->on_read = [&](unsigned) { return result; };
    CNFile* const file = open(device);
    EXPECT_EQ("", read(*file, 10));
    drain();
    EXPECT_EVENTUALLY(client->errors() == 1);
    EXPECT_EQ(0, client->loads());
    result = MemoryDevice::LET_BE;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ("", read(*file, 10));
        drain();
        file->Seek(0, 0);
    }
    EXPECT_EQ(0, disk->reads);
    EXPECT_EQ(0, file->SetBufferSize(1, 3));
    EXPECT_EVENTUALLY(client->loads() == 1) << "what was owed";
    EXPECT_EQ("", read(*file, 10));
    drain();
    EXPECT_EQ("0123456789", read(*file, 10));
    closed(file);
}

TEST_F(NFileFault, MoreBytesThanWereAskedForAreAReadError) {
    MemoryDevice* const device = newDevice();
    device->on_read = [](unsigned len) { return static_cast<int>(len) + 1; };
    CNFile* const file = open(device);
    EXPECT_EQ("", read(*file, 10));
    drain();
    EXPECT_EVENTUALLY(client->errors() == 1);
    closed(file);
}

TEST_F(NFileFault, AFileThatIsCutWhileItIsReadEndsWhereItWasCut) {
    for (const bool posix : {false, true}) {
        TempFolder folder;
        const std::string path = folder.file("a");
        const std::string bytes = pattern(3 * BLOCK);
        putContent(path, bytes);
        CNFile* const file = open(posix ? new CPosixStorDev : nullptr, path.c_str(), "r");
        EXPECT_EQ("", read(*file, 3 * BLOCK));
        drain();
        EXPECT_TRUE(bytes.substr(0, BLOCK) == read(*file, 3 * BLOCK));
        ASSERT_EQ(0, ::truncate(path.c_str(), BLOCK + 10));
        drain();
        EXPECT_TRUE(bytes.substr(BLOCK, BLOCK) == read(*file, BLOCK) || eof);
        drain();
        for (int i = 0; i < 4 && !eof; ++i) {
            read(*file, BLOCK);
            drain();
        }
        EXPECT_TRUE(eof);
        file->Close();
        drain();
    }
}

// ---- Close ---------------------------------------------------------------------------------------------

TEST_F(NFileFault, TheSecondCloseAndCallsAfterTheFirstDoNothing) {
    CNFile* const file = open(newDevice());
    file->AddRef();
    write(*file, "data");
    file->Close();
    file->Close();
    EXPECT_EQ(2, file_tasks().Count(file)) << "one to write, one to close";
    char byte = 0;
    EXPECT_EQ(0, file->Write("x", 1));
    EXPECT_EQ(0, file->Read(&byte, 1, eof));
    EXPECT_EQ(-1, file->Seek(0, 0));
    EXPECT_EQ(0, file->SetBufferSize(1, 8));
    drain();
    EXPECT_EVENTUALLY(disk->closes == 1);
    NFile_Info info;
    EXPECT_EQ(0, file->Stat(&info));
    EXPECT_EQ(0, file->Write("x", 1));
    file->Close();
    EXPECT_EQ("data", disk->content());
    file->DecRef();
}

TEST_F(NFileFault, CloseWithBytesInEveryBufferLosesNone) {
    CNFile* const file = open(newDevice());
    std::string wanted(900000, '\0');
    for (unsigned i = 0; i < 4; ++i) {
        file->Seek(200000 * i, 0);
        write(*file, "data");
        wanted.replace(200000 * i, 4, "data");
    }
    wanted.resize(600004);
    EXPECT_TRUE(wanted == closed(file));
}

TEST_F(NFileFault, ADirectFileIsClosedOnce) {
    MemoryDevice* const device = newDevice();
    device->needs_aio = false;
    CNFile* const file = open(device);
    file->AddRef();
    file->Close();
    file->Close();
    EXPECT_EQ(1, disk->closes);
    char byte = 0;
    EXPECT_EQ(0, file->Write("x", 1));
    EXPECT_EQ(0, file->Read(&byte, 1, eof));
    EXPECT_EQ(-1, file->Seek(0, 0));
    file->DecRef();
}

// ---- the change of buffers -----------------------------------------------------------------------------

TEST_F(NFileFault, NewBuffersForgetWhereTheOldOnesLeftOff) {
    CNFile* const file = open(newDevice());
    EXPECT_EQ(10, write(*file, "0123456789"));
    EXPECT_EQ(0, file->SetBufferSize(1, 8));
    EXPECT_EQ(3, write(*file, "abc"));
    EXPECT_EQ(std::string(10, '\0') + "abc", closed(file)) << "what was not written is lost";
}

TEST_F(NFileFault, NewBuffersDuringALoadPayTheMessageThatIsOwed) {
    disk = nullptr;
    MemoryDevice* const device = newDevice();
    disk->bytes = "0123456789";
    CNFile* const file = open(device);
    EXPECT_EQ("", read(*file, 5));
    EXPECT_EQ(0, file->SetBufferSize(1, 2));
    EXPECT_EVENTUALLY(client->loads() == 1);
    drain();
    EXPECT_EQ("", read(*file, 5));
    drain();
    EXPECT_EQ("01234", read(*file, 5));
    closed(file);
}

TEST_F(NFileFault, NewBuffersDuringAPassWaitForTheCallThatRunsAndPayRoom) {
    Gate gate;
    MemoryDevice* const device = newDevice();
    device->on_write = [&](unsigned) { return gate.pass(), MemoryDevice::LET_BE; };
    CNFile* const file = open(device);
    const std::string bytes = pattern(5 * BLOCK);
    EXPECT_EQ(static_cast<int>(4 * BLOCK), write(*file, bytes));
    std::thread worker([] { step(); });
    ASSERT_TRUE(gate.awaitArrivals(1));
    std::thread changer([&] { file->SetBufferSize(1, 2); });
    EXPECT_EVENTUALLY(NFileProbe::cutting(*file));
    gate.open();
    changer.join();
    worker.join();
    EXPECT_EVENTUALLY(client->rooms() == 1);
    EXPECT_EQ(2u, NFileProbe::buffers(*file));
    EXPECT_EQ(1, disk->writes) << "the rest was given up";
    EXPECT_EQ(3, write(*file, "abc"));
    EXPECT_EQ("abc", closed(file).substr(4 * BLOCK));
}

TEST_F(NFileFault, ThereAreNeverMoreThan4096Buffers) {
    CNFile* const file = open(newDevice());
    for (const unsigned count : {4097u, 32768u, 1000000000u, 4294967295u}) {
        EXPECT_EQ(0, file->SetBufferSize(1, count));
        EXPECT_EQ(4096u, NFileProbe::buffers(*file));
    }
    EXPECT_EQ(3, write(*file, "abc"));
    EXPECT_EQ(0u, disk->size()) << "buffered";
    EXPECT_EQ("abc", closed(file));
}

// Whichever of the allocations it is that fails.
TEST_F(NFileFault, ACountThatMemoryHasNoRoomForGivesFourBuffers) {
    CNFile* const file = open(newDevice());
    size_t failed = 0;
    for (;; ++failed) {
        {
            Testing::OneAllocationFails fault(failed);
            EXPECT_EQ(0, file->SetBufferSize(1, 4096));
        }
        if (NFileProbe::buffers(*file) == 4096) {
            break;
        }
        ASSERT_EQ(4u, NFileProbe::buffers(*file)) << failed;
        EXPECT_EQ(3, write(*file, "abc"));
        EXPECT_EQ(0, file->SetBufferSize(1, 5));
    }
    EXPECT_GE(failed, 3u);
    closed(file);
}

TEST_F(NFileFault, WithoutAnyMemoryForBuffersCallsGoToTheDevice) {
    CNFile* const file = open(newDevice());
    {
        Testing::NoMemory fault;
        EXPECT_EQ(0, file->SetBufferSize(1, 8));
    }
    EXPECT_EQ(0u, NFileProbe::buffers(*file));
    EXPECT_EQ(3, write(*file, "abc"));
    EXPECT_EQ("abc", disk->content());
    closed(file);
}

// ---- with real workers ---------------------------------------------------------------------------------

class NFileDevice : public FileFixture {};

TEST_F(NFileDevice, NoCallerWaitsForADeviceThatBlocks) {
    Gate gate;
    MemoryDevice* const device = newDevice();
    device->on_write = [&](unsigned) { return gate.pass(), MemoryDevice::LET_BE; };
    device->on_read = [&](unsigned) { return gate.pass(), MemoryDevice::LET_BE; };
    CNFile* const file = open(device);
    const std::string bytes = pattern(5 * BLOCK);
    bool eof = false;
    char byte = 0;
    EXPECT_EQ(static_cast<int>(4 * BLOCK), file->Write(bytes.data(), 5 * BLOCK));
    ASSERT_TRUE(gate.awaitArrivals(1));
    EXPECT_EQ(0, file->Write(bytes.data(), 1));
    EXPECT_EQ(0, file->Read(&byte, 1, eof));
    EXPECT_EQ(0, file->Read(&byte, 1, eof));
    EXPECT_EQ(0, file->Seek(0, 0));
    NFile_Info info;
    EXPECT_EQ(0, file->Stat(&info));
    file->Close();
    EXPECT_EQ(0, disk->writes) << "all of this while the first call has not come back";
    gate.open();
    EXPECT_EVENTUALLY(disk->closes == 1);
    EXPECT_TRUE(bytes.substr(0, 4 * BLOCK) == disk->content());
}

TEST_F(NFileDevice, AFailingDeviceIsTriedAtAPaceAndKeepsNoWorker) {
    MemoryDevice* const device = newDevice();
    std::atomic<bool> broken{true};
    std::atomic<int> tries{0};
    device->on_write = [&](unsigned) { return ++tries, broken ? -1 : MemoryDevice::LET_BE; };
    CNFile* const file = open(device);
    file->Write("data", 4);
    const uint64_t start = Infra::CTime::getCurrentMilliSecond();
    file->Close();
    EXPECT_EVENTUALLY(tries >= 8);
    EXPECT_GE(Infra::CTime::getCurrentMilliSecond() - start, 1u + 2 + 4 + 8 + 16 + 32 + 64 - 7);
    EXPECT_LE(tries, 20);
    EXPECT_EVENTUALLY(client->errors() >= 8);
    EXPECT_EQ(0, disk->closes);
    broken = false;
    EXPECT_EVENTUALLY(disk->closes == 1);
    EXPECT_EQ("data", disk->content());
}

TEST_F(NFileDevice, FilesBesideOneThatBlocksGoOn) {
    Gate gate;
    std::vector<CNFile*> blocked;
    std::vector<std::shared_ptr<Testing::DeviceLife>> lives;
    MemoryDevice* const device = newDevice();
    lives.push_back(disk);
    device->on_write = [&](unsigned) { return gate.pass(), MemoryDevice::LET_BE; };
    blocked.push_back(open(device));
    blocked[0]->Write("data", 4);
    blocked[0]->Seek(0, 0);
    ASSERT_TRUE(gate.awaitArrivals(1));
    for (int i = 0; i < 50; ++i) {
        blocked[0]->Seek(i, 0);
    }
    blocked[0]->Close();
    const std::string bytes = pattern(20 * BLOCK);
    CNFile* const other = open(newDevice());
    writeAll(*other, bytes);
    EXPECT_TRUE(bytes == closed(other));
    gate.open();
    EXPECT_EVENTUALLY(lives[0]->closes == 1);
}

TEST_F(NFileDevice, OffsetsAbove2GiBReachBothDevices) {
    TempFolder folder;
    for (const bool posix : {false, true}) {
        constexpr long long FAR = (5LL << 30) + 7;
        const std::string path = folder.file(posix ? "posix" : "default");
        putContent(path, "");
        CNFile* const file = open(posix ? new CPosixStorDev : nullptr, path.c_str(), "r+");
        EXPECT_EQ(0, file->Seek(FAR, 0));
        EXPECT_EQ(4, file->Write("data", 4));
        EXPECT_EQ(0, file->Seek(FAR, 0));
        EXPECT_EQ("data", readAll(*file, 100));
        EXPECT_EQ(0, file->Seek(FAR - 1, 0));
        EXPECT_EQ(std::string("\0dat", 4), readAll(*file, 4));
        file->Close();
        EXPECT_EVENTUALLY(std::filesystem::file_size(path) == static_cast<std::uintmax_t>(FAR) + 4);
    }
}

// The device did not know when it was opened, so each Stat asks it.
TEST_F(NFileDevice, StatDoesNotCallTheDeviceBesideAWrite) {
    MemoryDevice* const device = newDevice();
    const std::shared_ptr<Testing::DeviceLife> life = disk;
    device->stat_result = -7;
    std::atomic<int> before{1};  // the one of Open
    device->on_write = [&, life](unsigned) {
        for (int i = 0; i < 1000 && life->stats == before; ++i) {
            ::usleep(10);
        }
        return MemoryDevice::LET_BE;
    };
    CNFile* const file = open(device);
    for (int i = 0; i < 5; ++i) {
        before = disk->stats.load();
        const int inside = disk->writes;
        EXPECT_EQ(1, file->Write("x", 1));
        EXPECT_EQ(0, file->Seek(0, 0));
        EXPECT_EVENTUALLY(disk->inside > 0 || disk->writes > inside);
        NFile_Info info;
        EXPECT_EQ(-7, file->Stat(&info));
    }
    closed(file);
    EXPECT_EQ(1, disk->most_inside);
}

TEST_F(NFileDevice, NeitherStatNorSetBufferSizeCallsADeviceThatHasGotClose) {
    for (const bool buffered : {false, true}) {
        for (int i = 0; i < 100; ++i) {
            MemoryDevice* const device = newDevice();
            device->needs_aio = buffered;
            device->stat_result = -7;
            device->on_stat = [] { std::this_thread::yield(); };
            CNFile* const file = open(device);
            file->AddRef();
            std::atomic<bool> asking{false};
            std::thread asker([&] {
                for (int n = 0; n < 50; ++n) {
                    NFile_Info info;
                    file->Stat(&info);
                    file->SetBufferSize(1, n % 2 == 0 ? 2 : 3);
                    asking = true;
                }
            });
            while (!asking) {
                std::this_thread::yield();
            }
            file->Close();
            asker.join();
            EXPECT_EVENTUALLY(disk->closes == 1);
            EXPECT_EQ(1, disk->most_inside);
            EXPECT_EQ("close", disk->log().back());
            file->DecRef();
        }
    }
}

TEST_F(NFileDevice, TheDeviceIsAskedOnceWhetherItNeedsWorkers) {
    CNFile* const file = open(newDevice());
    EXPECT_EQ(0, file->SetBufferSize(1, 2));
    EXPECT_EQ(0, file->SetBufferSize(1, 5));
    EXPECT_EQ(1, disk->aio_questions);
    closed(file);
}

// An open file holds a block only for what is in use.
TEST_F(NFileDevice, AFileThatReadsALittleHoldsOneBlock) {
    MemoryDevice* const device = newDevice();
    disk->bytes = "0123456789";
    CNFile* const file = open(device);
    EXPECT_EQ("0123", readAll(*file, 4));
    int blocks = 0;
    for (unsigned i = 0; i < 4; ++i) {
        blocks += NFileProbe::slots(*file).at(i).m_data != nullptr ? 1 : 0;
    }
    EXPECT_EQ(1, blocks);
    closed(file);
}

}  // namespace
}  // namespace Orvex::Reticor
