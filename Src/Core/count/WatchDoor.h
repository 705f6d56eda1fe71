// WatchDoor: how the watch over calls sleeps while nothing is called, and hears of it when something is.
#pragma once

#include <atomic>
#include <cstdint>

#include <Infra/Semaphore.h>

namespace Orvex::Reticor {

/// The watch parks only after it has seen that no worker is awake, by the mutex of each queue. A worker that
/// comes back from the queue later than that sees that it is parked: the mutex is between the two.
///
/// Thread safety: Knock on any thread; the rest for the watch.
class WatchDoor {
public:
    /// After the queue's mutex was left, ahead of a call.
    static void Knock() {
        if (__builtin_expect(sm_parked.load(std::memory_order_relaxed), 0)) {
            wake();
        }
    }

    /// On a thread that is no worker, after it has set `shown`: either the watch sees that before it sleeps,
    /// or this sees that it sleeps.
    static void KnockAfter(std::atomic<uint64_t>& shown) {
        shown.fetch_add(0, std::memory_order_seq_cst);
        if (__builtin_expect(sm_parked.load(std::memory_order_seq_cst), 0)) {
            wake();
        }
    }

    static void SetParked(bool parked) { sm_parked.store(parked, std::memory_order_seq_cst); }
    /// Until somebody knocks.
    static void Rest() { sm_knocks.pend(); }
    /// The same for so long at most.
    static void RestFor(uint64_t us) { sm_knocks.pendFor(us); }
    /// As if somebody knocked.
    static void Rouse() { sm_knocks.post(); }

private:
    static void wake();

    static std::atomic<bool> sm_parked;
    static Infra::CSemaphore sm_knocks;
};

}  // namespace Orvex::Reticor
