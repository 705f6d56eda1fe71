// NFileEnd: what becomes of files at a full teardown.
#include "Tool/file/NFileEnd.h"

#include "support/LogCapture.h"
#include "support/file/FileWorld.h"

namespace Orvex::Reticor {
namespace {

using Testing::DeviceLife;
using Testing::FileClient;
using Testing::Gate;
using Testing::HandlerLife;
using Testing::LogCapture;
using Testing::MemoryDevice;
using Testing::TestHandler;

class FileEnd : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(0, CNetThread::CreateThreadPool(2, true)); }

    CNFile* open(const std::shared_ptr<DeviceLife>& life, std::function<int(unsigned)> on_write = nullptr,
                 bool needs_aio = true) {
        auto* const device = new MemoryDevice(life);
        device->on_write = std::move(on_write);
        device->needs_aio = needs_aio;
        return CNFile::Open(m_nobody, "", "r+", device);
    }
    std::shared_ptr<DeviceLife> disk = std::make_shared<DeviceLife>();

private:
    const long m_nobody = (-100L * 256) * 256;
};

TEST_F(FileEnd, AnOpenFileIsWrittenOutAndItsDeviceGetsClose) {
    CNFile* const file = open(disk);
    const std::string bytes = Testing::pattern(3 * Testing::BLOCK + 17);
    ASSERT_EQ(static_cast<int>(bytes.size()), file->Write(bytes.data(), static_cast<unsigned>(bytes.size())));
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    EXPECT_EQ(1, disk->closes);
    EXPECT_TRUE(bytes == disk->content());
    bool eof = false;
    char byte = 0;
    NFile_Info info;
    EXPECT_EQ(0, file->Write("x", 1));
    EXPECT_EQ(0, file->Read(&byte, 1, eof));
    EXPECT_EQ(-1, file->Seek(0, 0));
    EXPECT_EQ(0, file->Stat(&info));
    EXPECT_EQ(0, file->SetBufferSize(1, 8));
    file->Close();  // deletes it: a leak checker sees whether it does
}

TEST_F(FileEnd, AFileThatWasJustClosedIsWrittenOutAndDeleted) {
    for (int i = 0; i < 5; ++i) {
        const auto life = std::make_shared<DeviceLife>();
        CNFile* const file = open(life);
        const std::string bytes = Testing::pattern(Testing::BLOCK + 5);
        file->Write(bytes.data(), Testing::BLOCK + 5);
        file->Close();
        if (i == 4) {
            EXPECT_EQ(0, CNetThread::DestroyThreadPool());
            EXPECT_EQ(1, life->closes);
            EXPECT_TRUE(bytes == life->content());
        }
    }
}

TEST_F(FileEnd, AClosedFileOnAFailingDeviceIsTriedOnceMoreAndSaysSo) {
    LogCapture log;
    std::atomic<int> tries{0};
    CNFile* const file = open(disk, [&](unsigned) { return ++tries, -1; });
    file->Write("data", 4);
    file->Close();
    EXPECT_EVENTUALLY(tries >= 3);
    EXPECT_EQ(0, disk->closes);
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    EXPECT_EQ(1, disk->closes);
    EXPECT_EQ(1u, log.countMatching(2, "file data could not be written at the end! .*\n")) << log.dump();
}

TEST_F(FileEnd, ADeviceThatFailedOnlyBeforeTheEndLosesNothing) {
    std::atomic<bool> full{true};
    CNFile* const file = open(disk, [&](unsigned) { return full ? 0 : MemoryDevice::LET_BE; });
    file->Write("data", 4);
    file->Seek(0, 0);
    EXPECT_EVENTUALLY(disk->log().size() > 4);
    full = false;
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    EXPECT_EQ("data", disk->content());
    file->Close();
}

TEST_F(FileEnd, AFileWithoutBuffersStaysUsable) {
    CNFile* const file = open(disk, nullptr, false);
    EXPECT_EQ(3, file->Write("abc", 3));
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    EXPECT_EQ(0, disk->closes);
    EXPECT_EQ(3, file->Write("def", 3));
    EXPECT_EQ(0, file->Seek(0, 0));
    file->Close();
    EXPECT_EQ(1, disk->closes);
    EXPECT_EQ("abcdef", disk->content());
}

// The ids of the next life begin where those of this one did.
TEST_F(FileEnd, AFileThatIsClosedInTheNextLifeClosesNobodyElse) {
    CNFile* const file = open(disk);
    CNFile* const direct = open(std::make_shared<DeviceLife>(), nullptr, false);
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    std::vector<TestHandler*> handlers;
    for (int i = 0; i < 4; ++i) {
        handlers.push_back(new TestHandler);
    }
    file->Close();
    direct->Close();
    for (TestHandler* handler : handlers) {
        const std::shared_ptr<HandlerLife> life = handler->life;
        handler->Notify(handler->GetID(), 1, 0);
        EXPECT_EVENTUALLY(life->messages == 1) << "still reachable";
        handler->Close();
        EXPECT_EVENTUALLY(life->closes == 1);
    }
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

TEST_F(FileEnd, InTheNextLifeFilesWorkWithoutWorkersAndTheLogSaysSoOnce) {
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, true));
    LogCapture log;
    for (int i = 0; i < 2; ++i) {
        const auto life = std::make_shared<DeviceLife>();
        CNFile* const file = open(life);
        EXPECT_EQ(0u, NFileProbe::buffers(*file));
        EXPECT_EQ(3, file->Write("abc", 3));
        EXPECT_EQ("abc", life->content());
        file->Close();
        EXPECT_EQ(1, life->closes);
    }
    EXPECT_EQ(1u, log.count(2, "The file threads have been stopped, files call their devices directly!\n"));
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

// The pass of the closed file is cut short between two of its blocks.
TEST_F(FileEnd, AClosedFileWhosePassIsCutShortLosesNothing) {
    Gate gate;
    CNFile* const file = open(disk, [&](unsigned) { return gate.pass(), MemoryDevice::LET_BE; });
    const std::string bytes = Testing::pattern(4 * Testing::BLOCK);
    file->Write(bytes.data(), 4 * Testing::BLOCK);
    ASSERT_TRUE(gate.awaitArrivals(1));
    file->Close();
    std::thread ender([] { EXPECT_EQ(0, CNetThread::DestroyThreadPool()); });
    EXPECT_EVENTUALLY(g_file_threads_stop.load());
    gate.open();
    ender.join();
    EXPECT_EQ(1, disk->closes);
    EXPECT_TRUE(bytes == disk->content());
}

// A worker may be in a device while the pool goes: what it does afterwards must find no pool, and do no harm.
TEST_F(FileEnd, TheEndWaitsForTheDeviceCallThatIsRunning) {
    Gate gate;
    CNFile* const file = open(disk, [&](unsigned) { return gate.pass(), MemoryDevice::LET_BE; });
    file->Write("data", 4);
    file->Close();
    ASSERT_TRUE(gate.awaitArrivals(1));
    auto* const handler = new TestHandler;
    handler->NotifyIO(handler->GetID(), 5, 0);
    const std::shared_ptr<HandlerLife> life = handler->life;
    EXPECT_EVENTUALLY(life->messages == 1);
    handler->Close();
    EXPECT_EVENTUALLY(life->closes == 1);
    std::thread ender([] { EXPECT_EQ(0, CNetThread::DestroyThreadPool()); });
    EXPECT_EVENTUALLY(PoolTable::Get(0) == nullptr);
    gate.open();
    ender.join();
    EXPECT_EQ(1, disk->closes);
    EXPECT_EQ("data", disk->content());
}

// What a device does, or whoever hears of its Close, may need the lock that set-up and teardown are under.
TEST_F(FileEnd, ADeviceMayCallTheLibraryFromAnotherThread) {
    std::atomic<int> calls{0};
    const auto call_from_elsewhere = [&calls](const char* where) {
        const auto over = std::make_shared<std::atomic<bool>>(false);
        std::thread other([over] {
            CNetThread::TraversalSock();
            *over = true;
        });
        EXPECT_EVENTUALLY(*over) << where;
        ++calls;
        return other;
    };
    std::vector<std::thread> others;
    auto* const device = new MemoryDevice(disk);
    device->on_write = [&](unsigned) {
        others.push_back(call_from_elsewhere("Write"));
        return MemoryDevice::LET_BE;
    };
    device->on_close = [&] { others.push_back(call_from_elsewhere("Close")); };
    CNFile* const file = CNFile::Open((-100L * 256) * 256, "", "r+", device);
    file->Write("data", 4);
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    EXPECT_EQ(2, calls);
    EXPECT_EQ("data", disk->content()) << "before DestroyThreadPool has returned";
    EXPECT_EQ(1, disk->closes);
    for (std::thread& other : others) {
        other.join();
    }
    file->Close();
}

TEST_F(FileEnd, AFileOfALifeThatIsOverTellsNobody) {
    CNFile* const file = open(
        disk, [](unsigned) { return -1; }, false);
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    ASSERT_EQ(0, CNetThread::CreateThreadPool(2, false));
    {
        FileClient next;  // whose id may be that of the receiver
        file->Write("x", 1);
        file->Close();
        next.handler->Notify(next.id, FILE_MSG_READ, 0);
        EXPECT_EVENTUALLY(next.loads() == 1);
        EXPECT_EQ(0, next.errors());
    }
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
}

}  // namespace
}  // namespace Orvex::Reticor
