// HeldLocks: the locks that a thread holds, and what is promised of them to code of a product. In builds with
// RETICOR_HELD_LOCKS alone; in others INFRA_PROMISE leaves nothing behind.
#pragma once

#if defined(RETICOR_HELD_LOCKS)

#include <cstddef>
#include <cstdint>

#include <Infra/Export.h>
#include <Infra/LockClass.h>

namespace Orvex::Infra {

/// What is about to happen on the calling thread. Which locks it may hold then stands in the source, in one
/// table, as the public headers say it.
enum class Promise : uint8_t { HANDLER, RELEASE, TAP, SEND_PROCEDURE, FRAME_FILTER, LOG_SINK, WAIT };

/// The list of the calling thread. It counts the outermost entries alone, and takes no lock and no memory.
class INFRA_API HeldLocks {
public:
    static constexpr size_t LIMIT = 32;

    struct Held {
        const void* lock;
        LockClass lock_class;
        LockWay way;
        LockPlace place;
    };

    /// Locks that are held, a product's included.
    static size_t count() noexcept;
    static const Held& at(size_t index) noexcept;
    static bool holds(const void* lock) noexcept;

    /// Ends the process, after a line for each held lock, if the thread may not wait for this one: another
    /// one of the class is held, or this one for reading.
    static void want(const void* lock, LockClass lock_class, LockPlace place) noexcept;
    static void add(const Held& held) noexcept;
    static void remove(const void* lock) noexcept;

    /// Ends the process, after a line for each held lock, if one is held that the promise does not allow.
    /// Locks without a class are a product's own, and its own matter.
    static void require(Promise promise, LockPlace place = LockPlace::here()) noexcept;
};

}  // namespace Orvex::Infra

#define INFRA_PROMISE(promise) ::Orvex::Infra::HeldLocks::require(::Orvex::Infra::Promise::promise)

#else

#define INFRA_PROMISE(promise) static_cast<void>(0)

#endif
