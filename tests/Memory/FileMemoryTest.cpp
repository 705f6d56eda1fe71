// CNFile and its devices while memory runs out: a file is opened or not, and what it took arrives.
#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <string>

#include <Reticor/DefaultStorDev.h>
#include <Reticor/FileBuf.h>
#include <Reticor/NFile.h>
#include <Reticor/PosixStorDev.h>

#include "Tool/task/FileTask.h"
#include "Tool/task/FileTaskQueue.h"
#include "support/PoolFixture.h"
#include "support/memory/MemorySweep.h"
#include "support/program/TempFolder.h"

namespace Orvex::Testing {
namespace {

using Reticor::CNFile;
using Reticor::CNStorDev_IF;

// Longer than the four buffers of a file.
constexpr size_t LENGTH = 5 * 131072 + 77;

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

class FileMemory : public PoolFixture {
protected:
    void SetUp() override {
        ASSERT_EQ(0, Reticor::CNetThread::CreateThreadPool(2, true));
        client = new TestHandler;
        client->on_message = [this](long, unsigned int msg, long) {
            written += msg == Reticor::FILE_MSG_WRITE ? 1 : 0;
            loaded += msg == Reticor::FILE_MSG_READ ? 1 : 0;
            failed += msg == Reticor::FILE_MSG_ERROR ? 1 : 0;
            return 0;
        };
        path = folder.file("data");
        for (size_t i = 0; i < LENGTH; ++i) {
            bytes.push_back(static_cast<char>(i * 7 + i / 251));
        }
    }
    void TearDown() override {
        closeAndWait(client);
        PoolFixture::TearDown();
    }

    CNFile* open(const char* mode, CNStorDev_IF* device = nullptr) {
        return CNFile::Open(client->GetID(), path.c_str(), mode, device);
    }

    // Everything, waiting for messages; what memory refuses is tried again.
    void writeAll(CNFile& file) {
        for (size_t done = 0; done < bytes.size();) {
            const int before = written;
            const int n = file.Write(bytes.data() + done, static_cast<unsigned>(bytes.size() - done));
            done += static_cast<size_t>(n);
            if (done < bytes.size() && n == 0) {
                eventually([&] { return written != before; }, 5);
            }
        }
    }

    // The rest of the file, waiting for messages.
    std::string readAll(CNFile& file) {
        std::string got;
        std::string piece(LENGTH, '\0');
        for (bool eof = false; !eof;) {
            const int before = loaded;
            const int n = file.Read(piece.data(), LENGTH, eof);
            got.append(piece, 0, static_cast<size_t>(n));
            if (!eof && !eventually([&] { return loaded != before; })) {
                ADD_FAILURE() << "no message 7 after " << got.size() << " bytes";
                return got;
            }
        }
        return got;
    }
    // A file whose first block is loaded, and which reads ahead from the next Read on.
    CNFile* openToReadAhead() {
        std::ofstream(path, std::ios::binary) << bytes;
        CNFile* const file = open("r", new Reticor::CPosixStorDev);
        EXPECT_NE(nullptr, file);
        char first = 0;
        bool eof = false;
        EXPECT_EQ(0, file->Read(&first, 1, eof));
        EXPECT_EVENTUALLY(loaded > 0);
        file->SetReadAhead(true);
        return file;
    }

    TempFolder folder;
    std::string path;
    std::string bytes;
    TestHandler* client = nullptr;
    std::atomic<int> written{0};
    std::atomic<int> loaded{0};
    std::atomic<int> failed{0};
};

TEST_F(FileMemory, AFileIsOpenedOrNotAndItsDeviceEnds) {
    for (const int kind : {0, 1, 2}) {
        sweep([&](size_t successes, Extent extent) {
            const NoRecords none;
            CNStorDev_IF* const device = kind == 0   ? nullptr
                                         : kind == 1 ? static_cast<CNStorDev_IF*>(new Reticor::CPosixStorDev)
                                                     : new Reticor::CDefaultStorDev;
            CNFile* file = nullptr;
            const Swept swept = withFault(successes, extent, [&] { file = open("w", device); });
            if (file == nullptr) {
                EXPECT_TRUE(swept.hit);
                EXPECT_EQ(1u, swept.lines) << swept.text;
                file = open("w");
                EXPECT_NE(nullptr, file);
            }
            EXPECT_EQ(3, file->Write("abc", 3));
            file->Close();
            EXPECT_EVENTUALLY(contentOf(path) == "abc");
            return swept.hit;
        });
    }
}

// What the calls take arrives, whichever of the allocations of the caller fails meanwhile.
TEST_F(FileMemory, WhatIsTakenArrives) {
    for (const Extent extent : {Extent::ONE, Extent::ALL}) {
        bool hit = true;
        for (size_t successes = 0; hit; ++successes) {
            SCOPED_TRACE(successes);
            CNFile* const file = open("w");
            ASSERT_NE(nullptr, file);
            size_t taken = 0;
            withFault(successes, extent, [&] {
                taken = static_cast<size_t>(file->Write(bytes.data(), static_cast<unsigned>(bytes.size())));
                file->Seek(static_cast<long long>(taken), 0);
                file->Close();
            });
            hit = MemoryFault::hit();
            EXPECT_EVENTUALLY(contentOf(path) == bytes.substr(0, taken));
            ASSERT_LT(successes, SWEEP_LIMIT);
        }
    }
}

TEST_F(FileMemory, FileWorkersGoOnWithoutMemory) {
    for (size_t successes = 0; successes < 12; ++successes) {
        SCOPED_TRACE(successes);
        CNFile* const file = open("w");
        ASSERT_NE(nullptr, file);
        MemoryFault fault(Whose::OTHERS, Extent::ALL, successes);
        writeAll(*file);
        file->Close();
        EXPECT_EVENTUALLY(contentOf(path) == bytes);
        fault.end();
    }
}

TEST_F(FileMemory, ALoadThatFoundNoMemoryIsTriedAgainAfterItsBuffersAreReplaced) {
    std::ofstream(path, std::ios::binary) << "content";
    CNFile* const file = open("r");
    ASSERT_NE(nullptr, file);
    char got[16] = {};
    bool eof = false;
    {
        MemoryFault fault(Whose::OTHERS, Extent::ALL);
        EXPECT_EQ(0, file->Read(got, sizeof(got), eof));
        eventually([&] { return loaded > 0; }, 100);
        fault.end();
    }
    file->SetBufferSize(131072, 5);
    int total = 0;
    EXPECT_EVENTUALLY(
        (total += file->Read(got + total, sizeof(got) - static_cast<unsigned>(total), eof), eof));
    EXPECT_EQ(7, total);
    file->Close();
}

TEST_F(FileMemory, BlocksThatFoundNoMemoryAheadAreLoadedWhenAReadComesToThem) {
    CNFile* const file = openToReadAhead();
    char first = 0;
    bool eof = false;
    {
        MemoryFault fault(Whose::OTHERS, Extent::ALL);
        EXPECT_EQ(1, file->Read(&first, 1, eof));
        EXPECT_EVENTUALLY(fault.hit());
        fault.end();
    }
    EXPECT_TRUE(bytes == first + readAll(*file));
    EXPECT_EQ(0, failed) << "nobody had asked for them";
    file->Close();
}

TEST_F(FileMemory, WithoutATaskNothingIsReadAheadAndReadsGoOn) {
    std::vector<Reticor::FileTask*> nodes;
    nodes.reserve(1000);
    const auto take_nodes = [&nodes] {
        while (Reticor::FileTask* const node = Reticor::file_task_pool().Get()) {
            nodes.push_back(node);
        }
        return nodes.size();
    };
    const auto put_nodes = [&nodes] {
        for (Reticor::FileTask* const node : nodes) {
            Reticor::file_task_pool().Put(node, false);
        }
        nodes.clear();
    };
    const size_t all = take_nodes();
    put_nodes();
    CNFile* const file = openToReadAhead();
    EXPECT_EVENTUALLY(take_nodes() == all);  // the pass of the first load is over
    char first = 0;
    bool eof = false;
    const NoRecords none;
    const Swept swept = withFault(0, Extent::ALL, [&] { EXPECT_EQ(1, file->Read(&first, 1, eof)); });
    EXPECT_TRUE(swept.hit);
    EXPECT_EQ(1u, swept.lines) << swept.text;
    put_nodes();
    EXPECT_TRUE(bytes == first + readAll(*file));
    EXPECT_EQ(0, failed);
    file->Close();
}

// The node and the entry of the task that closes were taken with the file.
TEST_F(FileMemory, CloseNeedsNoMemory) {
    CNFile* const file = open("w");
    ASSERT_NE(nullptr, file);
    EXPECT_EQ(3, file->Write("abc", 3));
    std::vector<Reticor::FileTask*> nodes;
    nodes.reserve(1000);
    while (Reticor::FileTask* const node = Reticor::file_task_pool().Get()) {
        nodes.push_back(node);
    }
    EXPECT_FALSE(nodes.empty());
    const NoRecords none;
    const Swept swept = withFault(0, Extent::ALL, [&] { file->Close(); });
    EXPECT_TRUE(swept.hit) << "the task that writes first has no node";
    EXPECT_EQ(1u, swept.lines) << swept.text;
    EXPECT_EVENTUALLY(contentOf(path) == "abc");
    for (Reticor::FileTask* const node : nodes) {
        Reticor::file_task_pool().Put(node, false);
    }
}

TEST_F(FileMemory, DevicesWithoutAStateDoNotOpen) {
    sweep([&](size_t successes, Extent extent) {
        Reticor::CPosixStorDev* posix = nullptr;
        Reticor::CDefaultStorDev* plain = nullptr;
        Reticor::CDefaultStorDev* copy = nullptr;
        alignas(16) char rooms[3][64];
        static_assert(sizeof(*posix) <= 64 && sizeof(*plain) <= 64);
        int opened[2] = {1, 1};
        const Swept swept = withFault(successes, extent, [&] {
            posix = new (rooms[0]) Reticor::CPosixStorDev;
            plain = new (rooms[1]) Reticor::CDefaultStorDev;
            opened[0] = posix->Open(path.c_str(), "w");
            opened[1] = plain->Open(path.c_str(), "w");
            copy = new (rooms[2]) Reticor::CDefaultStorDev(*plain);
            *plain = *copy;
        });
        for (const int result : opened) {
            EXPECT_TRUE(result == 0 || result == -1) << result;
        }
        EXPECT_EQ((opened[0] != 0 ? 1u : 0u) + (opened[1] != 0 ? 1u : 0u), swept.lines) << swept.text;
        Reticor::NFile_Info info;
        for (CNStorDev_IF* const device :
             {static_cast<CNStorDev_IF*>(posix), static_cast<CNStorDev_IF*>(plain),
              static_cast<CNStorDev_IF*>(copy)}) {
            char byte = 'x';
            device->Write(&byte, 1);
            device->Read(&byte, 1);
            device->Seek(0, 0);
            device->Stat(&info);
            EXPECT_LE(device->Finish(true), 0);
        }
        posix->~CPosixStorDev();
        plain->~CDefaultStorDev();
        copy->~CDefaultStorDev();
        return swept.hit;
    });
}

TEST(BufferMemory, ABlockIsThereOrNull) {
    sweep([](size_t successes, Extent extent) {
        alignas(16) char pool_room[sizeof(Reticor::CNBufPool)];
        alignas(16) char buffer_room[sizeof(Reticor::CNFileBuf)];
        Reticor::CNBufPool* pool = nullptr;
        Reticor::CNFileBuf* buffer = nullptr;
        Reticor::buffer_node* node = nullptr;
        char* bytes = nullptr;
        const Swept swept = withFault(successes, extent, [&] {
            pool = new (pool_room) Reticor::CNBufPool;
            node = pool->Pop();
            buffer = new (buffer_room) Reticor::CNFileBuf;
            bytes = buffer->Malloc();
        });
        EXPECT_TRUE(swept.hit || (node != nullptr && bytes != nullptr));
        if (node != nullptr) {
            pool->Push(node);
        }
        buffer->~CNFileBuf();
        pool->~CNBufPool();
        return swept.hit;
    });
}

}  // namespace
}  // namespace Orvex::Testing
