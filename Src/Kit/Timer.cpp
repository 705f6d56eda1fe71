// Timer: the face of TimerBody.
#include <Reticor/kit/Timer.h>

#include <utility>

#include <Infra/Log.h>
#include <Reticor/kit/Pool.h>

#include "Kit/PoolState.h"
#include "Kit/TimerBody.h"

namespace Orvex::Reticor::Kit {
inline namespace v1 {

void Timer::arm(Pool& pool, std::chrono::microseconds delay, std::chrono::microseconds period,
                UniqueFunction<void(uint64_t)> call) {
    PoolState* const state = PoolState::of(pool);
    if (state != nullptr && call) {
        m_body = state->make<TimerBody>(delay.count(), period.count(), std::move(call));
    }
    if (m_body == nullptr || !m_body->start()) {
        INFRA_LOG(2, "a timer without a pool that runs, or without memory, is never called\n");
        cancel();
    }
}

Timer::~Timer() {
    cancel();
}

Timer& Timer::operator=(Timer&& other) noexcept {
    std::swap(m_body, other.m_body);
    Timer before(std::move(other));
    return *this;
}

bool Timer::isArmed() const noexcept {
    return m_body != nullptr && m_body->is_armed();
}

void Timer::cancel() noexcept {
    if (TimerBody* const body = std::exchange(m_body, nullptr)) {
        body->cancel();
        body->DecRef();
    }
}

void Timer::detach() noexcept {
    if (TimerBody* const body = std::exchange(m_body, nullptr)) {
        body->DecRef();
    }
}

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
