// TimerBody: what a Timer or an Every refers to.
#pragma once

#include <atomic>
#include <cstdint>

#include <Reticor/kit/UniqueFunction.h>

#include "Kit/PoolState.h"
#include "Kit/call/SerialWord.h"

namespace Orvex::Reticor::Kit {
inline namespace v1 {

/// The call, the end and the destruction of the lambda come one after the other by the word; all of them
/// are on the pool.
class TimerBody final : public Member {
public:
    /// A `period_us` of 0 is for one call, which takes the number of missed ones all the same.
    TimerBody(PoolState& pool, int64_t delay_us, int64_t period_us, UniqueFunction<void(uint64_t)> call);

    /// False, with the body ended, if there is no timer to be had.
    bool start();
    void cancel();
    bool is_armed() const { return m_armed.load(std::memory_order_acquire); }

    const char* kind() const override { return m_period_us > 0 ? "Every" : "Timer"; }
    void drain() override { cancel(); }
    bool cut() override {
        cancel();
        return false;
    }

    int64_t handle_timeout(long id) override;
    int handle_message(long sender, unsigned int msg, long attach) override;

private:
    static constexpr uint32_t END = SerialWord::FIRST_BIT;

    bool run();
    int64_t beat(uint64_t now_us);
    void finalize();

    const int64_t m_period_us;
    const uint64_t m_start_us;
    SerialWord m_word{false};
    std::atomic<bool> m_armed{true};
    std::atomic<long> m_timer{-1};

    // The holder's.
    uint64_t m_due_us;     ///< Of the next call.
    uint64_t m_beats = 0;  ///< Times that are over, the missed ones included.
    bool m_over = false;
    UniqueFunction<void(uint64_t)> m_call;
};

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
