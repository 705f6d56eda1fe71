// What the tests of the asynchronous file share: a device in memory that can be made to fail, a client that
// counts messages, file workers that act only when the test says so, and a folder for files.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <Reticor/DefaultStorDev.h>
#include <Reticor/NFile.h>
#include <Reticor/PosixStorDev.h>

#include "Core/pool/PoolTable.h"
#include "Tool/file/FileThread.h"
#include "Tool/file/NFileState.h"
#include "Tool/task/FileTask.h"
#include "Tool/task/FileTaskQueue.h"
#include "support/PoolFixture.h"
#include "support/core/Gate.h"

namespace Orvex::Reticor {

struct NFileProbe {
    static CNFile::State& state(CNFile& file) { return CNFile::State::of(file); }
    static CFileSlots& slots(CNFile& file) { return state(file).m_exchange.m_slots; }
    static DeviceSide& device(CNFile& file) { return state(file).m_device; }
    static unsigned buffers(CNFile& file) { return state(file).m_caller.buffers(); }
    static long long offset(CNFile& file) {
        CallerSide& side = state(file).m_caller;
        Infra::CGuard guard(side.m_api_mutex);
        return side.m_offset;
    }
    static bool over(CNFile& file) { return state(file).m_exchange.over(); }
    // Somebody waits to drop the buffers.
    static bool cutting(CNFile& file) { return state(file).m_device.m_discard.load(); }
};

}  // namespace Orvex::Reticor

namespace Orvex::Testing {

constexpr unsigned BLOCK = Reticor::CNBufPool::BLOCK_BYTES;

// What remains of a device when it has deleted itself: the bytes, and what happened to it.
struct DeviceLife {
    std::mutex mutex;
    std::string bytes;               // under the mutex
    std::vector<std::string> calls;  // under the mutex: "seek 0", "write 10", "read 131072", "close"
    std::atomic<int> opens{0};
    std::atomic<int> closes{0};
    std::atomic<int> finishes{0};
    std::atomic<int> synced{0};
    std::atomic<int> stats{0};
    std::atomic<int> aio_questions{0};
    std::atomic<int> writes{0};
    std::atomic<int> reads{0};
    std::atomic<int> inside{0};  // calls that run
    std::atomic<int> most_inside{0};

    std::string content() {
        const std::lock_guard<std::mutex> lock(mutex);
        return bytes;
    }
    std::vector<std::string> log() {
        const std::lock_guard<std::mutex> lock(mutex);
        return calls;
    }
    std::size_t size() { return content().size(); }
};

// A file in memory. The hooks replace the result of a call that would be made with `len`, or let it be.
class MemoryDevice : public Reticor::CNStorDev_IF {
public:
    static constexpr int LET_BE = INT_MIN;

    explicit MemoryDevice(std::shared_ptr<DeviceLife> its_life) : life(std::move(its_life)) {}

    const std::shared_ptr<DeviceLife> life;
    std::function<int(unsigned len)> on_write;  // the number of bytes to take, a result of 0 or below, LET_BE
    std::function<int(unsigned len)> on_read;
    std::function<int(long long offset)> on_seek;
    std::function<void()> on_stat;
    std::function<void()> on_close;
    bool open_fails = false;
    int finish_result = 0;
    int stat_result = 0;
    bool needs_aio = true;

    int Open(const char*, const char*) override {
        ++life->opens;
        return open_fails ? -1 : 0;
    }
    void Close() override {
        {
            const Inside inside(*life);
            note("close");
            if (on_close) {
                on_close();
            }
            ++life->closes;
        }
        delete this;
    }
    int Write(const char* data, unsigned len) override {
        const Inside inside(*life);
        const int told = on_write ? on_write(len) : LET_BE;
        if (told != LET_BE && (told <= 0 || static_cast<unsigned>(told) > len)) {
            note("write failed");
            return told;
        }
        const unsigned n = told == LET_BE ? len : static_cast<unsigned>(told);
        note("write " + std::to_string(n));
        const std::lock_guard<std::mutex> lock(life->mutex);
        const std::size_t end = static_cast<std::size_t>(m_position) + n;
        life->bytes.resize(std::max(life->bytes.size(), end));
        std::memcpy(&life->bytes[static_cast<std::size_t>(m_position)], data, n);
        m_position += n;
        ++life->writes;
        return static_cast<int>(n);
    }
    int Read(char* dst, unsigned len) override {
        const Inside inside(*life);
        const int told = on_read ? on_read(len) : LET_BE;
        if (told != LET_BE && (told <= 0 || static_cast<unsigned>(told) > len)) {
            note("read failed");
            return told;
        }
        const std::lock_guard<std::mutex> lock(life->mutex);
        const std::size_t from = std::min(static_cast<std::size_t>(m_position), life->bytes.size());
        const std::size_t most = told == LET_BE ? len : static_cast<unsigned>(told);
        const std::size_t n = std::min(most, life->bytes.size() - from);
        std::memcpy(dst, life->bytes.data() + from, n);
        m_position += static_cast<long long>(n);
        life->calls.push_back("read " + std::to_string(n));
        ++life->reads;
        return static_cast<int>(n);
    }
    int Seek(long long offset, int whence) override {
        const Inside inside(*life);
        note("seek " + std::to_string(offset));
        const int told = on_seek ? on_seek(offset) : LET_BE;
        if (told != LET_BE) {
            return told;
        }
        m_position = whence == 1 ? m_position + offset : offset;
        return 0;
    }
    int Stat(Reticor::NFile_Info* info) override {
        const Inside inside(*life);
        ++life->stats;
        if (on_stat) {
            on_stat();
        }
        if (stat_result == 0) {
            info->time_create = 1;
            info->time_access = 2;
            info->time_write = 3;
            info->size = static_cast<int64_t>(life->size());
            std::strcpy(info->name, "in memory");
        }
        return stat_result;
    }
    int Finish(bool sync) override {
        const Inside inside(*life);
        EXPECT_EQ(0, life->closes);
        ++life->finishes;
        life->synced += sync ? 1 : 0;
        return finish_result;
    }
    bool NeedAIO() override {
        ++life->aio_questions;
        return needs_aio;
    }

private:
    struct Inside {
        explicit Inside(DeviceLife& device) : m_life(device) {
            const int now = ++m_life.inside;
            int most = m_life.most_inside;
            while (most < now && !m_life.most_inside.compare_exchange_weak(most, now)) {
            }
        }
        ~Inside() { --m_life.inside; }
        DeviceLife& m_life;
    };

    void note(const std::string& call) {
        const std::lock_guard<std::mutex> lock(life->mutex);
        life->calls.push_back(call);
    }

    long long m_position = 0;
};

// The owner of files: counts their messages.
struct FileClient {
    FileClient() : handler(new TestHandler), life(handler->life), id(handler->GetID()) {
        const std::shared_ptr<Counts> kept = counts;
        handler->on_message = [kept](long, unsigned int msg, long) {
            ++kept->of[msg < 16 ? msg : 0];
            return 0;
        };
    }
    ~FileClient() {
        handler->Close();
        EXPECT_EVENTUALLY(life->closes == 1);
    }
    FileClient(const FileClient&) = delete;
    FileClient& operator=(const FileClient&) = delete;

    struct Counts {
        std::atomic<int> of[16] = {};
    };
    int rooms() const { return counts->of[Reticor::FILE_MSG_WRITE]; }
    int loads() const { return counts->of[Reticor::FILE_MSG_READ]; }
    int errors() const { return counts->of[Reticor::FILE_MSG_ERROR]; }

    TestHandler* const handler;
    const std::shared_ptr<HandlerLife> life;
    const long id;
    const std::shared_ptr<Counts> counts = std::make_shared<Counts>();
};

// A folder that goes with the case.
class TempFolder {
public:
    TempFolder() {
        m_path = "/tmp/reticor-files-" + std::string(6, 'X');  // which mkdtemp replaces
        EXPECT_NE(nullptr, ::mkdtemp(m_path.data()));
    }
    ~TempFolder() { std::filesystem::remove_all(m_path); }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    std::string file(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

inline std::string contentOf(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

inline void putContent(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

// Bytes that differ at every place.
inline std::string pattern(std::size_t len, unsigned seed = 1) {
    std::string bytes(len, '\0');
    uint32_t state = seed * 2654435761u + 12345;
    for (char& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

// Real workers. The file's client, a device in memory, and the bytes that it got.
class FileFixture : public PoolFixture {
protected:
    void SetUp() override {
        ASSERT_EQ(0, Reticor::CNetThread::CreateThreadPool(workers, true));
        client = std::make_unique<FileClient>();
    }
    void TearDown() override {
        client.reset();
        PoolFixture::TearDown();
    }

    MemoryDevice* newDevice() { return new MemoryDevice(disk = std::make_shared<DeviceLife>()); }

    Reticor::CNFile* open(Reticor::CNStorDev_IF* device, const char* path = "in memory",
                          const char* mode = "r+") {
        Reticor::CNFile* const file = Reticor::CNFile::Open(client->id, path, mode, device);
        EXPECT_NE(nullptr, file);
        return file;
    }

    // Writes all of it, waiting for message 6 as a handler does.
    void writeAll(Reticor::CNFile& file, const std::string& bytes) {
        std::size_t done = 0;
        while (done < bytes.size()) {
            const int before = client->rooms();
            const int n = file.Write(bytes.data() + done, static_cast<unsigned>(bytes.size() - done));
            done += static_cast<std::size_t>(n);
            if (done < bytes.size()) {
                ASSERT_TRUE(eventually([&] { return client->rooms() > before; }));
            }
        }
    }

    // Reads up to `len` bytes, waiting for message 7.
    std::string readAll(Reticor::CNFile& file, std::size_t len, bool* at_end = nullptr) {
        std::string bytes(len, '\0');
        std::size_t done = 0;
        bool eof = false;
        while (done < len && !eof) {
            const int before = client->loads();
            done += static_cast<std::size_t>(
                file.Read(bytes.data() + done, static_cast<unsigned>(len - done), eof));
            if (done < len && !eof && !eventually([&] { return client->loads() > before; })) {
                ADD_FAILURE() << "no message 7 after " << done << " bytes";
                break;
            }
        }
        if (at_end != nullptr) {
            *at_end = eof;
        }
        bytes.resize(done);
        return bytes;
    }

    // Closes the file and waits until its device in memory has got Close.
    std::string closed(Reticor::CNFile* file) {
        file->Close();
        EXPECT_EVENTUALLY(disk->closes == 1);
        return disk->content();
    }

    std::unique_ptr<FileClient> client;
    std::shared_ptr<DeviceLife> disk;
};

// File workers that are there as far as files can tell; the test runs their tasks, step by step.
class StillFileFixture : public FileFixture {
protected:
    void SetUp() override {
        PoolFixture::SetUp();
        client = std::make_unique<FileClient>();
        Reticor::g_file_thread_count = 2;
        Reticor::g_file_threads = m_nobody;
    }
    void TearDown() override {
        drain();
        Reticor::g_file_threads = nullptr;
        Reticor::g_file_thread_count = 0;
        FileFixture::TearDown();
    }

    // Runs one task. False if there is none.
    static bool step() {
        if (!Reticor::g_file_sem.pendFor(0)) {
            return false;
        }
        Reticor::RunFileTask();
        return true;
    }

    // Runs tasks until none is left, those at rest included.
    static void drain() {
        for (int i = 0; i < 100000; ++i) {
            uint64_t due = 0;
            if (!step() && !Reticor::file_tasks().BeginWatch(&due)) {
                return;
            }
            if (due != 0) {
                Reticor::file_tasks().EndWatch(due, UINT64_MAX - 1, false);
            }
        }
        ADD_FAILURE() << "the tasks go on and on";
    }

    std::string closed(Reticor::CNFile* file) {
        file->Close();
        drain();
        EXPECT_EVENTUALLY(disk->closes == 1);
        return disk->content();
    }

private:
    Infra::CThreadLite* m_nobody[2] = {nullptr, nullptr};
};

}  // namespace Orvex::Testing
