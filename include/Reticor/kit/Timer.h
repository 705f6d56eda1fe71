// Timer, Every: a lambda that a pool runs later, once or again and again.
#pragma once

#include <chrono>
#include <cstdint>
#include <type_traits>
#include <utility>

#include <Reticor/Export.h>
#include <Reticor/kit/UniqueFunction.h>

namespace Orvex::Reticor::Kit {
inline namespace v1 {

class Pool;
class TimerBody;

/// Runs a lambda once on a pool, after a time of any length, on a grid of 5 ms. The object owns it: with
/// its end the lambda is not called any more.
///
///     Kit::Timer timer(pool, std::chrono::seconds(3), [] { std::puts("three seconds"); });
///
/// What the lambda captures is destroyed once, on the pool: after the call, or after `cancel`. It is
/// destroyed by the thread that makes the object if there is no pool or no memory, which a line at level 2
/// tells.
///
/// A lambda that throws ends its timer, with a line at level 2.
///
/// Thread safety: any thread, also inside the lambda; one thread at a time for one object.
class RETICOR_API Timer {
public:
    /// Empty.
    Timer() noexcept = default;
    /// Calls `call` once, `delay` from now.
    template <typename F>
    Timer(Pool& pool, std::chrono::microseconds delay, F call) {
        arm(pool, delay, std::chrono::microseconds(0), wrap(std::move(call)));
    }
    /// `cancel`.
    ~Timer();
    /// Takes the lambda over; `other` is empty then.
    Timer(Timer&& other) noexcept : m_body(std::exchange(other.m_body, nullptr)) {}
    /// The same; the lambda that was held before is cancelled.
    Timer& operator=(Timer&& other) noexcept;

    /// Whether the lambda is still to be called.
    bool isArmed() const noexcept;

    /// The lambda is not called from now on. Does not wait: a call that runs on another thread goes on.
    void cancel() noexcept;

    /// Lets it run without this object, which is empty then. It ends with its pool at the latest.
    void detach() noexcept;

protected:
    /// Calls with the number of missed times; once, if the period is 0.
    void arm(Pool& pool, std::chrono::microseconds delay, std::chrono::microseconds period,
             UniqueFunction<void(uint64_t)> call);

    /// A lambda that takes that number, or does not want it.
    template <typename F>
    static UniqueFunction<void(uint64_t)> wrap(F call) {
        if constexpr (std::is_invocable_v<F&, uint64_t>) {
            return UniqueFunction<void(uint64_t)>(std::move(call));
        } else {
            return UniqueFunction<void(uint64_t)>([call = std::move(call)](uint64_t) mutable { call(); });
        }
    }

private:
    TimerBody* m_body = nullptr;  ///< A reference.
};

/// Runs a lambda again and again, at `start + n * period` by the clock, so that lateness never adds up:
/// every call comes on the grid of 5 ms after its time, or up to 3 ms before it. Calls never overlap. Times
/// that passed while a call ran, or that a period below 5 ms has between two points of the grid, are not
/// made up for: the lambda is told how many it missed, if it takes a number.
///
///     Kit::Every tick(pool, std::chrono::milliseconds(20), [](uint64_t missed) { ... });
class Every : public Timer {
public:
    /// Empty.
    Every() noexcept = default;
    /// Calls `call` every `period`, for the first time one period from now. A period of 0 or less counts as
    /// 5 ms.
    template <typename F>
    Every(Pool& pool, std::chrono::microseconds period, F call) {
        const std::chrono::microseconds grid = std::chrono::milliseconds(5);
        const std::chrono::microseconds wanted = period.count() > 0 ? period : grid;
        arm(pool, wanted, wanted, wrap(std::move(call)));
    }
};

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
