// Seam: tells the list of held locks, the table of their orders, ThreadSanitizer and an observer.
#include <Infra/Seam.h>

#if defined(RETICOR_HELD_LOCKS)

#include <atomic>

#include <Infra/HeldLocks.h>
#include <Infra/LockClass.h>

#include "LockOrders.h"

#if defined(__SANITIZE_THREAD__)
#define INFRA_UNDER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define INFRA_UNDER_TSAN 1
#endif
#endif
#if defined(INFRA_UNDER_TSAN)
#include <sanitizer/tsan_interface.h>
#endif

namespace Orvex::Infra {

namespace {

INFRA_CONSTINIT std::atomic<SeamObserver*> g_observer{nullptr};

SeamObserver* observer() noexcept {
    return g_observer.load(std::memory_order_acquire);
}

#if defined(INFRA_UNDER_TSAN)

// Between these pairs it looks away from the atomics by which a lock is made, and takes the lock itself for
// the order between threads; so it also sees locks that are entered in two orders.
unsigned flags_of(LockWay way) noexcept {
    switch (way) {
        case LockWay::READ:
            return __tsan_mutex_read_lock;
        case LockWay::TRY:
            return __tsan_mutex_try_lock;
        case LockWay::ENTER:
            break;
    }
    return 0;
}

void tsan_before_lock(const void* lock, LockWay way) noexcept {
    __tsan_mutex_pre_lock(const_cast<void*>(lock), flags_of(way));
}
void tsan_after_lock(const void* lock, LockWay way, bool taken) noexcept {
    const unsigned failed = taken ? 0 : __tsan_mutex_try_lock_failed;
    __tsan_mutex_post_lock(const_cast<void*>(lock), flags_of(way) | failed, 0);
}
void tsan_before_unlock(const void* lock, LockWay way) noexcept {
    __tsan_mutex_pre_unlock(const_cast<void*>(lock), way == LockWay::READ ? flags_of(way) : 0);
}
void tsan_after_unlock(const void* lock, LockWay way) noexcept {
    __tsan_mutex_post_unlock(const_cast<void*>(lock), way == LockWay::READ ? flags_of(way) : 0);
}

#else

void tsan_before_lock(const void*, LockWay) noexcept {}
void tsan_after_lock(const void*, LockWay, bool) noexcept {}
void tsan_before_unlock(const void*, LockWay) noexcept {}
void tsan_after_unlock(const void*, LockWay) noexcept {}

#endif

}  // namespace

void Seam::beforeLock(const void* lock, LockClass lock_class, LockWay way, LockPlace place) noexcept {
    if (way != LockWay::TRY) {
        HeldLocks::want(lock, lock_class, place);
        for (size_t i = 0; i < HeldLocks::count(); ++i) {
            LockOrders::note(HeldLocks::at(i), lock_class, place);
        }
    }
    tsan_before_lock(lock, way);
}

void Seam::afterLock(const void* lock, LockClass lock_class, LockWay way, LockPlace place,
                     bool taken) noexcept {
    tsan_after_lock(lock, way, taken);
    if (!taken) {
        return;
    }
    HeldLocks::add(HeldLocks::Held{lock, lock_class, way, place});
    if (SeamObserver* const listener = observer()) {
        listener->taken(lock, lock_class, way);
    }
}

void Seam::beforeUnlock(const void* lock, LockWay way) noexcept {
    HeldLocks::remove(lock);
    if (SeamObserver* const listener = observer()) {
        listener->left(lock, way);
    }
    tsan_before_unlock(lock, way);
}

// The lock may be gone by now: only its address is used.
void Seam::afterUnlock(const void* lock, LockWay way) noexcept {
    tsan_after_unlock(lock, way);
}

void Seam::enter_wait(const void* object) noexcept {
    HeldLocks::require(Promise::WAIT);
    if (SeamObserver* const listener = observer()) {
        listener->waits(object);
    }
}

void Seam::leave_wait(const void* object) noexcept {
    if (SeamObserver* const listener = observer()) {
        listener->woke(object);
    }
}

void Seam::posted(const void* object) noexcept {
    if (SeamObserver* const listener = observer()) {
        listener->posted(object);
    }
}

void Seam::thread_begins(const char* name) noexcept {
    if (SeamObserver* const listener = observer()) {
        listener->thread_begins(name);
    }
}

void Seam::thread_ends(const char* name) noexcept {
    HeldLocks::require(Promise::HANDLER);
    if (SeamObserver* const listener = observer()) {
        listener->thread_ends(name);
    }
}

timespec Seam::now() noexcept {
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    if (SeamObserver* const listener = observer()) {
        listener->reads(now);
    }
    return now;
}

SeamObserver* Seam::set_observer(SeamObserver* new_observer) noexcept {
    return g_observer.exchange(new_observer, std::memory_order_acq_rel);
}

}  // namespace Orvex::Infra

#endif
