// CNFile: the order in which bytes reach the device and come back, when passes, loads and calls meet.
#include <Reticor/NFile.h>

#include "support/StuckNotes.h"
#include "support/file/FileWorld.h"

namespace Orvex::Reticor {
namespace {

using Testing::BLOCK;
using Testing::Gate;
using Testing::MemoryDevice;
using Testing::pattern;
using Testing::StillFileFixture;

using Calls = std::vector<std::string>;

class NFileOrder : public StillFileFixture {
protected:
    std::string read(CNFile& file, unsigned len) {
        std::string bytes(len, '\0');
        eof = false;
        bytes.resize(static_cast<std::size_t>(file.Read(bytes.data(), len, eof)));
        return bytes;
    }
    // Reads, with a load if need be.
    std::string load(CNFile& file, unsigned len) {
        const std::string bytes = read(file, len);
        if (!bytes.empty() || eof) {
            return bytes;
        }
        drain();
        return read(file, len);
    }
    int write(CNFile& file, const std::string& bytes) {
        return file.Write(bytes.data(), static_cast<unsigned>(bytes.size()));
    }
    void writeAt(CNFile& file, long long offset, const std::string& bytes) {
        EXPECT_EQ(0, file.Seek(offset, 0));
        EXPECT_EQ(static_cast<int>(bytes.size()), write(file, bytes));
    }
    // The device writes and reads when the gate is open.
    MemoryDevice* newGatedDevice() {
        MemoryDevice* const device = newDevice();
        device->on_write = [this](unsigned) { return gate.pass(), MemoryDevice::LET_BE; };
        device->on_read = [this](unsigned) { return gate.pass(), MemoryDevice::LET_BE; };
        return device;
    }

    bool eof = false;
    Gate gate;
};

// ---- loads and writes ----------------------------------------------------------------------------------

TEST_F(NFileOrder, ALoadDoesNotOvertakeTheWriteThatItDependsOn) {
    CNFile* const file = open(newGatedDevice());
    EXPECT_EQ(10, write(*file, "0123456789"));
    EXPECT_EQ(0, file->Seek(0, 0));
    std::thread worker([] { step(); });
    ASSERT_TRUE(gate.awaitArrivals(1));
    EXPECT_EQ("", read(*file, 10));
    EXPECT_TRUE(step()) << "the read task, on another worker";
    EXPECT_EQ(1, gate.arrived()) << "is not let at the device meanwhile";
    gate.open();
    worker.join();
    drain();
    EXPECT_EQ("0123456789", read(*file, 10));
    EXPECT_EQ(1, disk->most_inside) << "one pass at a time: nobody moves the position of another";
    closed(file);
}

TEST_F(NFileOrder, ADeviceThatHangsIsNamedAsWorkOfItsFile) {
    Testing::StuckNotes notes(20);
    CNFile* const file = open(newGatedDevice());
    EXPECT_EQ(10, write(*file, "0123456789"));
    EXPECT_EQ(0, file->Seek(0, 0));
    std::thread worker([] { step(); });
    ASSERT_TRUE(gate.awaitArrivals(1));
    EXPECT_EVENTUALLY(notes.calls().size() == 1);
    for (const StuckCall& call : notes.calls()) {
        EXPECT_STREQ("file task", call.call);
        EXPECT_STREQ("Orvex::Reticor::CNFile", call.class_name);
        EXPECT_EQ(file->GetID(), call.handler);
        EXPECT_EQ(-1, call.pool);
        EXPECT_EQ(0u, call.spins);
    }
    gate.open();
    worker.join();
    drain();
    closed(file);
}

TEST_F(NFileOrder, AReadTaskThatComesFirstWritesOutFirst) {
    CNFile* const file = open(newDevice());
    writeAt(*file, 0, "0123456789");
    file->Seek(0, 0);
    EXPECT_EQ("", read(*file, 10));
    NFileProbe::device(*file).read_pass();
    EXPECT_EQ("0123456789", read(*file, 10));
    EXPECT_EQ((Calls{"seek 0", "write 10", "seek 0", "read 10", "read 0"}), disk->log());
    closed(file);
}

// Loaded bytes that a later call overwrote would be served, and written back over the newer ones.
TEST_F(NFileOrder, AWriteIntoTheWindowOfARunningLoadMakesItStale) {
    MemoryDevice* const device = newGatedDevice();
    disk->bytes = pattern(BLOCK);
    std::string wanted = disk->bytes;
    CNFile* const file = open(device);
    EXPECT_EQ("", read(*file, 10));
    std::thread worker([] { step(); });
    ASSERT_TRUE(gate.awaitArrivals(1));
    writeAt(*file, 5, "NEW");
    wanted.replace(5, 3, "NEW");
    gate.open();
    worker.join();
    EXPECT_EVENTUALLY(client->loads() == 1) << "the caller is told all the same";
    file->Seek(0, 0);
    EXPECT_EQ("", read(*file, 10)) << "and the load is made anew";
    drain();
    EXPECT_EQ(wanted.substr(0, 10), read(*file, 10));
    EXPECT_TRUE(wanted == closed(file));
}

TEST_F(NFileOrder, ALoadThatEndsBehindNewBytesNoLongerClaimsTheEndOfTheFile) {
    MemoryDevice* const device = newGatedDevice();
    disk->bytes = "0123456789";
    CNFile* const file = open(device);
    EXPECT_EQ("", read(*file, 100));
    std::thread worker([] { step(); });
    ASSERT_TRUE(gate.awaitArrivals(1));
    writeAt(*file, 3 * BLOCK, "end");
    gate.open();
    worker.join();
    file->Seek(0, 0);
    EXPECT_EQ(100u, load(*file, 100).size()) << "there are zeros now";
    EXPECT_FALSE(eof);
    closed(file);
}

TEST_F(NFileOrder, ABlockAtTheOldEndOfTheFileIsForgottenWhenTheFileGrowsBehindIt) {
    MemoryDevice* const device = newDevice();
    disk->bytes = "0123456789";
    CNFile* const file = open(device);
    EXPECT_EQ("0123456789", load(*file, 100));
    EXPECT_TRUE(eof);
    writeAt(*file, 3 * BLOCK, "end");
    file->Seek(0, 0);
    EXPECT_EQ(100u, load(*file, 100).size());
    EXPECT_FALSE(eof);
    closed(file);
}

TEST_F(NFileOrder, AWriteAtTheEndOfALoadedBlockContinuesIt) {
    MemoryDevice* const device = newDevice();
    disk->bytes = "0123456789";
    CNFile* const file = open(device);
    EXPECT_EQ("0123456789", load(*file, 100));
    EXPECT_EQ(3, write(*file, "abc"));
    file->Seek(0, 0);
    EXPECT_EQ("0123456789abc", load(*file, 100));
    EXPECT_TRUE(eof);
    EXPECT_EQ("0123456789abc", closed(file));
}

// ---- overlapping writes --------------------------------------------------------------------------------

TEST_F(NFileOrder, DistinctRangesGoToTheDeviceByOffset) {
    CNFile* const file = open(newDevice());
    writeAt(*file, 600000, "c");
    writeAt(*file, 0, "a");
    writeAt(*file, 300000, "b");
    closed(file);
    EXPECT_EQ((Calls{"seek 0", "write 1", "seek 300000", "write 1", "seek 600000", "write 1", "close"}),
              disk->log());
}

TEST_F(NFileOrder, OverlappingRangesGoToTheDeviceInTheOrderOfTheCalls) {
    CNFile* const file = open(newDevice());
    writeAt(*file, 5, "AAA");
    writeAt(*file, 0, "BBBBBBBBBB");
    EXPECT_EQ("BBBBBBBBBB", closed(file));
}

TEST_F(NFileOrder, EqualOffsetsGoToTheDeviceInTheOrderOfTheCalls) {
    CNFile* const file = open(newDevice());
    writeAt(*file, 300000, "X");
    writeAt(*file, 200000, "OLD");
    writeAt(*file, 0, "CCC");
    writeAt(*file, 200000, "NEW");
    EXPECT_EQ("NEW", closed(file).substr(200000, 3));
}

TEST_F(NFileOrder, ABufferThatAReadHadWrittenOutIsNotWrittenToAnyMore) {
    CNFile* const file = open(newDevice());
    EXPECT_EQ(10, write(*file, "0123456789"));
    EXPECT_EQ("", read(*file, 5));
    drain();  // writes the buffer out, resets it and loads the end of the file
    EXPECT_EQ(3, write(*file, "abc"));
    EXPECT_EQ("0123456789abc", closed(file));
}

TEST_F(NFileOrder, AReusedBufferIsNotTakenForTheOneOfTheLastWrite) {
    CNFile* const file = open(newDevice());
    file->SetBufferSize(1, 1);
    EXPECT_EQ(10, write(*file, "0123456789"));
    EXPECT_EQ("", read(*file, 5));
    EXPECT_EVENTUALLY(client->loads() == 1);
    drain();
    EXPECT_EQ("", read(*file, 5));
    drain();
    EXPECT_EQ(3, write(*file, "abc"));
    EXPECT_EQ("0123456789abc", closed(file));
}

// ---- what is submitted while a pass runs ---------------------------------------------------------------

TEST_F(NFileOrder, ABlockThatTheRunningPassDidNotSeeIsWrittenByItAllTheSame) {
    CNFile* const file = open(newGatedDevice());
    const std::string bytes = pattern(2 * BLOCK);
    EXPECT_EQ(static_cast<int>(BLOCK), file->Write(bytes.data(), BLOCK));
    std::thread worker([] { step(); });
    ASSERT_TRUE(gate.awaitArrivals(1));
    EXPECT_EQ(static_cast<int>(BLOCK), file->Write(bytes.data() + BLOCK, BLOCK));
    EXPECT_FALSE(step()) << "nobody is woken for it";
    gate.open();
    worker.join();
    EXPECT_TRUE(bytes == disk->content()) << "without a further task";
    closed(file);
}

TEST_F(NFileOrder, AWriteTaskThatIsRefusedAndDroppedMakesTheRunningPassLookAgain) {
    CNFile* const file = open(newGatedDevice());
    const std::string bytes = pattern(2 * BLOCK);
    EXPECT_EQ(static_cast<int>(2 * BLOCK), write(*file, bytes));
    std::thread worker([] { step(); });
    ASSERT_TRUE(gate.awaitArrivals(1));
    EXPECT_TRUE(step());
    EXPECT_FALSE(step());
    EXPECT_EQ(1, file_tasks().Count(file)) << "the one that runs";
    gate.open();
    worker.join();
    EXPECT_TRUE(bytes == disk->content());
    closed(file);
}

TEST_F(NFileOrder, AWriterThatFindsNoRoomDuringAPassIsToldByItsEnd) {
    CNFile* const file = open(newGatedDevice());
    const std::string bytes = pattern(5 * BLOCK);
    EXPECT_EQ(static_cast<int>(BLOCK), file->Write(bytes.data(), BLOCK));
    std::thread worker([] { step(); });
    ASSERT_TRUE(gate.awaitArrivals(1));
    EXPECT_EQ(static_cast<int>(3 * BLOCK), write(*file, bytes.substr(BLOCK)));
    EXPECT_FALSE(step());
    EXPECT_EQ(0, client->rooms());
    gate.open();
    worker.join();
    EXPECT_EVENTUALLY(client->rooms() == 1);
    EXPECT_EQ(static_cast<int>(BLOCK), write(*file, bytes.substr(4 * BLOCK)));
    EXPECT_TRUE(bytes == closed(file));
}

TEST_F(NFileOrder, SeeksWhileTheDeviceIsBusyDoNotPileUpTasks) {
    CNFile* const file = open(newGatedDevice());
    EXPECT_EQ(1, write(*file, "x"));
    file->Seek(0, 0);
    std::thread worker([] { step(); });
    ASSERT_TRUE(gate.awaitArrivals(1));
    for (int i = 0; i < 1000; ++i) {
        file->Seek(i, 0);
    }
    EXPECT_LE(file_tasks().Count(file), 2);
    gate.open();
    worker.join();
    closed(file);
}

// ---- all buffers taken ---------------------------------------------------------------------------------

// Four blocks that were read and changed: nothing but the search for room ever writes them out.
class FourChangedBlocks : public NFileOrder {
protected:
    void SetUp() override {
        NFileOrder::SetUp();
        MemoryDevice* const device = newDevice();
        disk->bytes = pattern(8 * BLOCK);
        wanted = disk->bytes;
        file = open(device);
        for (unsigned i = 0; i < 4; ++i) {
            EXPECT_EQ(1u, load(*file, 1).size());
            EXPECT_EQ(3, write(*file, "NEW"));
            wanted.replace(i * BLOCK + 1, 3, "NEW");
            EXPECT_EQ(BLOCK - 4, read(*file, BLOCK - 4).size());
        }
        EXPECT_EQ(0, disk->writes);
    }
    std::string wanted;
    CNFile* file = nullptr;
};

TEST_F(FourChangedBlocks, ReadGoesOn) {
    EXPECT_EQ("", read(*file, 1));
    EXPECT_EVENTUALLY(client->loads() == 5) << "told at once to try again";
    drain();
    EXPECT_EQ(wanted.substr(4 * BLOCK, 1), load(*file, 1));
    EXPECT_TRUE(wanted == closed(file));
}

TEST_F(FourChangedBlocks, WriteGoesOn) {
    EXPECT_EQ(0, write(*file, "behind"));
    drain();
    EXPECT_EVENTUALLY(client->rooms() == 1);
    EXPECT_EQ(6, write(*file, "behind"));
    wanted.replace(4 * BLOCK, 6, "behind");
    EXPECT_TRUE(wanted == closed(file));
}

TEST_F(NFileOrder, AReadWithoutABufferIsToldAtOnceAndThenByTheEndOfThePass) {
    CNFile* const file = open(newGatedDevice());
    const std::string bytes = pattern(4 * BLOCK);
    EXPECT_EQ(static_cast<int>(4 * BLOCK), write(*file, bytes));
    std::thread worker([] { step(); });
    ASSERT_TRUE(gate.awaitArrivals(1));
    EXPECT_EQ("", read(*file, 10));
    EXPECT_EVENTUALLY(client->loads() == 1);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ("", read(*file, 10));
    }
    EXPECT_EQ(1, client->loads()) << "the message and the call do not chase each other";
    gate.open();
    worker.join();
    drain();
    EXPECT_EVENTUALLY(client->loads() == 2);
    EXPECT_EQ("", read(*file, 10));
    drain();
    EXPECT_EVENTUALLY(client->loads() == 3);
    EXPECT_EQ("", read(*file, 10));
    EXPECT_TRUE(eof);
    EXPECT_TRUE(bytes == closed(file));
}

// ---- other files ---------------------------------------------------------------------------------------

TEST_F(NFileOrder, TheEndOfOneFileDoesNotTakeTheBlocksOfOthers) {
    CNFile* const first = open(newDevice());
    const auto first_disk = disk;
    CNFile* const second = open(newDevice());
    EXPECT_EQ(3, write(*first, "abc"));
    first->Close();
    drain();
    EXPECT_EVENTUALLY(first_disk->closes == 1);
    const std::string bytes = pattern(5 * BLOCK);
    EXPECT_EQ(static_cast<int>(4 * BLOCK), write(*second, bytes));
    drain();
    EXPECT_EQ(static_cast<int>(BLOCK), second->Write(bytes.data() + 4 * BLOCK, BLOCK));
    EXPECT_TRUE(bytes == closed(second));
}

}  // namespace
}  // namespace Orvex::Reticor
