// MemoryRows: records at rest, blocks that are kept, and frames, as a product reads them.
#include "Core/stats/Snapshot.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include <Reticor/Stats.h>
#include <Reticor/TsMemory.h>

#include "Core/record/EventFreeList.h"
#include "support/core/Exposition.h"
#include "support/core/JsonValue.h"
#include "support/core/SockPoolFixture.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

MemoryStats memoryOf(const std::string& kind, uint64_t piece_bytes) {
    CStats stats;
    EXPECT_EQ(0, stats.Take());
    for (size_t place = 0; place < stats.GetMemoryCount(); ++place) {
        MemoryStats row{};
        EXPECT_EQ(0, stats.GetMemory(place, row));
        if (kind == row.kind && row.piece_bytes == piece_bytes) {
            EXPECT_EQ(piece_bytes != 0 ? row.pieces * row.piece_bytes : row.bytes, row.bytes);
            return row;
        }
    }
    return {};
}

TEST(MemoryRows, HaveTheRecordsThatRestWhereTheyDo) {
    constexpr uint64_t SIZE = sizeof(CEvent);
    std::vector<CEvent*> mine;
    for (int i = 0; i < 20; ++i) {
        mine.push_back(get_event());
    }
    const uint64_t stocked = memoryOf("thread_records", SIZE).pieces;
    const uint64_t listed = memoryOf("free_records", SIZE).pieces;
    for (CEvent* ev : mine) {
        put_event(ev);
    }
    EXPECT_EQ(stocked + 20, memoryOf("thread_records", SIZE).pieces);
    EXPECT_EQ(listed, memoryOf("free_records", SIZE).pieces);
    std::thread([] { put_event(new CEvent); }).join();
    EXPECT_EQ(stocked + 20, memoryOf("thread_records", SIZE).pieces);
    EXPECT_EQ(listed + 1, memoryOf("free_records", SIZE).pieces) << "a thread that ends gives its own back";
    fill_event_reserve();
    EXPECT_EQ(256u, memoryOf("reserved_records", SIZE).pieces);
}

class MemoryRowsOfPool : public SockPoolFixture {
protected:
    MemoryRowsOfPool() { workers = 1; }
};

// Blocks that a worker frees are kept in its table, and are there in the snapshot that another thread takes.
TEST_F(MemoryRowsOfPool, HaveTheBlocksThatWorkersKeepBySize) {
    handler->on_message = [](long, unsigned int, long count) {
        std::vector<void*> blocks;
        for (long i = 0; i < count; ++i) {
            blocks.push_back(CTsMemory::TsMalloc(120));
        }
        for (void* block : blocks) {
            CTsMemory::TsFree(block);
        }
        return 0;
    };
    handler->Notify(handler->GetID(), 100, 7);
    EXPECT_EVENTUALLY(memoryOf("thread_blocks", 120).pieces >= 7);
    EXPECT_EQ(7u, memoryOf("thread_blocks", 120).pieces);
    EXPECT_EQ(7u * 120, memoryOf("thread_blocks", 120).bytes);
    EXPECT_EQ(0u, memoryOf("shared_blocks", 120).pieces);
    CTsMemory::Free(CTsMemory::Malloc(120));
    EXPECT_EQ(1u, memoryOf("shared_blocks", 120).pieces);
    EXPECT_EQ(7u, memoryOf("thread_blocks", 120).pieces);
}

TEST_F(MemoryRowsOfPool, AreAddedUpByKindInTheTextAndTheMetrics) {
    handler->Notify(handler->GetID(), 100, 0);
    ASSERT_EVENTUALLY(handler->life->messages == 1) << "a worker has begun, so there is a shared table";
    CTsMemory::Free(CTsMemory::Malloc(100));
    CTsMemory::Free(CTsMemory::Malloc(5000));
    const auto text = [](size_t (CStats::*write)(char*, size_t) const) {
        CStats stats;
        EXPECT_EQ(0, stats.Take());
        std::string all((stats.*write)(nullptr, 0), '?');
        (stats.*write)(&all[0], all.size());
        return all;
    };
    const Exposition metrics(text(&CStats::toPrometheus));
    EXPECT_EQ(2, metrics.at("reticor_memory_pieces{kind=\"shared_blocks\"}"));
    EXPECT_EQ(104 + 8192, metrics.at("reticor_memory_bytes{kind=\"shared_blocks\"}"));
    EXPECT_FALSE(metrics.is_counter("reticor_memory_bytes{kind=\"free_records\"}"));
    const std::string people = text(&CStats::toText);
    EXPECT_NE(std::string::npos, people.find("\nshared_blocks         2           8296\n")) << people;
    EXPECT_NE(std::string::npos, people.find("\nfree_records ")) << people;
    EXPECT_EQ(std::string::npos, people.find("media_frames")) << "there is no media";
}

void twoBuffers(MediaRows& rows) {
    BufferStats row{};
    row.held_frames = 3;
    row.held_bytes = 900;
    rows.buffers = {row, row};
}

TEST_F(MemoryRowsOfPool, HaveTheFramesOfAllBuffersInOneRow) {
    EXPECT_EQ(0u, memoryOf("media_frames", 0).size - sizeof(MemoryStats));
    EXPECT_EQ(nullptr, memoryOf("media_frames", 0).kind) << "without media there is no row";
    MediaSource::Set(&twoBuffers);
    EXPECT_EQ(6u, memoryOf("media_frames", 0).pieces);
    EXPECT_EQ(1800u, memoryOf("media_frames", 0).bytes);
    MediaSource::Set(nullptr);
}

}  // namespace
}  // namespace Orvex::Testing
