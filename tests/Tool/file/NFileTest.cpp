// CNFile: its calls and messages, as a caller sees them.
#include <Reticor/NFile.h>

#include "support/ObjectFigures.h"
#include "support/file/FileWorld.h"

namespace Orvex::Reticor {
namespace {

using Testing::BLOCK;
using Testing::contentOf;
using Testing::FileFixture;
using Testing::MemoryDevice;
using Testing::pattern;
using Testing::StillFileFixture;
using Testing::TempFolder;

using Calls = std::vector<std::string>;

class NFile : public StillFileFixture {
protected:
    CNFile* openWith(const std::string& bytes) {
        MemoryDevice* const device = newDevice();
        disk->bytes = bytes;
        return open(device);
    }
    // What one call of Read gives.
    std::string read(CNFile& file, unsigned len, bool& eof) {
        std::string bytes(len, '\0');
        bytes.resize(static_cast<std::size_t>(file.Read(bytes.data(), len, eof)));
        return bytes;
    }
    int write(CNFile& file, const std::string& bytes) {
        return file.Write(bytes.data(), static_cast<unsigned>(bytes.size()));
    }
};

// ---- opening -------------------------------------------------------------------------------------------

TEST_F(NFile, OpensTheDeviceAsksItAndHasFourBuffers) {
    CNFile* const file = openWith("0123456789");
    EXPECT_EQ(1, disk->opens);
    EXPECT_EQ(1, disk->stats);
    EXPECT_EQ(4u, NFileProbe::buffers(*file));
    EXPECT_EQ("0123456789", closed(file));
    EXPECT_EQ(Calls{"close"}, disk->log()) << "the last call of all";
}

TEST_F(NFile, ADeviceThatDoesNotOpenGetsCloseAndThereIsNoFile) {
    MemoryDevice* const device = newDevice();
    device->open_fails = true;
    EXPECT_EQ(nullptr, CNFile::Open(client->id, "x", "r", device));
    EXPECT_EQ(1, disk->closes);
    EXPECT_EQ(0, disk->finishes);
    EXPECT_EQ(0, disk->stats);
}

TEST_F(NFile, APathThatCannotBeOpenedGivesNull) {
    Testing::LogCapture log;
    EXPECT_EQ(nullptr, CNFile::Open(client->id, "/nowhere/at/all", "w", nullptr));
    EXPECT_TRUE(log.contains(2, "open file failed! No such file or directory\n")) << log.dump();
    EXPECT_EQ(nullptr, CNFile::Open(client->id, "/tmp", "w", nullptr));
    EXPECT_TRUE(log.contains(2, "open file failed! Is a directory\n")) << log.dump();
    EXPECT_EQ(nullptr, CNFile::Open(client->id, "/tmp", "r", new CPosixStorDev));
    EXPECT_EQ(nullptr, CNFile::Open(client->id, nullptr, nullptr, nullptr));
}

TEST_F(NFile, WithoutADeviceItMakesTheDefaultOne) {
    TempFolder folder;
    CNFile* const file = CNFile::Open(client->id, folder.file("a").c_str(), "w", nullptr);
    ASSERT_NE(nullptr, file);
    EXPECT_EQ(3, write(*file, "abc"));
    file->Close();
    drain();
    EXPECT_EQ("abc", contentOf(folder.file("a")));
}

TEST_F(NFile, SetBufferSizeCountsBuffersAndIgnoresTheSize) {
    CNFile* const file = openWith("");
    EXPECT_EQ(0, file->SetBufferSize(65536, 8));
    EXPECT_EQ(8u, NFileProbe::buffers(*file));
    EXPECT_EQ(BLOCK, NFileProbe::slots(*file).at(7).m_buf_size);
    EXPECT_EQ(0, file->SetBufferSize(0, 8));
    EXPECT_EQ(4u, NFileProbe::buffers(*file));
    EXPECT_EQ(0, file->SetBufferSize(65536, 1));
    EXPECT_EQ(1u, NFileProbe::buffers(*file));
    EXPECT_EQ(0, file->SetBufferSize(65536, 0));
    EXPECT_EQ(4u, NFileProbe::buffers(*file));
    closed(file);
}

TEST_F(NFile, SetBufferSizeWithTheSameCountChangesNothing) {
    CNFile* const file = openWith("");
    EXPECT_EQ(3, write(*file, "abc"));
    EXPECT_EQ(0, file->SetBufferSize(1, 4));
    EXPECT_EQ("abc", closed(file));
}

// ---- arguments -----------------------------------------------------------------------------------------

TEST_F(NFile, NullAndEmptyArgumentsGive0AndMessage8OnceEach) {
    CNFile* const file = openWith("");
    bool eof = true;
    char byte = 0;
    EXPECT_EQ(0, file->Write(nullptr, 5));
    EXPECT_EQ(0, file->Write(&byte, 0));
    EXPECT_EQ(0, file->Read(nullptr, 5, eof));
    EXPECT_EQ(0, file->Read(&byte, 0, eof));
    EXPECT_TRUE(eof) << "untouched";
    EXPECT_EVENTUALLY(client->errors() == 4);
    closed(file);
    EXPECT_EQ(4, client->errors());
}

// ---- writing -------------------------------------------------------------------------------------------

TEST_F(NFile, AFullBlockGoesToTheDeviceAndAFurtherByteStaysUntilClose) {
    CNFile* const file = openWith("");
    const std::string bytes = pattern(BLOCK + 1);
    EXPECT_EQ(static_cast<int>(BLOCK), file->Write(bytes.data(), BLOCK));
    EXPECT_EQ(1, file->Write(bytes.data() + BLOCK, 1));
    EXPECT_EQ(0u, disk->size()) << "nobody has done anything yet";
    EXPECT_TRUE(step());
    EXPECT_FALSE(step());
    EXPECT_TRUE(bytes.substr(0, BLOCK) == disk->content());
    EXPECT_TRUE(bytes == closed(file));
    EXPECT_EQ((Calls{"seek 0", "write 131072", "seek 131072", "write 1", "close"}), disk->log());
    EXPECT_EQ(0, client->rooms()) << "nobody had to wait";
}

TEST_F(NFile, SeekWritesOutWhatWasPartlyFilled) {
    CNFile* const file = openWith("");
    EXPECT_EQ(3, write(*file, "abc"));
    EXPECT_EQ(0, file->Seek(10, 0));
    drain();
    EXPECT_EQ("abc", disk->content());
    EXPECT_EQ(2, write(*file, "de"));
    EXPECT_EQ(std::string("abc\0\0\0\0\0\0\0de", 12), closed(file));
}

TEST_F(NFile, WhenAllBuffersAreAtTheDiskWriteGivesAShortCountThen0UntilMessage6) {
    CNFile* const file = openWith("");
    const std::string bytes = pattern(6 * BLOCK);
    EXPECT_EQ(static_cast<int>(4 * BLOCK), write(*file, bytes));
    EXPECT_EQ(0, file->Write(bytes.data(), 1));
    EXPECT_EQ(0, file->Write(nullptr, 1)) << "not even looked at";
    EXPECT_EQ(0, client->rooms());
    drain();
    EXPECT_EVENTUALLY(client->rooms() == 1);
    EXPECT_EQ(0, client->errors());
    EXPECT_EQ(static_cast<int>(2 * BLOCK), file->Write(bytes.data() + 4 * BLOCK, 2 * BLOCK));
    EXPECT_TRUE(bytes == closed(file));
    EXPECT_EQ(1, client->rooms());
}

TEST_F(NFile, ManySmallWritesAreFewOrderedWritesOfTheDevice) {
    CNFile* const file = openWith("");
    const std::string bytes = pattern(2 * BLOCK);
    for (unsigned i = 0; i < bytes.size(); i += 4096) {
        ASSERT_EQ(4096, file->Write(bytes.data() + i, 4096));
    }
    EXPECT_TRUE(bytes == closed(file));
    EXPECT_EQ((Calls{"seek 0", "write 131072", "seek 131072", "write 131072", "close"}), disk->log());
}

TEST_F(NFile, OverwritesInTheMiddleOfAFile) {
    CNFile* const file = openWith("0123456789");
    EXPECT_EQ(0, file->Seek(2, 0));
    EXPECT_EQ(3, write(*file, "abc"));
    EXPECT_EQ(0, file->Seek(-2, 1));
    EXPECT_EQ(3, NFileProbe::offset(*file));
    EXPECT_EQ(1, write(*file, "X"));
    EXPECT_EQ("01aXc56789", closed(file));
}

// ---- reading -------------------------------------------------------------------------------------------

TEST_F(NFile, ReadingAShortFileTakesALoadAndThenGivesItsBytesWithEof) {
    CNFile* const file = openWith("0123456789");
    bool eof = true;
    EXPECT_EQ("", read(*file, 100, eof));
    EXPECT_FALSE(eof);
    eof = true;
    EXPECT_EQ("", read(*file, 100, eof));
    EXPECT_TRUE(eof) << "untouched while message 7 is owed";
    drain();
    EXPECT_EVENTUALLY(client->loads() == 1);
    EXPECT_EQ("0123456789", read(*file, 100, eof));
    EXPECT_TRUE(eof);
    eof = false;
    EXPECT_EQ("", read(*file, 100, eof)) << "at the end there is an empty block to be loaded first";
    EXPECT_FALSE(eof);
    drain();
    EXPECT_EVENTUALLY(client->loads() == 2);
    EXPECT_EQ("", read(*file, 100, eof));
    EXPECT_TRUE(eof);
    EXPECT_EQ("", read(*file, 100, eof)) << "and stays";
    EXPECT_TRUE(eof);
    closed(file);
    EXPECT_EQ((Calls{"seek 0", "read 10", "read 0", "seek 10", "read 0", "close"}), disk->log());
}

TEST_F(NFile, AMissLoadsTheBlockThatStartsAtThePositionAndNoMore) {
    const std::string bytes = pattern(4 * BLOCK);
    CNFile* const file = openWith(bytes);
    EXPECT_EQ(0, file->Seek(1000, 0));
    bool eof = false;
    EXPECT_EQ("", read(*file, 10, eof));
    drain();
    EXPECT_EQ(bytes.substr(1000, 10), read(*file, 10, eof));
    EXPECT_TRUE(bytes.substr(1010, BLOCK - 10) == read(*file, 2 * BLOCK, eof)) << "a short count";
    drain();
    EXPECT_EQ((Calls{"seek 1000", "read 131072", "seek 132072", "read 131072"}), disk->log());
    closed(file);
}

TEST_F(NFile, BlocksStayForLaterReadsUntilTheyAreEvictedInTurn) {
    CNFile* const file = openWith(pattern(8 * BLOCK));
    bool eof = false;
    auto load = [&](unsigned block) {
        file->Seek(static_cast<long long>(block) * BLOCK, 0);
        const int before = disk->reads;
        if (read(*file, 1, eof).empty()) {
            drain();
            EXPECT_EQ(1u, read(*file, 1, eof).size());
        }
        return disk->reads - before;
    };
    for (unsigned block : {0u, 1u, 2u, 3u}) {
        EXPECT_EQ(1, load(block));
    }
    EXPECT_EQ(0, load(0)) << "still there";
    EXPECT_EQ(1, load(4)) << "in place of block 0";
    EXPECT_EQ(0, load(1));
    EXPECT_EQ(1, load(0)) << "in place of block 1";
    EXPECT_EQ(0, load(2));
    EXPECT_EQ(1, load(1));
    closed(file);
}

TEST_F(NFile, ReadsBackWhatWasWrittenButIsNotOnTheDisk) {
    CNFile* const file = openWith("");
    EXPECT_EQ(10, write(*file, "0123456789"));
    EXPECT_EQ(0, file->Seek(0, 0));
    bool eof = false;
    EXPECT_EQ("", read(*file, 10, eof)) << "Seek has given the buffer to the worker";
    drain();
    EXPECT_EQ("0123456789", read(*file, 10, eof));
    closed(file);
}

// ---- seeking -------------------------------------------------------------------------------------------

TEST_F(NFile, SeekKnowsTwoKindsOfOffsetAndNotTheEnd) {
    CNFile* const file = openWith("0123456789");
    EXPECT_EQ(0, file->Seek(7, 0));
    EXPECT_EQ(0, file->Seek(-3, 1));
    EXPECT_EQ(4, NFileProbe::offset(*file));
    EXPECT_EQ(0, file->Seek(0, 2));
    EXPECT_EQ(0, NFileProbe::offset(*file));
    EXPECT_EQ(0, file->Seek(5, 77));
    EXPECT_EQ(5, NFileProbe::offset(*file));
    closed(file);
    EXPECT_EQ(0, client->rooms()) << "nobody waited";
}

TEST_F(NFile, SeekOutsideTheNumbersOfAFileGivesMinus1AndChangesNothing) {
    CNFile* const file = openWith("");
    EXPECT_EQ(3, write(*file, "abc"));
    EXPECT_EQ(-1, file->Seek(-5, 0));
    EXPECT_EQ(-1, file->Seek(-4, 1));
    EXPECT_EQ(-1, file->Seek(LLONG_MAX, 1));
    EXPECT_EQ(-1, file->Seek(LLONG_MIN, 1));
    EXPECT_EQ(-1, file->Seek(LLONG_MAX - BLOCK + 1, 0));
    EXPECT_EQ(3, NFileProbe::offset(*file));
    EXPECT_EQ(3, write(*file, "def"));
    EXPECT_EQ("abcdef", closed(file));
}

TEST_F(NFile, NothingOverflowsAtTheLargestPosition) {
    MemoryDevice* const device = newDevice();
    device->on_write = [](unsigned) { return -1; };
    CNFile* const file = open(device);
    ASSERT_EQ(0, file->Seek(LLONG_MAX - BLOCK, 0));
    const std::string bytes(BLOCK + 1, 'x');
    EXPECT_EQ(static_cast<int>(BLOCK), file->Write(bytes.data(), BLOCK + 1));
    EXPECT_EQ(LLONG_MAX, NFileProbe::offset(*file));
    EXPECT_EQ(0, file->Write(bytes.data(), 1));
    EXPECT_EVENTUALLY(client->errors() >= 2);
    bool eof = false;
    EXPECT_EQ("", read(*file, 1, eof));
    EXPECT_TRUE(eof);
    EXPECT_EQ(0, file->SetBufferSize(1, 1)) << "drops what the device will never take";
    closed(file);
}

// ---- stat ----------------------------------------------------------------------------------------------

TEST_F(NFile, StatGivesWhatWasTrueWhenTheFileWasOpened) {
    CNFile* const file = openWith("0123456789");
    NFile_Info info;
    EXPECT_EQ(0, file->Stat(&info));
    EXPECT_EQ(10, info.size);
    EXPECT_EQ(1, info.time_create);
    EXPECT_EQ(2, info.time_access);
    EXPECT_EQ(3, info.time_write);
    EXPECT_STREQ("in memory", info.name);
    file->Seek(10, 0);
    write(*file, "more");
    file->Seek(0, 0);
    drain();
    EXPECT_EQ(0, file->Stat(&info));
    EXPECT_EQ(10, info.size);
    EXPECT_EQ(1, disk->stats) << "asked once";
    closed(file);
}

TEST_F(NFile, StatAsksAgainIfTheDeviceDidNotKnow) {
    MemoryDevice* const device = newDevice();
    device->stat_result = -7;
    CNFile* const file = open(device);
    NFile_Info info;
    EXPECT_EQ(-7, file->Stat(&info));
    device->stat_result = 0;
    EXPECT_EQ(0, file->Stat(&info));
    EXPECT_EQ(1, info.time_create);
    closed(file);
}

// ---- the end -------------------------------------------------------------------------------------------

TEST_F(NFile, TheDeviceIsFinishedOnceBeforeItsCloseAndSyncedOnDemand) {
    for (const bool buffered : {false, true}) {
        for (const bool sync : {false, true}) {
            MemoryDevice* const device = newDevice();
            device->needs_aio = buffered;
            CNFile* const file = open(device);
            file->SetSync(sync);
            EXPECT_EQ(3, write(*file, "abc"));
            EXPECT_EQ("abc", closed(file));
            EXPECT_EQ(1, disk->finishes);
            EXPECT_EQ(sync ? 1 : 0, disk->synced);
        }
    }
    EXPECT_EQ(0, client->errors());
}

TEST_F(NFile, ADeviceThatFailsAtItsEndIsToldByMessage8) {
    for (const bool buffered : {false, true}) {
        MemoryDevice* const device = newDevice();
        device->needs_aio = buffered;
        device->finish_result = -1;
        CNFile* const file = open(device);
        const int before = client->errors();
        closed(file);
        EXPECT_EVENTUALLY(client->errors() == before + 1);
    }
}

// ---- direct mode ---------------------------------------------------------------------------------------

TEST_F(NFile, ADeviceThatWantsNoWorkersIsCalledDirectly) {
    MemoryDevice* const device = newDevice();
    device->needs_aio = false;
    CNFile* const file = open(device);
    EXPECT_EQ(0u, NFileProbe::buffers(*file));
    EXPECT_EQ(0, file->SetBufferSize(65536, 8));
    EXPECT_EQ(0u, NFileProbe::buffers(*file));
    EXPECT_EQ(10, write(*file, "0123456789"));
    EXPECT_EQ("0123456789", disk->content());
    device->on_seek = [](long long offset) { return offset == 77 ? -9 : MemoryDevice::LET_BE; };
    EXPECT_EQ(-9, file->Seek(77, 0)) << "the device's result";
    EXPECT_EQ(0, file->Seek(4, 0));
    bool eof = false;
    EXPECT_EQ("45", read(*file, 2, eof));
    EXPECT_FALSE(eof);
    EXPECT_EQ("6789", read(*file, 100, eof));
    EXPECT_TRUE(eof);
    EXPECT_FALSE(step()) << "no worker has anything to do";
    file->Close();
    EXPECT_EQ(1, disk->closes) << "right away";
}

TEST_F(NFile, DirectCallsGiveWhatWasDoneWhenTheDeviceFails) {
    MemoryDevice* const device = newDevice();
    device->needs_aio = false;
    CNFile* const file = open(device);
    int calls = 0;
    int second = -1;
    device->on_write = [&](unsigned) { return ++calls == 1 ? 3 : second; };
    EXPECT_EQ(3, write(*file, "0123456789"));
    EXPECT_EVENTUALLY(client->errors() == 1);
    calls = 0;
    second = 0;
    EXPECT_EQ(3, write(*file, "0123456789"));
    calls = 0;
    second = 100;
    EXPECT_EQ(3, write(*file, "0123456789")) << "more than it was asked for is a failure";
    EXPECT_EVENTUALLY(client->errors() == 2) << "0 is none";
    device->Seek(0, 0);
    device->on_read = [](unsigned) { return -1; };
    bool eof = true;
    EXPECT_EQ("", read(*file, 10, eof));
    EXPECT_FALSE(eof);
    EXPECT_EVENTUALLY(client->errors() == 3);
    file->Close();
}

class NoFileThreads : public FileFixture {
protected:
    void SetUp() override {
        PoolFixture::SetUp();
        client = std::make_unique<Testing::FileClient>();
    }
};

TEST_F(NoFileThreads, EveryCallGoesStraightToTheDevice) {
    CNFile* const file = open(newDevice());
    EXPECT_EQ(0u, NFileProbe::buffers(*file));
    EXPECT_EQ(3, file->Write("abc", 3));
    EXPECT_EQ((Calls{"write 3"}), disk->log());
    EXPECT_EQ(0, file->Seek(1, 0));
    char out[10];
    bool eof = false;
    EXPECT_EQ(2, file->Read(out, 10, eof));
    EXPECT_TRUE(eof);
    file->Close();
    EXPECT_EQ((Calls{"write 3", "seek 1", "read 2", "read 0", "close"}), disk->log());
}

// ---- in snapshots ----------------------------------------------------------------------------------------

TEST_F(NFile, TellsWhatItsDeviceTookAndGave) {
    using Figures = std::map<std::string, uint64_t>;
    MemoryDevice* const device = newDevice();
    disk->bytes = "0123456789";
    bool fails = false;
    device->on_write = [&fails](unsigned) { return fails ? -1 : MemoryDevice::LET_BE; };
    CNFile* const file = open(device);
    const long id = file->GetID();
    EXPECT_EQ((Figures{{"written_bytes", 0}, {"read_bytes", 0}, {"device_errors", 0}}),
              Testing::figuresOf("file", id));
    bool eof = false;
    read(*file, 4, eof);
    drain();
    EXPECT_EQ(10U, Testing::figuresOf("file", id)["read_bytes"]) << "a whole buffer is loaded";
    EXPECT_EQ("0123", read(*file, 4, eof));
    file->Seek(10, 0);
    EXPECT_EQ(3, write(*file, "abc"));
    fails = true;
    file->Seek(0, 0);
    EXPECT_EQ(0U, Testing::figuresOf("file", id)["written_bytes"]) << "still in a buffer";
    step();
    EXPECT_EQ(1U, Testing::figuresOf("file", id)["device_errors"]);
    fails = false;
    EXPECT_EQ("0123456789abc", closed(file));
    EXPECT_EVENTUALLY(Testing::figuresOf("file", id).empty());
}

TEST_F(NoFileThreads, TellWhatWentToTheirDeviceWithoutBuffers) {
    CNFile* const file = open(newDevice());
    const long id = file->GetID();
    EXPECT_EQ(5, file->Write("hello", 5));
    file->Seek(0, 0);
    char bytes[3];
    bool eof = false;
    EXPECT_EQ(3, file->Read(bytes, 3, eof));
    EXPECT_EQ(5U, Testing::figuresOf("file", id)["written_bytes"]);
    EXPECT_EQ(3U, Testing::figuresOf("file", id)["read_bytes"]);
    closed(file);
}

}  // namespace
}  // namespace Orvex::Reticor
