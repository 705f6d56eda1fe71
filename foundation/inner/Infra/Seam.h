// Seam: the one place where locks, waits, posts, threads and the clock meet what watches over them. It is
// there in builds with RETICOR_HELD_LOCKS alone; the locks of all others call nothing.
#pragma once

#if defined(RETICOR_HELD_LOCKS)

#include <time.h>

#include <cstdint>

#include <Infra/Export.h>

namespace Orvex::Infra {

enum class LockClass : uint16_t;

/// Where in the sources a lock is entered.
struct LockPlace {
    const char* file;
    int line;
    static constexpr LockPlace here(const char* file = __builtin_FILE(),
                                    int line = __builtin_LINE()) noexcept {
        return LockPlace{file, line};
    }
};

/// How a lock is entered. A try cannot wait, and so makes no order between locks.
enum class LockWay : uint8_t { ENTER, READ, TRY };

/// What a test hears of the threads' doings, and the clock that it may set. Called on the thread that does
/// it, also under locks; it must not enter one of Infra's itself.
class SeamObserver {
public:
    virtual void taken(const void* /*lock*/, LockClass, LockWay) noexcept {}
    virtual void left(const void* /*lock*/, LockWay) noexcept {}
    virtual void waits(const void* /*object*/) noexcept {}
    virtual void woke(const void* /*object*/) noexcept {}
    virtual void posted(const void* /*object*/) noexcept {}
    virtual void thread_begins(const char* /*name*/) noexcept {}
    virtual void thread_ends(const char* /*name*/) noexcept {}
    /// May put another time in the place of the system's.
    virtual void reads(timespec& /*now*/) noexcept {}

protected:
    ~SeamObserver() = default;
};

/// Every lock of Infra calls the four around an entry and a leave, with the outermost entry of a holder
/// alone.
class INFRA_API Seam {
public:
    static void beforeLock(const void* lock, LockClass lock_class, LockWay way, LockPlace place) noexcept;
    static void afterLock(const void* lock, LockClass lock_class, LockWay way, LockPlace place,
                          bool taken) noexcept;
    static void beforeUnlock(const void* lock, LockWay way) noexcept;
    static void afterUnlock(const void* lock, LockWay way) noexcept;

    /// Around a sleep in which the thread waits for another one or for time to pass: not that of a lock.
    static void enter_wait(const void* object) noexcept;
    static void leave_wait(const void* object) noexcept;
    /// A wait on `object` may be over.
    static void posted(const void* object) noexcept;

    /// First and last on a library thread.
    static void thread_begins(const char* name) noexcept;
    static void thread_ends(const char* name) noexcept;

    /// The monotonic clock.
    static timespec now() noexcept;

    /// Null, the default, for none. Returns the one before. It must outlive every thread that may be in it.
    static SeamObserver* set_observer(SeamObserver* observer) noexcept;
};

}  // namespace Orvex::Infra

#endif
