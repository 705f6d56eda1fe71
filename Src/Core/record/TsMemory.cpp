// CTsMemory. The hot path is short because nothing in it asks a question that the tables can answer by
// themselves: a thread without a table points to one whose lists are empty and full at once, and so does the
// index of a block that belongs to no class.
#include <Reticor/TsMemory.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <Infra/Atomic.h>

#include "Core/count/Tally.h"
#include "Core/record/GeneralAllocator.h"
#include "Core/record/MemTables.h"

namespace Orvex::Reticor {

/// Stands right in front of the memory that a caller gets.
struct mem_block {
    int32_t m_index;    ///< The class, or NO_CLASS.
    int32_t m_size;     ///< Size of the class. Not set without a class.
    mem_block* m_next;  ///< Link in the list of the class, null while the block is in use.
};

static_assert(sizeof(mem_block) == 16, "the header keeps the caller's memory aligned to 16 bytes");

namespace {

constexpr int NO_CLASS = -1;
constexpr unsigned int LARGEST = 229376;      ///< Above it nothing is kept.
constexpr unsigned int SMALL_LIMIT = 1500;    ///< Up to here classes are looked up, 4 bytes to an entry.
constexpr unsigned int MIDDLE_LIMIT = 65536;  ///< Up to here classes are 4096 bytes apart, above 16384.
constexpr int MIDDLE_BASE = 19;
constexpr int LARGE_BASE = 31;
constexpr unsigned long SLOT_KEY = 0;

/// The class of a size that is at least 1 and at most LARGEST. Each size falls into the smallest class that
/// holds it, but for those from 1501 to 4096, which share one.
constexpr int class_of(unsigned int size) {
    const unsigned int last = size - 1;
    if (size <= 128) {
        return static_cast<int>(last / 8);
    }
    if (size <= SMALL_LIMIT) {
        return size <= 256 ? 16 : size <= 512 ? 17 : 18;
    }
    if (size <= MIDDLE_LIMIT) {
        return static_cast<int>(last / 4096) + MIDDLE_BASE;
    }
    return static_cast<int>(last / 16384) + LARGE_BASE;
}

/// Where in a table the head for a size stands, in bytes: by every 4 bytes of the small sizes and by every
/// 4096 of the others. The limits of all classes are multiples of those.
struct HeadOffsets {
    uint16_t m_small[SMALL_LIMIT / 4];
    uint16_t m_large[LARGEST / 4096];
};

constexpr uint16_t offset_for(unsigned int size) {
    return static_cast<uint16_t>(static_cast<size_t>(class_of(size)) * sizeof(mem_head));
}

constexpr HeadOffsets make_head_offsets() {
    HeadOffsets offsets{};
    for (unsigned int i = 0; i < SMALL_LIMIT / 4; ++i) {
        offsets.m_small[i] = offset_for((i + 1) * 4);
    }
    for (unsigned int i = 0; i < LARGEST / 4096; ++i) {
        offsets.m_large[i] = offset_for((i + 1) * 4096);
    }
    return offsets;
}

constexpr HeadOffsets s_head_offsets = make_head_offsets();

/// The head in `classes` for `size`. Null for 0 and for what is above LARGEST.
inline mem_head* head_for(mem_head* classes, unsigned int size) {
    const unsigned int last = size - 1;  // 0 wraps round to the largest number.
    unsigned int offset = 0;
    if (__builtin_expect(last < SMALL_LIMIT, 1)) {
        offset = s_head_offsets.m_small[last / 4];
    } else if (last < LARGEST) {
        offset = s_head_offsets.m_large[last / 4096];
    } else {
        return nullptr;
    }
    return reinterpret_cast<mem_head*>(reinterpret_cast<char*>(classes) + offset);
}

// A table in use has one more head in front of its classes, at the index NO_CLASS. That head keeps nothing,
// so "the list is full" sends blocks without a class, and blocks of a thread without a table, the same way.
constexpr int HEADS_IN_FRONT = 1;
constexpr int CLASSES = 46;
const mem_head s_nothing[HEADS_IN_FRONT + CLASSES] = {};

/// The classes of the calling thread, or those of `s_nothing`, which are never written: they have no room to
/// put a block and none to take. Initial-exec makes an access one load beside the thread's base register.
__attribute__((tls_model("initial-exec"))) thread_local mem_head* t_classes =
    const_cast<mem_head*>(s_nothing) + HEADS_IN_FRONT;

mem_head* no_table() {
    return const_cast<mem_head*>(s_nothing) + HEADS_IN_FRONT;
}

}  // namespace

/// A table in use. That of a thread is on the list of all while the thread has it.
struct ThreadTable {
    ThreadTable* next;
    ThreadTable** link;  ///< What points to this one.
    mem_head heads[HEADS_IN_FRONT + CLASSES];

    mem_head* classes() { return heads + HEADS_IN_FRONT; }
    static ThreadTable* of(mem_head* classes) {
        return reinterpret_cast<ThreadTable*>(reinterpret_cast<char*>(classes - HEADS_IN_FRONT) -
                                              offsetof(ThreadTable, heads));
    }
};

namespace {

/// With empty classes. Null if there is no memory.
mem_head* new_table(const mem_head (&classes)[CLASSES]) {
    void* memory = general_allocate(sizeof(ThreadTable));
    if (memory == nullptr) {
        return nullptr;
    }
    auto* table = static_cast<ThreadTable*>(memory);
    std::memcpy(table->heads, s_nothing, sizeof(mem_head) * HEADS_IN_FRONT);
    std::memcpy(table->classes(), classes, sizeof(classes));
    return table->classes();
}

void enter_table(ThreadTable& table) {
    Infra::CGuard guard(MemTables::sm_key_mutex);
    table.next = MemTables::sm_tables;
    table.link = &MemTables::sm_tables;
    if (table.next != nullptr) {
        table.next->link = &table.next;
    }
    MemTables::sm_tables = &table;
}

void leave_table(ThreadTable& table) {
    Infra::CGuard guard(MemTables::sm_key_mutex);
    *table.link = table.next;
    if (table.next != nullptr) {
        table.next->link = table.link;
    }
}

/// What waits in the list of a class, seen from whichever thread.
uint64_t free_blocks(const mem_head& head) {
    const uint64_t count = Infra::relaxedLoad(head.m_count);
    const uint64_t taken = Infra::relaxedLoad(head.m_taken);
    return count - std::min(count, taken);
}

/// In place where that can be told: one instruction instead of three.
inline void count_taken(mem_head& head) {
#if defined(RETICOR_TALLY_IN_PLACE)
    asm("incl %0" : "+m"(head.m_taken) : : "cc");
#else
    Infra::relaxedStore(head.m_taken, head.m_taken + 1);
#endif
}

inline mem_block* take_first_block(mem_head& head) {
    mem_block* block = head.m_first;
    if (__builtin_expect(block == nullptr, 0)) {
        return nullptr;
    }
    head.m_first = block->m_next;
    count_taken(head);
    block->m_next = nullptr;
    return block;
}

/// False if the count says that the list is full.
inline bool put_last(mem_head& head, mem_block* block) {
    if (__builtin_expect(head.m_count == head.m_max, 0)) {
        return false;
    }
    Infra::relaxedStore(head.m_count, head.m_count + 1);
    mem_block* last = head.m_last;
    head.m_last = block;
    if (head.m_first == nullptr) {
        head.m_first = block;
    } else {
        last->m_next = block;
    }
    return true;
}

/// As put_last, after counting what was taken. False if the list is full indeed.
bool settle_and_put_last(mem_head& head, mem_block* block) {
    if (head.m_taken != 0) {
        Infra::relaxedStore(head.m_count, head.m_count - head.m_taken);
        Infra::relaxedStore(head.m_taken, 0);
    }
    return put_last(head, block);
}

void* fresh_block(int index, size_t size) {
    auto* block = static_cast<mem_block*>(general_allocate(size + sizeof(mem_block)));
    if (block == nullptr) {
        return nullptr;
    }
    block->m_index = index;
    block->m_next = nullptr;
    if (index != NO_CLASS) {
        block->m_size = static_cast<int32_t>(size);
    }
    return block + 1;
}

void free_table(void* table) {
    auto* classes = static_cast<mem_head*>(table);
    for (int i = 0; i < MemTables::CLASS_COUNT; ++i) {
        while (mem_block* block = take_first_block(classes[i])) {
            general_free(block);
        }
    }
    if (classes != MemTables::TEMPLATE) {
        general_free(ThreadTable::of(classes));
    }
}

__attribute__((noinline)) void* do_malloc(mem_head* table, unsigned int size, bool lock) {
    if (size == 0) {
        size = 1;
    }
    if (size > LARGEST || table == nullptr || table == no_table()) {
        return fresh_block(NO_CLASS, size);
    }
    const int index = class_of(size);
    mem_block* block = nullptr;
    if (lock) {
        Infra::CGuard guard(MemTables::sm_pool_mutex);
        // The shared table may have gone while this thread waited.
        mem_head* shared = __atomic_load_n(&MemTables::sm_shared, __ATOMIC_ACQUIRE);
        block = shared != nullptr ? take_first_block(shared[index]) : nullptr;
    } else {
        block = take_first_block(table[index]);
    }
    return block != nullptr ? block + 1 : fresh_block(index, MemTables::TEMPLATE[index].m_size);
}

__attribute__((noinline)) void do_free(mem_head* table, void* p, bool lock) {
    if (p == nullptr) {
        return;
    }
    mem_block* block = static_cast<mem_block*>(p) - 1;
    bool kept = false;
    if (lock) {
        Infra::CGuard guard(MemTables::sm_pool_mutex);
        mem_head* shared = __atomic_load_n(&MemTables::sm_shared, __ATOMIC_ACQUIRE);
        kept = shared != nullptr && settle_and_put_last(shared[block->m_index], block);
    } else {
        kept = table != nullptr && settle_and_put_last(table[block->m_index], block);
    }
    if (!kept) {
        general_free(block);
    }
}

}  // namespace

MemTables::FreeByClass count_free_blocks() {
    MemTables::FreeByClass found;
    for (size_t index = 0; index < found.size(); ++index) {
        found[index].bytes_each = MemTables::TEMPLATE[index].m_size;
    }
    {
        Infra::CGuard guard(MemTables::sm_key_mutex);
        for (ThreadTable* table = MemTables::sm_tables; table != nullptr; table = table->next) {
            for (size_t index = 0; index < found.size(); ++index) {
                found[index].of_threads += free_blocks(table->classes()[index]);
            }
        }
    }
    Infra::CGuard guard(MemTables::sm_pool_mutex);
    const mem_head* const shared = __atomic_load_n(&MemTables::sm_shared, __ATOMIC_ACQUIRE);
    for (size_t index = 0; shared != nullptr && index < found.size(); ++index) {
        found[index].shared = free_blocks(shared[index]);
    }
    return found;
}

CTsMemory::CTsMemory() = default;
CTsMemory::CTsMemory(const CTsMemory&) = default;
CTsMemory& CTsMemory::operator=(const CTsMemory&) = default;

void CTsMemory::InitStaticVal() {
    Infra::CGuard guard(MemTables::sm_key_mutex);
    __atomic_store_n(&MemTables::sm_shared, nullptr, __ATOMIC_RELEASE);
    MemTables::sm_key = MemTables::NO_KEY;
}

void CTsMemory::CreateMemPool() {
    {
        Infra::CGuard guard(MemTables::sm_key_mutex);
        if (MemTables::sm_key == MemTables::NO_KEY) {
            MemTables::sm_key = SLOT_KEY;
        }
    }
    if (t_classes == no_table()) {
        mem_head* classes = new_table(MemTables::TEMPLATE);
        if (classes != nullptr) {
            t_classes = classes;
            enter_table(*ThreadTable::of(classes));
        }
    }
    if (__atomic_load_n(&MemTables::sm_shared, __ATOMIC_ACQUIRE) == nullptr) {
        mem_head* none = nullptr;
        mem_head* shared = new_table(MemTables::TEMPLATE);
        if (!__atomic_compare_exchange_n(&MemTables::sm_shared, &none, shared, false, __ATOMIC_ACQ_REL,
                                         __ATOMIC_ACQUIRE) &&
            shared != nullptr) {
            free_table(shared);  // Another worker was quicker.
        }
    }
}

void CTsMemory::DestroyThreadMemPool() {
    mem_head* classes = t_classes;
    if (classes != no_table()) {
        t_classes = no_table();
        leave_table(*ThreadTable::of(classes));
        free_table(classes);
    }
}

void CTsMemory::DestroyMemPool() {
    // The per-thread slot needs no freeing, and its number stays until InitStaticVal.
    mem_head* shared = nullptr;
    {
        Infra::CGuard guard(MemTables::sm_pool_mutex);
        shared = __atomic_exchange_n(&MemTables::sm_shared, nullptr, __ATOMIC_ACQ_REL);
    }
    if (shared != nullptr) {
        free_table(shared);
    }
}

// The two hot operations take the short way themselves and leave the rest to a tail call of the long one.
// Each starts a cache line, of which the short way takes one and a bit.

__attribute__((aligned(64))) void* CTsMemory::TsMalloc(unsigned int size) {
    mem_head* head = head_for(t_classes, size);
    if (__builtin_expect(head != nullptr, 1)) {
        if (mem_block* block = take_first_block(*head)) {
            return block + 1;
        }
    }
    return do_malloc(t_classes, size, false);
}

__attribute__((aligned(64))) void CTsMemory::TsFree(void* p) {
    if (__builtin_expect(p != nullptr, 1)) {
        mem_block* block = static_cast<mem_block*>(p) - 1;
        if (!put_last(t_classes[block->m_index], block)) {
            do_free(t_classes, p, false);
        }
    }
}

void* CTsMemory::Malloc(unsigned int size) {
    return do_malloc(__atomic_load_n(&MemTables::sm_shared, __ATOMIC_ACQUIRE), size, true);
}

void CTsMemory::Free(void* p) {
    do_free(__atomic_load_n(&MemTables::sm_shared, __ATOMIC_ACQUIRE), p, true);
}

}  // namespace Orvex::Reticor
