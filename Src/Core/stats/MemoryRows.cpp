// MemoryRows: free records, recycled blocks by size, frames of media.
#include "Core/stats/MemoryRows.h"

#include "Core/record/EventFreeList.h"
#include "Core/record/MemTables.h"

namespace Orvex::Reticor {

namespace {

MemoryStats row_of(const char* kind, uint64_t pieces, uint64_t piece_bytes) {
    MemoryStats row{};
    row.kind = kind;
    row.piece_bytes = piece_bytes;
    row.pieces = pieces;
    row.bytes = pieces * piece_bytes;
    return row;
}

}  // namespace

void add_memory_rows(const MediaRows& media, std::vector<MemoryStats>& memory) {
    const RestingRecords records = count_resting_records();
    memory.push_back(row_of("free_records", records.listed, sizeof(CEvent)));
    memory.push_back(row_of("thread_records", records.stocked, sizeof(CEvent)));
    memory.push_back(row_of("reserved_records", records.reserved, sizeof(CEvent)));
    const MemTables::FreeByClass blocks = count_free_blocks();
    for (const MemTables::FreeBlocks& each : blocks) {
        if (each.of_threads != 0) {
            memory.push_back(row_of("thread_blocks", each.of_threads, each.bytes_each));
        }
    }
    for (const MemTables::FreeBlocks& each : blocks) {
        if (each.shared != 0) {
            memory.push_back(row_of("shared_blocks", each.shared, each.bytes_each));
        }
    }
    if (!media.buffers.empty()) {
        MemoryStats frames = row_of("media_frames", 0, 0);
        for (const BufferStats& buffer : media.buffers) {
            frames.pieces += buffer.held_frames;
            frames.bytes += buffer.held_bytes;
        }
        memory.push_back(frames);
    }
}

}  // namespace Orvex::Reticor
