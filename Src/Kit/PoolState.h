// PoolState: what lives on a pool of the kit, and how all of it ends.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Infra/Semaphore.h>
#include <Reticor/kit/Pool.h>

#include "Core/handle/HandlerInternal.h"
#include "Kit/Member.h"

namespace Orvex::Reticor::Kit {
inline namespace v1 {

/// Thread safety: every operation on any thread; `open` and those of the end on one that is not a worker.
struct PoolState final : MemberHome {
    /// Connections of one pool: with what else is watched there, all of them find a place.
    static constexpr int MOST_CONNECTIONS = 4000;

    PoolState() = default;
    ~PoolState();
    PoolState(const PoolState&) = delete;
    PoolState& operator=(const PoolState&) = delete;

    /// Starts the workers. False if that failed, with a line.
    bool open(unsigned int threads, bool file_workers);

    int index() const override { return m_index; }
    void gone(Member* member) override;

    /// What takes the posted calls; a reference. Set once, before anybody else knows the pool.
    void set_mailbox(Member* mailbox) { m_mailbox = mailbox; }
    Member* mailbox() const { return m_mailbox; }
    static PoolState* of(Pool& pool) { return pool.m_state; }

    /// A new member, with a reference for the caller. Null if the pool is stopping or there is no memory.
    template <typename Body, typename... Args>
    Body* make(Args&&... args) {
        Body* body = nullptr;
        {
            Infra::CGuard guard(m_mutex);
            if (m_index < 0 || m_sealed) {
                return nullptr;
            }
            body = new (std::nothrow) Body(*this, std::forward<Args>(args)...);
            if (body != nullptr && body->GetID() != 0) {
                body->AddRef();
                append(body);
                return body;
            }
        }
        if (body != nullptr) {
            HandlerInternal::Discard(body);  // may end a lambda of the user's
        }
        return nullptr;
    }

    /// Reserves a connection's place on the pool, and gives it back.
    bool take_place();
    void give_place() { m_places.fetch_sub(1, std::memory_order_relaxed); }
    int places_taken() const { return m_places.load(std::memory_order_relaxed); }

    // The end, in this order. `stop` makes it of a set of pools, and does not destroy them.
    static StopReport stop(PoolState* const* pools, size_t count, uint64_t drain_ms);
    void seal_and_drain();
    size_t cut();                        ///< Returns how many lost something.
    bool wait_empty(uint64_t until_ms);  ///< False if members are left at that time.
    size_t left();
    void destroy();  ///< Waits for all members, then for the workers.

private:
    void append(Member* member) INFRA_REQUIRES(m_mutex);
    static void name_the_rest(PoolState* const* pools, size_t count, size_t left);

    std::atomic<int> m_index{-1};
    Member* m_mailbox = nullptr;
    std::atomic<int> m_places{0};
    Infra::CSemaphore m_empty{0};  ///< Posted once: sealed and without members.
    Infra::CMutex m_mutex{Infra::LockClass::KIT_POOL};
    Member* m_first INFRA_GUARDED_BY(m_mutex) = nullptr;
    size_t m_count INFRA_GUARDED_BY(m_mutex) = 0;
    bool m_sealed INFRA_GUARDED_BY(m_mutex) = false;
};

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
