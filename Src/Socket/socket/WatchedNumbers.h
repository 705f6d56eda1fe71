// WatchedNumbers: which descriptor numbers are registered, for the one who closes one of them.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Orvex::Reticor {

/// A socket that is closed while it is registered leaves a registration of a dead number behind, and whoever
/// gets the number next gets that too. Sockets know nothing of registrations; those stand above, and tell
/// this of each. Numbers share counters modulo the table's size, so that a number may seem to be registered
/// when another one is.
///
/// Thread safety: from any thread, without a lock.
class WatchedNumbers {
public:
    using Listener = void (*)(int fd);

    /// The number is registered, once more if it was already.
    static void Enter(uint32_t fd) { counter_of(fd).fetch_add(1, std::memory_order_relaxed); }
    static void Leave(uint32_t fd) { counter_of(fd).fetch_sub(1, std::memory_order_relaxed); }

    /// Is called when a number is about to be closed that may be registered, on the thread that closes it,
    /// which may hold any lock of a product.
    static void SetListener(Listener listener) { sm_listener.store(listener, std::memory_order_release); }

    /// The number is about to be closed.
    static void NoteClose(int fd) {
        const Listener listener = sm_listener.load(std::memory_order_acquire);
        if (listener != nullptr &&
            counter_of(static_cast<uint32_t>(fd)).load(std::memory_order_relaxed) != 0) {
            listener(fd);
        }
    }

private:
    static constexpr size_t COUNTERS = 16384;

    static std::atomic<uint16_t>& counter_of(uint32_t fd) { return sm_counters[fd % COUNTERS]; }

    // Constant-initialised and without a destructor: sockets are closed before main and after exit too.
    inline static std::array<std::atomic<uint16_t>, COUNTERS> sm_counters{};
    inline static std::atomic<Listener> sm_listener{nullptr};
};

}  // namespace Orvex::Reticor
