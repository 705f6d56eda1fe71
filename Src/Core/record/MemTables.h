// MemTables: what the process has of recycled memory, beside the tables of its threads.
#pragma once

#include <array>
#include <cstdint>

#include <Infra/Mutex.h>
#include <Infra/ThreadAnnotations.h>

namespace Orvex::Reticor {

struct mem_block;
struct ThreadTable;

/// One size class of a table: the free blocks of one size, first in, first out. The list holds `m_count` less
/// `m_taken` blocks: putting writes the one and taking the other, so that neither waits for what the other
/// has just stored. A list that looks full settles the two.
struct mem_head {
    uint16_t m_max;  ///< The most blocks that the class keeps.
    // These two are written by the owner alone, in one piece, so that others may look.
    uint16_t m_count;    ///< Blocks in the list, and those that were taken since the two were settled.
    uint32_t m_size;     ///< Usable bytes of each block.
    mem_block* m_first;  ///< Taken next. Null in an empty list.
    mem_block* m_last;   ///< Put last. Means something only while `m_first` is not null.
    uint32_t m_taken;    ///< Blocks taken since the counts were settled.
};

/// The state of CTsMemory.
struct MemTables {
    static constexpr int CLASS_COUNT = 46;  ///< With the end mark, which is never chosen.
    static constexpr unsigned long NO_KEY = static_cast<unsigned long>(-1);

    /// An empty table, from which all others are copied.
    static const mem_head TEMPLATE[CLASS_COUNT];

    /// Free blocks of one class.
    struct FreeBlocks {
        uint64_t bytes_each = 0;
        uint64_t of_threads = 0;  ///< In the tables of threads,
        uint64_t shared = 0;      ///< and in the shared one.
    };
    using FreeByClass = std::array<FreeBlocks, CLASS_COUNT - 1>;

    /// Guards `sm_key` and `sm_tables`.
    static Infra::CMutex sm_key_mutex;
    /// The number of the per-thread slot: NO_KEY until the first thread got a table. The slot itself is a
    /// variable of the compiler's per-thread storage, which needs no number and cannot fall to another
    /// library.
    static unsigned long sm_key INFRA_GUARDED_BY(sm_key_mutex);

    /// The tables of threads.
    static ThreadTable* sm_tables INFRA_GUARDED_BY(sm_key_mutex);

    /// Guards the lists of the shared table.
    static Infra::CMutex sm_pool_mutex;
    /// The shared table. Set once by whichever worker comes first, without a lock; taken out, and its lists
    /// changed, under `sm_pool_mutex`.
    static mem_head* sm_shared;
};

/// Looks at all tables while their owners use them. Any thread.
MemTables::FreeByClass count_free_blocks();

}  // namespace Orvex::Reticor
