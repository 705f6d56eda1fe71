// The table by which a debugger finds pools, handlers and senders in a process or its core, without debug
// information: tools/gdb/reticor-gdb.py reads it.
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include <Reticor/Export.h>
#include <Reticor/MediaStreamSender.h>
#include <Reticor/NetHandler.h>

#include "Core/count/ClassRows.h"
#include "Core/count/ThreadCounts.h"
#include "Core/handle/HandlerInternal.h"
#include "Core/handle/HandlerList.h"
#include "Core/pool/PoolTable.h"
#include "Core/pool/ThreadPool.h"
#include "Tool/media/MediaBufferState.h"
#include "Tool/step/CoreRoll.h"

namespace Orvex::Reticor {

namespace DebugPlaces {

/// An explicit instantiation may name what is private; it defines the function that the name has declared. So
/// none of the classes has to know that a debugger looks at it, and a member that goes, or gets another name,
/// is an error of the compiler.
template <class Name, auto Member>
struct Reveal {
    friend constexpr auto reveal(Name) { return Member; }
};

/// `reveal(name{})` is from here on `&member`: of a static member its address, of another one its place.
#define RETICOR_REVEAL(name, member)        \
    struct name {                           \
        friend constexpr auto reveal(name); \
    };                                      \
    template struct Reveal<name, &member>

RETICOR_REVEAL(Shards, HandlerList::sm_shards);
RETICOR_REVEAL(ShardFirst, HandlerList::Shard::first);
RETICOR_REVEAL(HandlerBlock, CNetHandler::m_internal);
RETICOR_REVEAL(ClassNames, ClassRows::sm_names);
RETICOR_REVEAL(Threads, ThreadCounts::sm_first);
RETICOR_REVEAL(ThreadNext, ThreadCounts::m_next);
RETICOR_REVEAL(Slots, PoolSlot::sm_slots);
RETICOR_REVEAL(SlotPool, PoolSlot::m_pool);
RETICOR_REVEAL(PoolRunning, CThreadPool::m_running);
RETICOR_REVEAL(PoolSerial, CThreadPool::m_event_serial);
RETICOR_REVEAL(QueuePushed, CEventQueue::m_pushed);
RETICOR_REVEAL(QueueTaken, CEventQueue::m_taken);
RETICOR_REVEAL(Buffers, CoreRoll::sm_first);
RETICOR_REVEAL(BufferNext, CoreRoll::Entry::m_next);
RETICOR_REVEAL(BufferNumber, CoreRoll::Entry::m_number);
RETICOR_REVEAL(BufferCore, CoreRoll::Entry::m_core);
RETICOR_REVEAL(SenderFirst, SenderLine::m_first);
RETICOR_REVEAL(SenderParked, SenderLine::m_first_parked);

}  // namespace DebugPlaces

namespace {

using namespace DebugPlaces;

/// A place in an object, an address or a number, under its name. All are equally long, so that a reader steps
/// over those that it does not know.
template <class Value>
struct Entry {
    char name[24];
    Value value;
};

constexpr uint64_t number(size_t value) {
    return value;
}

using ShardArray = std::remove_pointer_t<decltype(reveal(Shards{}))>;
using SlotArray = std::remove_pointer_t<decltype(reveal(Slots{}))>;

// Places are pointers to members: numbers of 64 bits in the C++ ABI, so that the linker has only to add the
// addresses, and no code runs for the table.
#define RETICOR_LAYOUT(X)                                           \
    X(shards, reveal(Shards{}))                                     \
    X(shard_count, number(std::extent_v<ShardArray>))               \
    X(shard_size, number(sizeof(std::remove_extent_t<ShardArray>))) \
    X(shard_first, reveal(ShardFirst{}))                            \
    X(link_next, &HandlerLink::m_next)                              \
    X(link_handler, &HandlerLink::m_handler)                        \
    X(handler_block, reveal(HandlerBlock{}))                        \
    X(node_magic, &HandlerNode::__m_magic)                          \
    X(node_open, number(HANDLER_OPEN))                              \
    X(node_close_called, &HandlerNode::m_close_called)              \
    X(node_detached, &HandlerNode::m_detached)                      \
    X(node_entry, &HandlerNode::m_entry)                            \
    X(entry_id, &ObjectEntry::m_id)                                 \
    X(entry_owner, &ObjectEntry::m_owner)                           \
    X(node_refs, &HandlerNode::m_ref)                               \
    X(node_socks, &HandlerNode::m_sock)                             \
    X(node_row_offset, &HandlerNode::m_row_offset)                  \
    X(node_born_ms, &HandlerNode::m_born_ms)                        \
    X(row_size, number(sizeof(ClassTally)))                         \
    X(class_names, reveal(ClassNames{}))                            \
    X(class_count, number(ClassRows::COUNT))                        \
    X(threads, reveal(Threads{}))                                   \
    X(thread_next, reveal(ThreadNext{}))                            \
    X(thread_call, &ThreadCounts::m_call)                           \
    X(thread_pool, &ThreadCounts::m_pool)                           \
    X(thread_id, &ThreadCounts::m_thread_id)                        \
    X(slots, reveal(Slots{}))                                       \
    X(slot_count, number(std::extent_v<SlotArray>))                 \
    X(slot_size, number(sizeof(PoolSlot)))                          \
    X(slot_pool, reveal(SlotPool{}))                                \
    X(pool_running, reveal(PoolRunning{}))                          \
    X(pool_queue, &CThreadPool::m_event)                            \
    X(pool_serial, reveal(PoolSerial{}))                            \
    X(queue_pushed, reveal(QueuePushed{}))                          \
    X(queue_taken, reveal(QueueTaken{}))                            \
    X(buffers, reveal(Buffers{}))                                   \
    X(buffer_next, reveal(BufferNext{}))                            \
    X(buffer_number, reveal(BufferNumber{}))                        \
    X(buffer_core, reveal(BufferCore{}))                            \
    X(core_total, &MediaCore::m_byte_total)                         \
    X(core_now_us, &MediaCore::m_now_us)                            \
    X(core_kept_at_begin, &MediaCore::m_kept_at_begin)              \
    X(state_roll, &MediaBufferState::m_roll)                        \
    X(state_senders, &MediaBufferState::m_senders)                  \
    X(senders_first, reveal(SenderFirst{}))                         \
    X(senders_parked, reveal(SenderParked{}))                       \
    X(sender_next, &SenderHotState::m_next)                         \
    X(sender_owner, &SenderHotState::m_owner)                       \
    X(sender_total, &SenderHotState::m_send_total)                  \
    X(sender_joined, &SenderHotState::m_joined)                     \
    X(sender_keeps, &SenderHotState::m_keeps)                       \
    X(sender_frame, &SenderHotState::m_frame)                       \
    X(sender_frame_left, &SenderHotState::m_frame_left)             \
    X(sender_tail, &SenderRecord::m_tail)                           \
    X(frame_begin, &CFrame::m_begin)                                \
    X(frame_kept_begin, &CFrame::m_kept_begin)                      \
    X(frame_length, &CFrame::m_frame_len)                           \
    X(sender_block_us, &SenderHotState::m_block_time)               \
    X(sender_failed, &SenderRecord::m_failed)                       \
    X(sender_stats, &SenderHotState::m_stats)                       \
    X(stats_frames, &MediaSenderStats::frames)                      \
    X(stats_bytes, &MediaSenderStats::bytes)                        \
    X(stats_hole_frames, &MediaSenderStats::hole_frames)            \
    X(stats_skipped_frames, &MediaSenderStats::skipped_frames)

struct Layout {
    char magic[16];
    uint32_t version;
    uint32_t entries;
#define RETICOR_FIELD(name, value) Entry<std::remove_const_t<decltype(value)>> name;
    RETICOR_LAYOUT(RETICOR_FIELD)
#undef RETICOR_FIELD
};

#define RETICOR_ONE(name, value) +1
constexpr uint32_t ENTRIES = 0 RETICOR_LAYOUT(RETICOR_ONE);
#undef RETICOR_ONE

static_assert(sizeof(Layout) == 24 + 32 * ENTRIES, "every entry has 32 bytes: a name and 64 bits");
// What the script takes for granted: the names of calls, and that a base class comes first.
static_assert(static_cast<int>(CallKind::INPUT) == 1 && static_cast<int>(CallKind::CLOSE) == 8 &&
              static_cast<int>(CallKind::FILE_TASK) == 12 && static_cast<int>(CallKind::COUNT) == 13);
static_assert(ThreadCounts::KIND_SHIFT == 56);
static_assert(!std::is_polymorphic_v<HandlerInternal> && !std::is_polymorphic_v<SenderRecord>);

}  // namespace

/// Of C, so that a debugger asks for it by this name. Its form changes with `version` alone; entries come and
/// go.
extern "C" {
// clang-format off
RETICOR_API extern const Layout reticor_debug_layout;
constexpr Layout reticor_debug_layout = {"reticor layout", 1, ENTRIES,
#define RETICOR_VALUE(name, value) {#name, value},
    RETICOR_LAYOUT(RETICOR_VALUE)
#undef RETICOR_VALUE
};
// clang-format on
}

}  // namespace Orvex::Reticor
