// TimerBody: calls by the clock.
#include "Kit/TimerBody.h"

#include <utility>

#include <Infra/Time.h>

#include "Kit/call/DelayedCall.h"
#include "Kit/call/UserCall.h"

namespace Orvex::Reticor::Kit {
inline namespace v1 {

TimerBody::TimerBody(PoolState& pool, int64_t delay_us, int64_t period_us,
                     UniqueFunction<void(uint64_t)> call)
    : Member(pool),
      m_period_us(period_us),
      m_start_us(Infra::CTime::getCurrentMicroSecond()),
      m_due_us(m_start_us + static_cast<uint64_t>(delay_us > 0 ? delay_us : 0)),
      m_call(std::move(call)) {}

bool TimerBody::start() {
    const long timer = SetTimer(clamp_delay(static_cast<int64_t>(m_due_us - m_start_us)));
    if (timer == -1) {
        return false;
    }
    m_timer.store(timer, std::memory_order_release);
    return true;
}

void TimerBody::cancel() {
    m_armed.store(false, std::memory_order_release);
    if (m_word.signal(END)) {
        tell_self(1);
    }
}

int TimerBody::handle_message(long, unsigned int, long) {
    if (m_word.enter(0)) {
        run();
    }
    return 0;
}

int64_t TimerBody::handle_timeout(long) {
    if (!m_word.enter_free()) {  // it is being cancelled
        if (m_word.enter(END)) {
            run();
        }
        return -1;
    }
    int64_t again = -1;
    const uint64_t now = Infra::CTime::getCurrentMicroSecond();
    if (!m_armed.load(std::memory_order_acquire)) {
        again = -1;
    } else if (!is_due(m_due_us, now)) {
        again = clamp_delay(static_cast<int64_t>(m_due_us - now));
    } else {
        again = beat(now);
    }
    if (again == -1) {
        m_timer.store(-1, std::memory_order_relaxed);
        m_word.enter(END);
    }
    return run() ? again : -1;
}

// Time number n is at start + n * period, however late a call was.
int64_t TimerBody::beat(uint64_t now) {
    uint64_t missed = 0;
    if (m_period_us > 0) {
        const auto period = static_cast<uint64_t>(m_period_us);
        const uint64_t over = (now + static_cast<uint64_t>(LEAST_DELAY_US) - m_start_us) / period;
        missed = over > m_beats + 1 ? over - m_beats - 1 : 0;
        m_beats += missed + 1;
    } else {
        m_armed.store(false, std::memory_order_release);
    }
    const auto thread_ends = [this] {
        m_word.abandon();
        cancel();
    };
    const bool good = UserCall::run(
        this, kind(), [&] { m_call(missed); }, thread_ends);
    if (m_period_us <= 0 || !good) {
        m_armed.store(false, std::memory_order_release);
        return -1;
    }
    m_due_us = m_start_us + (m_beats + 1) * static_cast<uint64_t>(m_period_us);
    const uint64_t after = Infra::CTime::getCurrentMicroSecond();
    return clamp_delay(m_due_us > after ? static_cast<int64_t>(m_due_us - after) : 0);
}

// False when the timer has ended.
bool TimerBody::run() {
    while (!m_over) {
        const uint32_t bits = m_word.leave();
        if (bits == 0) {
            return true;
        }
        if ((bits & END) != 0) {
            finalize();
        }
    }
    return false;
}

void TimerBody::finalize() {
    m_over = true;
    const long timer = m_timer.exchange(-1, std::memory_order_acq_rel);
    if (timer != -1) {
        DestroyTimer(timer);
    }
    UserCall::run(
        this, kind(), [this] { m_call = nullptr; }, [] {});
    leave();
    Close();
}

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
