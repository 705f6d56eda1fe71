// CNFile::SetReadAhead: blocks that were loaded before they are asked for, and what ends that.
#include <Reticor/NFile.h>

#include "support/file/FileWorld.h"

namespace Orvex::Reticor {
namespace {

using Testing::BLOCK;
using Testing::MemoryDevice;
using Testing::pattern;
using Testing::StillFileFixture;

using Calls = std::vector<std::string>;

class ReadAhead : public StillFileFixture {
protected:
    CNFile* openAhead(const std::string& bytes, unsigned buffers = 4) {
        device = newDevice();
        disk->bytes = bytes;
        CNFile* const file = open(device);
        file->SetBufferSize(BLOCK, buffers);
        file->SetReadAhead(true);
        return file;
    }
    // What one call of Read gives.
    std::string read(CNFile& file, unsigned len) {
        std::string bytes(len, '\0');
        bytes.resize(static_cast<std::size_t>(file.Read(bytes.data(), len, eof)));
        return bytes;
    }
    // What calls of Read give together, with all tasks run after each; 20 calls at most.
    std::string readOn(CNFile& file, unsigned len) {
        std::string bytes;
        for (int i = 0; i < 20 && bytes.size() < len; ++i) {
            bytes += read(file, len - static_cast<unsigned>(bytes.size()));
            drain();
        }
        return bytes;
    }
    int write(CNFile& file, const std::string& bytes) {
        return file.Write(bytes.data(), static_cast<unsigned>(bytes.size()));
    }
    // The places that were read, by block.
    std::vector<long long> blocksLoaded() {
        std::vector<long long> blocks;
        for (const std::string& call : disk->log()) {
            if (call.compare(0, 5, "seek ") == 0) {
                blocks.push_back(std::stoll(call.substr(5)) / BLOCK);
            }
        }
        return blocks;
    }
    // Runs all tasks. Result: their number.
    static int tasks() {
        int count = 0;
        while (step()) {
            ++count;
        }
        return count;
    }

    // Runs `calls` while a call of the device is under way: on a thread of their own, which a caller is.
    template <typename Calls>
    static void beside(Calls calls) {
        std::thread caller(calls);
        caller.join();
    }

    MemoryDevice* device = nullptr;
    bool eof = false;
};

// ---- reading on ----------------------------------------------------------------------------------------

TEST_F(ReadAhead, OneTaskLoadsAllBuffersAndReadsGoOnWithoutAMessage) {
    const std::string bytes = pattern(8 * BLOCK);
    CNFile* const file = openAhead(bytes);
    EXPECT_EQ("", read(*file, 10));
    EXPECT_EQ(1, tasks());
    EXPECT_EQ((std::vector<long long>{0, 1, 2, 3}), blocksLoaded());
    EXPECT_TRUE(bytes.substr(0, 4 * BLOCK) == read(*file, 4 * BLOCK)) << "across all of them";
    EXPECT_FALSE(eof);
    EXPECT_EVENTUALLY(client->loads() == 1);
    closed(file);
    EXPECT_EQ(1, client->loads());
}

TEST_F(ReadAhead, AWorkerIsAskedWhenHalfOfTheBuffersAreUsedUp) {
    const std::string bytes = pattern(64 * BLOCK);
    CNFile* const file = openAhead(bytes, 16);
    EXPECT_EQ("", read(*file, 1));
    EXPECT_EQ(1, tasks());
    int asked = 0;
    for (unsigned block = 0; block < 48; ++block) {
        ASSERT_TRUE(bytes.substr(block * BLOCK, BLOCK) == read(*file, BLOCK)) << block;
        asked += tasks();
    }
    EXPECT_EQ(5, asked) << "once for eight blocks";
    EXPECT_EVENTUALLY(client->loads() == 1);
    EXPECT_EQ(16u, NFileProbe::buffers(*file));
    closed(file);
    EXPECT_EQ(1, client->loads());
}

TEST_F(ReadAhead, AReadThatComesToALoadUnderWayWaitsForThatOne) {
    const std::string bytes = pattern(3 * BLOCK);
    CNFile* const file = openAhead(bytes, 2);
    std::string got;
    device->on_read = [&](unsigned) {
        if (disk->reads == 1) {  // the second block, which nobody waits for yet
            beside([&] { got = read(*file, 2 * BLOCK); });
        }
        return MemoryDevice::LET_BE;
    };
    EXPECT_EQ("", read(*file, 1));
    drain();
    EXPECT_TRUE(bytes.substr(0, BLOCK) == got);
    EXPECT_EVENTUALLY(client->loads() == 2);
    EXPECT_TRUE(bytes.substr(BLOCK, BLOCK) == read(*file, BLOCK));
    drain();
    EXPECT_EQ((std::vector<long long>{0, 1, 2}), blocksLoaded()) << "none twice";
    closed(file);
}

TEST_F(ReadAhead, TheEndOfTheFileComesWithItsLastBytesAndNothingIsReadAfterIt) {
    const std::string bytes = pattern(BLOCK + 10);
    CNFile* const file = openAhead(bytes);
    read(*file, 1);
    drain();
    EXPECT_EQ((Calls{"seek 0", "read 131072", "seek 131072", "read 10", "read 0"}), disk->log());
    EXPECT_TRUE(bytes == read(*file, 2 * BLOCK));
    EXPECT_TRUE(eof);
    EXPECT_EQ("", read(*file, 1)) << "an empty block, as without";
    EXPECT_FALSE(eof);
    drain();
    EXPECT_EQ("", read(*file, 1));
    EXPECT_TRUE(eof);
    EXPECT_EVENTUALLY(client->loads() == 2);
    EXPECT_EQ(std::to_string(bytes.size()), disk->log()[5].substr(5));
    EXPECT_EQ(7u, disk->log().size());
    closed(file);
}

TEST_F(ReadAhead, AFileOfWholeBlocksEndsWithAnEmptyOneThatWasReadAhead) {
    const std::string bytes = pattern(2 * BLOCK);
    CNFile* const file = openAhead(bytes);
    read(*file, 1);
    drain();
    EXPECT_TRUE(bytes == read(*file, 2 * BLOCK));
    EXPECT_FALSE(eof);
    EXPECT_EQ("", read(*file, 1));
    EXPECT_TRUE(eof);
    EXPECT_EVENTUALLY(client->loads() == 1);
    closed(file);
}

TEST_F(ReadAhead, IsOffAtTheStartAndGoesOffAgain) {
    const std::string bytes = pattern(8 * BLOCK);
    CNFile* const file = openAhead(bytes);
    read(*file, 1);
    file->SetReadAhead(false);
    drain();
    EXPECT_EQ(std::vector<long long>{0}, blocksLoaded()) << "what was not begun is given up";
    EXPECT_TRUE(bytes.substr(0, BLOCK) == read(*file, BLOCK));
    EXPECT_EQ("", read(*file, 1));
    drain();
    EXPECT_EQ((std::vector<long long>{0, 1}), blocksLoaded());
    file->SetReadAhead(true);
    EXPECT_EQ(1u, read(*file, 1).size());
    drain();
    EXPECT_EQ((std::vector<long long>{0, 1, 2, 3, 4}), blocksLoaded());
    EXPECT_TRUE(bytes.substr(BLOCK + 1, 3 * BLOCK) == read(*file, 3 * BLOCK));
    closed(file);
}

// ---- seeking -------------------------------------------------------------------------------------------

TEST_F(ReadAhead, SeekGivesUpWhatWasNotBegunAndSingleReadsCauseNoOthers) {
    const std::string bytes = pattern(64 * BLOCK);
    CNFile* const file = openAhead(bytes);
    read(*file, 1);
    EXPECT_EQ(0, file->Seek(40 * BLOCK, 0));
    drain();
    EXPECT_EQ(std::vector<long long>{0}, blocksLoaded());
    for (const unsigned block : {40u, 20u, 30u, 10u}) {
        EXPECT_EQ(0, file->Seek(block * BLOCK + 5LL, 0));
        read(*file, 4096);
        drain();
        EXPECT_EQ(bytes.substr(block * BLOCK + 5, 4096), read(*file, 4096));
        drain();
    }
    EXPECT_EQ((std::vector<long long>{0, 40, 20, 30, 10}), blocksLoaded());
    closed(file);
}

TEST_F(ReadAhead, AfterSeekItBeginsAnewWithTheSecondBlock) {
    const std::string bytes = pattern(64 * BLOCK);
    CNFile* const file = openAhead(bytes);
    EXPECT_EQ(0, file->Seek(40 * BLOCK, 0));
    read(*file, 1);
    drain();
    EXPECT_TRUE(bytes.substr(40 * BLOCK, BLOCK) == read(*file, BLOCK + 1));
    drain();
    EXPECT_EQ((std::vector<long long>{40, 41, 42, 43, 44}), blocksLoaded());
    EXPECT_TRUE(bytes.substr(41 * BLOCK, 4 * BLOCK) == read(*file, 4 * BLOCK));
    closed(file);
}

TEST_F(ReadAhead, ASeekIntoWhatIsBeingReadAheadLosesAndDoublesNothing) {
    const std::string bytes = pattern(8 * BLOCK);
    CNFile* const file = openAhead(bytes);
    device->on_read = [&](unsigned) {
        if (disk->reads == 1) {  // the load of the second block
            beside([&] {
                EXPECT_EQ(0, file->Seek(BLOCK + BLOCK / 2, 0));
                EXPECT_EQ("", read(*file, 1));
            });
        }
        return MemoryDevice::LET_BE;
    };
    read(*file, 1);
    drain();
    EXPECT_TRUE(bytes.substr(BLOCK + BLOCK / 2, BLOCK / 2) == read(*file, BLOCK / 2));
    EXPECT_EQ((std::vector<long long>{0, 1}), blocksLoaded());
    EXPECT_EQ(0, file->Seek(BLOCK / 2, 0));
    EXPECT_TRUE(bytes.substr(BLOCK / 2, BLOCK) == read(*file, BLOCK)) << "both stayed";
    closed(file);
}

// ---- writing -------------------------------------------------------------------------------------------

TEST_F(ReadAhead, WhatIsWrittenIntoABlockThatWasReadAheadIsReadBack) {
    std::string bytes = pattern(4 * BLOCK);
    CNFile* const file = openAhead(bytes);
    read(*file, 1);
    drain();
    EXPECT_EQ(0, file->Seek(2 * BLOCK - 3, 0));
    EXPECT_EQ(6, write(*file, "abcdef"));
    bytes.replace(2 * BLOCK - 3, 6, "abcdef");
    EXPECT_EQ(0, file->Seek(0, 0));
    EXPECT_TRUE(bytes == readOn(*file, 4 * BLOCK));
    EXPECT_TRUE(bytes == closed(file));
}

TEST_F(ReadAhead, AWriteBesideALoadOfItsPlaceMakesThatOneStale) {
    std::string bytes = pattern(4 * BLOCK);
    CNFile* const file = openAhead(bytes);
    bool written = false;
    device->on_read = [&](unsigned) {
        if (!written && disk->reads == 1) {
            written = true;
            beside([&] {
                EXPECT_EQ(0, file->Seek(BLOCK + 7, 0));
                EXPECT_EQ(3, write(*file, "abc"));
            });
        }
        return MemoryDevice::LET_BE;
    };
    read(*file, 1);
    drain();
    ASSERT_TRUE(written);
    bytes.replace(BLOCK + 7, 3, "abc");
    EXPECT_EQ(0, file->Seek(0, 0));
    EXPECT_TRUE(bytes == readOn(*file, 4 * BLOCK));
    EXPECT_TRUE(bytes == closed(file));
}

// A pass collects what is to be written and loads after it. What comes in between waits for the next round.
TEST_F(ReadAhead, ALoadNeverOvertakesBytesThatWereWrittenBeforeItWasAsked) {
    std::string bytes = pattern(8 * BLOCK);
    CNFile* const file = openAhead(bytes);
    bool written = false;
    device->on_read = [&](unsigned) {
        if (!written && disk->reads == 3) {  // while the fourth block is loaded
            written = true;
            beside([&] {
                EXPECT_EQ(0, file->Seek(5 * BLOCK + 1, 0));
                EXPECT_EQ(3, write(*file, "abc"));
                EXPECT_EQ(0, file->Seek(0, 0));
                const std::string got = read(*file, 4 * BLOCK);
                EXPECT_TRUE(bytes.substr(0, got.size()) == got);
            });
        }
        return MemoryDevice::LET_BE;
    };
    read(*file, 1);
    drain();
    ASSERT_TRUE(written);
    bytes.replace(5 * BLOCK + 1, 3, "abc");
    EXPECT_EQ(0, file->Seek(0, 0));
    std::string got;
    for (int i = 0; i < 30 && got.size() < bytes.size(); ++i) {
        got += read(*file, 8 * BLOCK - static_cast<unsigned>(got.size()));
        drain();
    }
    EXPECT_TRUE(bytes == got);
    closed(file);
}

TEST_F(ReadAhead, AWriteFindsABufferAlthoughAllOthersAreToBeLoaded) {
    CNFile* const file = openAhead(pattern(8 * BLOCK), 2);
    EXPECT_EQ("", read(*file, 1));
    EXPECT_EQ(3, write(*file, "abc")) << "the one that nobody waits for is given up";
    drain();
    EXPECT_EQ(0, client->rooms());
    EXPECT_EQ("abc", closed(file).substr(0, 3));
}

// ---- failures ------------------------------------------------------------------------------------------

TEST_F(ReadAhead, AFailureThatNobodyWaitsForIsToldByNothingAndTheReadAsksAgain) {
    const std::string bytes = pattern(8 * BLOCK);
    CNFile* const file = openAhead(bytes);
    int failures = 1;
    device->on_read = [&](unsigned) {
        return disk->reads == 2 && failures-- > 0 ? -1 : MemoryDevice::LET_BE;  // the third block
    };
    read(*file, 1);
    drain();
    EXPECT_EQ((std::vector<long long>{0, 1, 2}), blocksLoaded()) << "nothing after the failure";
    EXPECT_TRUE(bytes.substr(0, 2 * BLOCK) == read(*file, 8 * BLOCK));
    drain();
    EXPECT_TRUE(bytes.substr(2 * BLOCK, BLOCK) == read(*file, BLOCK));
    EXPECT_EVENTUALLY(client->loads() == 2);
    EXPECT_EQ(0, client->errors());
    closed(file);
    EXPECT_EQ(0, client->errors());
}

TEST_F(ReadAhead, AFailureAtThePlaceOfAReadIsMessage8AndReadGives0ForEver) {
    const std::string bytes = pattern(8 * BLOCK);
    CNFile* const file = openAhead(bytes);
    device->on_read = [&](unsigned) { return disk->reads >= 2 ? -1 : MemoryDevice::LET_BE; };
    read(*file, 1);
    drain();
    EXPECT_EQ(0, client->errors());
    EXPECT_TRUE(bytes.substr(0, 2 * BLOCK) == read(*file, 8 * BLOCK));
    drain();
    EXPECT_EVENTUALLY(client->errors() == 1);
    device->on_read = nullptr;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ("", read(*file, 1));
        drain();
    }
    EXPECT_EQ(1, client->errors());
    EXPECT_EQ(0, file->SetBufferSize(BLOCK, 3)) << "ends that";
    EXPECT_EQ("", read(*file, BLOCK));
    drain();
    EXPECT_TRUE(bytes.substr(2 * BLOCK, BLOCK) == read(*file, BLOCK));
    closed(file);
}

TEST_F(ReadAhead, AFailureUnderAReadThatHasComeMeanwhileIsMessage8) {
    CNFile* const file = openAhead(pattern(8 * BLOCK));
    device->on_read = [&](unsigned) {
        if (disk->reads != 1) {
            return MemoryDevice::LET_BE;
        }
        beside([&] { EXPECT_EQ(BLOCK, read(*file, 2 * BLOCK).size()); });
        return -1;
    };
    read(*file, 1);
    drain();
    EXPECT_EVENTUALLY(client->errors() == 1);
    EXPECT_EQ("", read(*file, 1));
    EXPECT_EQ((std::vector<long long>{0, 1}), blocksLoaded());
    closed(file);
    EXPECT_EQ(1, client->errors());
}

TEST_F(ReadAhead, ADeviceThatCannotSeekIsReadAheadInOrder) {
    const std::string bytes = pattern(8 * BLOCK);
    CNFile* const file = openAhead(bytes);
    device->on_seek = [](long long) { return -1; };
    read(*file, 1);
    for (unsigned block = 0; block < 8; ++block) {
        drain();
        ASSERT_TRUE(bytes.substr(block * BLOCK, BLOCK) == read(*file, BLOCK)) << block;
    }
    EXPECT_EQ(0, client->errors());
    closed(file);
}

// ---- the end, and what it has no effect on -------------------------------------------------------------

TEST_F(ReadAhead, CloseReadsNothingMore) {
    CNFile* const file = openAhead(pattern(8 * BLOCK));
    read(*file, 1);
    closed(file);
    EXPECT_EQ((Calls{"seek 0", "read 131072", "close"}), disk->log()) << "but what a Read waited for";
}

TEST_F(ReadAhead, ACloseBesideALoadLetsThatOneEnd) {
    CNFile* const file = openAhead(pattern(8 * BLOCK));
    device->on_read = [&](unsigned) {
        if (disk->reads == 1) {
            beside([&] { file->Close(); });
        }
        return MemoryDevice::LET_BE;
    };
    read(*file, 1);
    drain();
    EXPECT_EVENTUALLY(disk->closes == 1);
    EXPECT_EQ((Calls{"seek 0", "read 131072", "seek 131072", "read 131072", "close"}), disk->log());
}

TEST_F(ReadAhead, StaysOnWhenTheBuffersAreReplacedAndDoesNothingWithOne) {
    const std::string bytes = pattern(8 * BLOCK);
    CNFile* const file = openAhead(bytes);
    read(*file, 1);
    EXPECT_EQ(0, file->SetBufferSize(BLOCK, 1));
    read(*file, 1);
    drain();
    EXPECT_EQ(std::vector<long long>{0}, blocksLoaded());
    EXPECT_EQ(0, file->SetBufferSize(BLOCK, 3));
    read(*file, 1);
    drain();
    EXPECT_EQ((std::vector<long long>{0, 0, 1, 2}), blocksLoaded());
    EXPECT_TRUE(bytes.substr(0, 3 * BLOCK) == read(*file, 3 * BLOCK));
    closed(file);
}

TEST_F(ReadAhead, WithoutBuffersTheDeviceIsCalledAsEver) {
    device = newDevice();
    device->needs_aio = false;
    disk->bytes = "0123456789";
    CNFile* const file = open(device);
    file->SetReadAhead(true);
    EXPECT_EQ("0123", read(*file, 4));
    EXPECT_EQ("456789", read(*file, 7));
    EXPECT_TRUE(eof);
    file->Close();
    EXPECT_EQ((Calls{"read 4", "read 6", "read 0", "close"}), disk->log());
}

TEST_F(ReadAhead, AtTheHighestPositionsThereIsNone) {
    CNFile* const file = openAhead("");
    EXPECT_EQ(0, file->Seek(LLONG_MAX - BLOCK, 0));
    file->SetReadAhead(true);
    read(*file, 1);
    drain();
    EXPECT_EQ("", read(*file, 1));
    EXPECT_TRUE(eof);
    closed(file);
}

// With real workers: the last teardown while a block is being read ahead.
TEST(ReadAheadAtTheEnd, TeardownLetsTheCallOfTheDeviceEndAndClosesTheFile) {
    ASSERT_EQ(0, CNetThread::CreateThreadPool(1, true));
    auto client = std::make_unique<Testing::FileClient>();
    const auto disk = std::make_shared<Testing::DeviceLife>();
    disk->bytes = pattern(8 * BLOCK);
    auto* const device = new MemoryDevice(disk);
    Testing::Gate gate;
    device->on_read = [&](unsigned) {
        if (disk->reads == 1) {
            gate.pass();
        }
        return MemoryDevice::LET_BE;
    };
    CNFile* const file = CNFile::Open(client->id, "in memory", "r", device);
    ASSERT_NE(nullptr, file);
    file->SetReadAhead(true);
    char byte = 0;
    bool eof = false;
    EXPECT_EQ(0, file->Read(&byte, 1, eof));
    EXPECT_TRUE(gate.awaitArrivals(1));
    client.reset();
    std::thread teardown([] { EXPECT_EQ(0, CNetThread::DestroyThreadPool()); });
    EXPECT_TRUE(Testing::eventually([] { return g_file_threads_stop.load(); }));
    gate.open();
    teardown.join();
    EXPECT_EQ(1, disk->closes);
    EXPECT_EQ(2, disk->reads);
    file->Close();
}

}  // namespace
}  // namespace Orvex::Reticor
