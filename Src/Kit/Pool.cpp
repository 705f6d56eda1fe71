// Pool: the face of PoolState.
#include <Reticor/kit/Pool.h>

#include <new>
#include <utility>

#include <Infra/Log.h>

#include "Kit/MailboxBody.h"
#include "Kit/PoolState.h"
#include "Kit/call/UserCall.h"
#include "Tool/task/FileTask.h"

namespace Orvex::Reticor::Kit {
inline namespace v1 {

namespace {

bool post_to(PoolState* state, MailboxBody::Way way, UniqueFunction<void()>& call) {
    return state != nullptr && static_cast<bool>(call) &&
           static_cast<MailboxBody*>(state->mailbox())->post(way, call);
}

}  // namespace

Pool::Pool(unsigned int threads, bool file_workers) : m_state(new (std::nothrow) PoolState) {
    if (m_state == nullptr) {
        INFRA_LOG(2, "no memory for a pool of the kit\n");
        return;
    }
    if (m_state->open(threads, file_workers)) {
        m_state->set_mailbox(m_state->make<MailboxBody>());
    }
    if (m_state->mailbox() == nullptr) {
        m_state->destroy();
        delete std::exchange(m_state, nullptr);
    }
}

Pool::~Pool() {
    stop();
    if (m_state != nullptr) {
        m_state->destroy();
        delete m_state;
    }
}

Pool::Pool(Pool&& other) noexcept : m_state(std::exchange(other.m_state, nullptr)) {}

Pool& Pool::operator=(Pool&& other) noexcept {
    std::swap(m_state, other.m_state);
    Pool before(std::move(other));
    return *this;
}

bool Pool::isOpen() const noexcept {
    return index() >= 0;
}

int Pool::index() const noexcept {
    return m_state != nullptr ? m_state->index() : -1;
}

bool Pool::post(UniqueFunction<void()> call) {
    return post_to(m_state, MailboxBody::PLAIN, call);
}

bool Pool::postSerial(UniqueFunction<void()> call) {
    return post_to(m_state, MailboxBody::SERIAL, call);
}

bool Pool::postIO(UniqueFunction<void()> call) {
    if (g_file_threads.load(std::memory_order_acquire) == nullptr) {
        INFRA_LOG(2,
                  "postIO: no file workers run, so the call is destroyed; make a pool with file_workers\n");
        return false;
    }
    return post_to(m_state, MailboxBody::IO, call);
}

StopReport Pool::stop(std::chrono::milliseconds drain) {
    if (!isOpen()) {
        return {};
    }
    if (UserCall::owner() != nullptr) {
        INFRA_LOG(2, "a pool cannot be stopped inside a call-back: it would wait for itself\n");
        return {};
    }
    const StopReport report =
        PoolState::stop(&m_state, 1, drain.count() > 0 ? static_cast<uint64_t>(drain.count()) : 0);
    m_state->destroy();
    return report;
}

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
