// CPoolSet: private pools for more clients than one pool can watch.
#include <Reticor/PoolSet.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstddef>
#include <new>
#include <utility>

#include <Infra/LockClasses.h>
#include <Infra/Log.h>
#include <Infra/Mutex.h>
#include <Reticor/NetHandler.h>
#include <Reticor/NetThread.h>

namespace Orvex::Reticor {

namespace {

constexpr unsigned int DIRECTIONS = SOCK_READ | SOCK_WRITE | SOCK_EXCEPT;

/// What is reserved in one pool.
struct Reserved {
    std::array<int, 3> taken{};  ///< For reading, writing, exceptions.

    /// How many more clients with that mask, which names a direction, there is room for.
    int room(unsigned int mask) const {
        int least = INT_MAX;
        for (size_t i = 0; i < taken.size(); ++i) {
            least = (mask >> i & 1) != 0 ? std::min(least, CPoolSet::PLACES - taken[i]) : least;
        }
        return least;
    }
    int sum() const { return taken[0] + taken[1] + taken[2]; }
    void add(unsigned int mask, int count) {
        for (size_t i = 0; i < taken.size(); ++i) {
            taken[i] += (mask >> i & 1) != 0 ? count : 0;
        }
    }
};

}  // namespace

/// What the set and its places share. Goes with the last of them.
struct __attribute__((visibility("hidden"))) CPoolSet::State {
    State() = default;
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    void AddRef() { m_refs.fetch_add(1, std::memory_order_relaxed); }
    void DecRef() {
        if (m_refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete this;
        }
    }

    /// The number of the pool that is to take one more client; the count of pools if none can.
    unsigned int choose(unsigned int mask) const INFRA_REQUIRES(m_mutex) {
        unsigned int best = m_count;
        for (unsigned int i = 0; i < m_count; ++i) {
            const bool better = best == m_count || m_reserved[i].sum() < m_reserved[best].sum();
            best = better && m_reserved[i].room(mask) > 0 ? i : best;
        }
        return best;
    }

    std::atomic<int> m_refs{1};
    unsigned int m_count = 0;                 ///< Of pools. Constant once the set is created,
    std::array<int, MOST_POOLS> m_indices{};  ///< as are their indices.
    mutable Infra::CMutex m_mutex{Infra::LockClass::POOL_SET};
    std::array<Reserved, MOST_POOLS> m_reserved INFRA_GUARDED_BY(m_mutex);
};

// ---- the set -------------------------------------------------------------------------------------------

CPoolSet::CPoolSet() : m_state(nullptr) {}

CPoolSet::~CPoolSet() {
    Destroy();
}

int CPoolSet::Create(unsigned int pools, unsigned int threads, bool file_io) {
    if (m_state != nullptr || pools == 0 || pools > MOST_POOLS) {
        INFRA_LOG(2, "Can't create %u pools, a set that has none takes 1 to %u!\n", pools, MOST_POOLS);
        return -1;
    }
    m_state = new (std::nothrow) State;
    if (m_state == nullptr) {
        INFRA_LOG(2, "Can't create %u pools, there is no memory!\n", pools);
        return -1;
    }
    while (m_state->m_count < pools) {
        const int index = CNetThread::CreatePrivatePool(threads, file_io);
        if (index < 0) {
            Destroy();
            return -1;
        }
        m_state->m_indices[m_state->m_count++] = index;
    }
    return 0;
}

int CPoolSet::Destroy() {
    State* const state = std::exchange(m_state, nullptr);
    if (state == nullptr) {
        return -1;
    }
    for (unsigned int i = 0; i < state->m_count; ++i) {
        CNetThread::DestroyPrivatePool(state->m_indices[i]);
    }
    state->DecRef();
    return 0;
}

int CPoolSet::Next(unsigned int mask, Place& place) {
    mask &= DIRECTIONS;
    if (m_state == nullptr || mask == 0) {
        return -1;
    }
    Place found;
    {
        Infra::CGuard guard(m_state->m_mutex);
        found.m_number = m_state->choose(mask);
        if (found.m_number == m_state->m_count) {
            return -1;
        }
        m_state->m_reserved[found.m_number].add(mask, 1);
    }
    m_state->AddRef();
    found.m_state = m_state;
    found.m_mask = mask;
    place = std::move(found);
    return 0;
}

int CPoolSet::GetRoom(unsigned int mask) const {
    mask &= DIRECTIONS;
    if (m_state == nullptr || mask == 0) {
        return 0;
    }
    int room = 0;
    Infra::CGuard guard(m_state->m_mutex);
    for (unsigned int i = 0; i < m_state->m_count; ++i) {
        room += m_state->m_reserved[i].room(mask);
    }
    return room;
}

// ---- a place -------------------------------------------------------------------------------------------

CPoolSet::Place::Place(Place&& other) noexcept
    : m_state(std::exchange(other.m_state, nullptr)), m_number(other.m_number), m_mask(other.m_mask) {}

CPoolSet::Place& CPoolSet::Place::operator=(Place&& other) noexcept {
    if (this != &other) {
        Release();
        m_state = std::exchange(other.m_state, nullptr);
        m_number = other.m_number;
        m_mask = other.m_mask;
    }
    return *this;
}

CPoolSet::Place::~Place() {
    Release();
}

int CPoolSet::Place::GetPool() const {
    return m_state != nullptr ? m_state->m_indices[m_number] : -1;
}

void CPoolSet::Place::Release() {
    State* const state = std::exchange(m_state, nullptr);
    if (state == nullptr) {
        return;
    }
    {
        Infra::CGuard guard(state->m_mutex);
        state->m_reserved[m_number].add(m_mask, -1);
    }
    state->DecRef();
}

}  // namespace Orvex::Reticor
