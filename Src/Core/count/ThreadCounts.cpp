// ThreadCounts: what each thread counts for itself.
#include "Core/count/ThreadCounts.h"

#include <new>
#include <utility>

#include <Infra/Thread.h>

namespace Orvex::Reticor {

const char* call_name(CallKind kind) {
    static constexpr const char* NAMES[] = {"",
                                            "handle_input",
                                            "handle_output",
                                            "handle_exception",
                                            "handle_input_timeout",
                                            "handle_output_timeout",
                                            "handle_timeout",
                                            "handle_message",
                                            "handle_close",
                                            "handle_stream_input",
                                            "handle_stream_write",
                                            "handle_passive_input",
                                            "file task"};
    static_assert(sizeof(NAMES) / sizeof(NAMES[0]) == static_cast<size_t>(CallKind::COUNT), "one for each");
    return kind < CallKind::COUNT ? NAMES[static_cast<size_t>(kind)] : "";
}

INFRA_CONSTINIT ThreadCounts ThreadCounts::sm_shared;
INFRA_CONSTINIT ThreadCounts ThreadCounts::sm_ended;
INFRA_CONSTINIT PoolTally ThreadCounts::sm_ended_pools[POOLS];
Infra::CMutex ThreadCounts::sm_mutex{Infra::LockClass::THREAD_COUNTS};
ThreadCounts* ThreadCounts::sm_first = nullptr;

/// Folds the thread's block into the sums when the thread ends. What it does later than that counts among the
/// threads without one.
struct ThreadCounts::Return {
    bool used = false;
    bool over = false;
    ~Return() {
        over = true;
        if (t_mine != &sm_shared) {
            t_mine->leave();
        }
    }
};

uint64_t ThreadCounts::Calls() const {
    uint64_t calls = 0;
    for (const ClassTally& row : m_classes) {
        calls += row.calls.Get();
    }
    return calls;
}

void ThreadCounts::fold(const PoolTally& ended, PoolTally& sum) {
    for (size_t i = 0; i < SERVED_COUNT; ++i) {
        sum.served[i].Add(ended.served[i].Get());
    }
    sum.wait.Fold(ended.wait);
    sum.run.Fold(ended.run);
}

void ThreadCounts::leave() {
    t_mine = &sm_shared;
    {
        Infra::CGuard guard(sm_mutex);
        *m_link = m_next;
        if (m_next != nullptr) {
            m_next->m_link = m_link;
        }
        for (uint32_t row = 0; row < ClassRows::COUNT; ++row) {
            ClassTally& sum = sm_ended.m_classes[row];
            sum.calls.Add(m_classes[row].calls.Get());
            sum.closed.Add(m_classes[row].closed.Get());
            sum.time_ns.Add(m_classes[row].time_ns.Get());
            sum.timed.Add(m_classes[row].timed.Get());
        }
        if (m_pool >= 0 && m_pool < POOLS) {
            fold(m_pool_tally, sm_ended_pools[m_pool]);
            sm_ended_pools[m_pool].calls.Add(Calls());
        }
    }
    delete this;
}

void ThreadCounts::Attach(int pool) {
    if (t_mine == &sm_shared) {
        Attach(pool, std::unique_ptr<ThreadCounts>(new (std::nothrow) ThreadCounts));
    }
}

void ThreadCounts::Attach(int pool, std::unique_ptr<ThreadCounts> given) {
    static thread_local Return t_return;
    if (given == nullptr || t_mine != &sm_shared || t_return.over) {
        return;
    }
    ThreadCounts* const block = given.release();
    t_return.used = true;  // the first use registers the destructor
    block->m_pool = pool;
    block->m_thread_id = Infra::CThread::getCurrentThreadID();
    block->m_thread = ::pthread_self();
    t_mine = block;
    Infra::CGuard guard(sm_mutex);
    block->m_next = sm_first;
    block->m_link = &sm_first;
    if (sm_first != nullptr) {
        sm_first->m_link = &block->m_next;
    }
    sm_first = block;
}

}  // namespace Orvex::Reticor
