// PoolState: the list of what lives on a pool of the kit, and its end.
#include "Kit/PoolState.h"

#include <cstdio>
#include <cstring>

#include <Infra/Log.h>
#include <Infra/Time.h>
#include <Reticor/NetThread.h>

#include "Kit/resolve/Resolver.h"

namespace Orvex::Reticor::Kit {
inline namespace v1 {

namespace {

constexpr uint64_t GRACE_MS = 1000;  ///< For call-backs that run when all is cut, before they are named.

uint64_t now_ms() {
    return Infra::CTime::getCurrentMilliSecond();
}

}  // namespace

PoolState::~PoolState() {
    if (m_mailbox != nullptr) {
        m_mailbox->DecRef();
    }
}

bool PoolState::open(unsigned int threads, bool file_workers) {
    m_index = CNetThread::CreatePrivatePool(threads, file_workers);
    return m_index >= 0;
}

bool PoolState::take_place() {
    if (m_places.fetch_add(1, std::memory_order_relaxed) < MOST_CONNECTIONS) {
        return true;
    }
    give_place();
    return false;
}

void PoolState::append(Member* member) {
    member->m_next = m_first;
    if (m_first != nullptr) {
        m_first->m_before = member;
    }
    m_first = member;
    ++m_count;
}

void PoolState::gone(Member* member) {
    Infra::CGuard guard(m_mutex);
    (member->m_before != nullptr ? member->m_before->m_next : m_first) = member->m_next;
    if (member->m_next != nullptr) {
        member->m_next->m_before = member->m_before;
    }
    if (--m_count == 0 && m_sealed) {
        m_empty.post();
    }
}

void PoolState::seal_and_drain() {
    Infra::CGuard guard(m_mutex);
    m_sealed = true;
    for (Member* member = m_first; member != nullptr; member = member->m_next) {
        member->drain();
    }
}

size_t PoolState::cut() {
    Infra::CGuard guard(m_mutex);
    size_t lost = 0;
    for (Member* member = m_first; member != nullptr; member = member->m_next) {
        lost += member->cut() ? 1 : 0;
    }
    return lost;
}

size_t PoolState::left() {
    Infra::CGuard guard(m_mutex);
    return m_count;
}

bool PoolState::wait_empty(uint64_t until_ms) {
    if (left() == 0) {
        return true;
    }
    const uint64_t now = now_ms();
    const uint64_t rest = until_ms > now ? until_ms - now : 0;
    constexpr uint64_t MOST = 1 << 30;
    m_empty.pend(static_cast<unsigned int>(rest < MOST ? rest : MOST));
    return left() == 0;
}

StopReport PoolState::stop(PoolState* const* pools, size_t count, uint64_t drain_ms) {
    StopReport report;
    const uint64_t drained_ms = now_ms() + drain_ms;
    for (size_t i = 0; i < count; ++i) {
        pools[i]->seal_and_drain();
    }
    for (size_t i = 0; i < count; ++i) {
        pools[i]->wait_empty(drained_ms);
    }
    for (size_t i = 0; i < count; ++i) {
        report.cut += pools[i]->cut();
    }
    const uint64_t cut_ms = now_ms() + GRACE_MS;
    for (size_t i = 0; i < count; ++i) {
        report.stayed += pools[i]->wait_empty(cut_ms) ? 0 : pools[i]->left();
    }
    if (report.stayed != 0) {
        name_the_rest(pools, count, report.stayed);
    }
    return report;
}

void PoolState::name_the_rest(PoolState* const* pools, size_t count, size_t left) {
    constexpr size_t MOST_KINDS = 8;
    struct {
        const char* kind;
        size_t count;
    } kinds[MOST_KINDS] = {};
    for (size_t i = 0; i < count; ++i) {
        Infra::CGuard guard(pools[i]->m_mutex);
        for (const Member* member = pools[i]->m_first; member != nullptr; member = member->m_next) {
            size_t at = 0;
            while (at + 1 < MOST_KINDS && kinds[at].kind != nullptr &&
                   std::strcmp(kinds[at].kind, member->kind()) != 0) {
                ++at;
            }
            kinds[at].kind = member->kind();
            ++kinds[at].count;
        }
    }
    char text[256] = "";
    size_t length = 0;
    for (size_t at = 0; at < MOST_KINDS && kinds[at].kind != nullptr && length < sizeof text - 1; ++at) {
        const int written = std::snprintf(text + length, sizeof text - length, "%s%zu of class %s",
                                          at == 0 ? "" : ", ", kinds[at].count, kinds[at].kind);
        length += written > 0 ? static_cast<size_t>(written) : 0;
    }
    INFRA_LOG_STATIC(2, "the pools are stopped, but %zu stay in call-backs that do not return: %s\n", left,
                     text);
}

void PoolState::destroy() {
    if (m_index < 0) {
        return;
    }
    seal_and_drain();
    cut();
    while (!wait_empty(UINT64_MAX)) {
    }
    CNetThread::DestroyPrivatePool(m_index);
    Resolver::reap();
    m_index = -1;
}

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
