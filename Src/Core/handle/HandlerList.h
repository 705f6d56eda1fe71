// HandlerList: all handlers from construction to destruction, also those that nobody finds by an id.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>

#include "Core/count/ThreadCounts.h"
#include "Core/handle/HolderNotes.h"

namespace Orvex::Reticor {

class CNetHandler;
struct HandlerNode;

/// What the object table of a pool holds of a handler. The id comes first: the table reads its key from
/// there.
struct ObjectEntry {
    int64_t m_id = 0;
    CNetHandler* m_owner = nullptr;
};

constexpr uint16_t HANDLER_OPEN = 0x0101;
constexpr uint16_t HANDLER_CLOSED = 0x0202;

/// A place in the list of all handlers: of a handler, or of a walker that goes on from there.
struct HandlerLink {
    HandlerLink* m_prev = nullptr;
    HandlerLink* m_next = nullptr;
    HandlerNode* m_handler = nullptr;  ///< Null for a walker.
};

/// What is seen of a handler in the list. Both state words change once and for all, so they need no lock:
/// whoever makes the change acts on it.
struct HandlerNode {
    /// HANDLER_OPEN, then HANDLER_CLOSED.
    std::atomic<uint16_t> __m_magic{HANDLER_OPEN};
    /// 1 once handle_close was called: the guarantee of a single call.
    std::atomic<uint16_t> m_close_called{0};
    /// Constant between attaching and detaching; the owner from the construction on.
    ObjectEntry m_entry;
    /// References on the object; the thread that brings it to 0 runs handle_close.
    std::atomic<int64_t> m_ref{0};
    /// Sockets registered on the object.
    std::atomic<int64_t> m_sock{0};
    /// Where the product took and gave back references; null unless that is noted. Constant while the handler
    /// is in the list.
    HolderNotes* m_holders = nullptr;

    /// The row of the handler's class as an offset into ThreadCounts, and for which virtual table it is: that
    /// of a base class while the object is made or ended. The row is written first.
    std::atomic<const void*> m_vtable{nullptr};
    std::atomic<uint32_t> m_row_offset{ThreadCounts::offset_of(ClassRows::NOT_CALLED)};

    /// A worker took the close message: nobody finds the handler any more.
    std::atomic<bool> m_detached{false};
    bool m_drop_listed = false;  ///< It is in one of HandlerDrops.
    uint8_t m_shard = 0;         ///< Of HandlerList. Constant.
    uint32_t m_born_ms = 0;      ///< On the clock of HandlerList. Constant.
    HandlerLink m_link;          ///< Of HandlerList.

    bool IsOpen() const { return __m_magic.load(std::memory_order_acquire) == HANDLER_OPEN; }

protected:
    HandlerNode() { m_link.m_handler = this; }
    /// One that is in no list.
    constexpr HandlerNode(uint16_t magic, uint16_t close_called)
        : __m_magic(magic), m_close_called(close_called) {}
    ~HandlerNode() = default;
};

/// In which state a handler is; see CNetHandler.
enum class HandlerState : uint8_t {
    OPEN,
    CLOSING,   ///< Closed, and no worker has taken the close message.
    DETACHED,  ///< Nobody finds it, but there are references.
    RELEASED,  ///< handle_close was called, and the object is still there.
    COUNT
};

/// A handler at one moment.
struct HandlerFacts {
    int64_t id;    ///< 0 while it is being made.
    uint32_t row;  ///< Of its class.
    HandlerState state;
    bool dropped_soon;  ///< One of HandlerDrops has a reference on it.
    int64_t references;
    int64_t sockets;
    uint32_t born_ms;        ///< On the clock of HandlerList::NowMs.
    HolderNotesPin holders;  ///< Empty without notes.
};

/// Spread over lists with a lock each, so that threads that make handlers seldom meet.
///
/// Thread safety: any thread.
class HandlerList {
public:
    static void Enter(HandlerNode& handler);
    static void Leave(HandlerNode& handler);

    /// The handler's class is that of `vtable`, whose row is at `row_offset`.
    static void SetClass(HandlerNode& handler, const void* vtable, uint32_t row_offset);

    /// Calls `visit(const HandlerFacts&)` for each handler, with no lock held. One that is there from the
    /// beginning to the end is visited once; one that comes or goes meanwhile once or not at all.
    template <class Visitor>
    static void ForEach(Visitor visit) {
        HandlerFacts facts[BATCH];
        for (size_t shard = 0; shard < SHARDS; ++shard) {
            Walker walker(sm_shards[shard]);
            for (size_t count = walker.Next(facts); count != 0; count = walker.Next(facts)) {
                for (size_t i = 0; i < count; ++i) {
                    visit(facts[i]);
                }
            }
        }
    }

    /// Milliseconds of a clock that costs little and moves in steps of a few; it starts again after 49 days.
    static uint32_t NowMs();

private:
    static constexpr size_t SHARDS = 16;
    static constexpr size_t BATCH = 64;

    struct alignas(128) Shard {
        Infra::CMutex mutex{Infra::LockClass::HANDLER_LIST};
        HandlerLink* first INFRA_GUARDED_BY(mutex) = nullptr;

        void link(HandlerLink& link, HandlerLink* after) INFRA_REQUIRES(mutex);
        void unlink(HandlerLink& link) INFRA_REQUIRES(mutex);
    };

    /// Stands in a list between two looks.
    class Walker {
    public:
        explicit Walker(Shard& shard);
        ~Walker();
        Walker(const Walker&) = delete;
        Walker& operator=(const Walker&) = delete;

        /// The next ones, up to BATCH. Result: how many; 0 at the end.
        size_t Next(HandlerFacts* facts);

    private:
        Shard& m_shard;
        HandlerLink m_link;
    };

    static HandlerFacts facts_of(const HandlerNode& handler);

    static Shard sm_shards[SHARDS];
};

}  // namespace Orvex::Reticor
