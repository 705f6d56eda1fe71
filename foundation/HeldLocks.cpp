// HeldLocks: the list of each thread, and the table of promises.
#include <Infra/HeldLocks.h>

#if defined(RETICOR_HELD_LOCKS)

#include <cstdio>
#include <cstdlib>

#include <Infra/LockClasses.h>

namespace Orvex::Infra {

namespace {

struct List {
    size_t count;
    HeldLocks::Held held[HeldLocks::LIMIT];
};

thread_local List t_list;

// What the public headers say of the locks under which a call comes. Whatever is not here may not be held.
struct Row {
    const char* what;
    bool any;
    LockClass allowed[11];
};

constexpr Row PROMISES[] = {
    {"a handler is called", false, {}},
    {"a Release is called", false, {LockClass::MEDIA_CORE, LockClass::SENDER_LIST}},
    {"a tap is called", false, {LockClass::MEDIA_CORE, LockClass::SENDER_LIST}},
    {"a send procedure is called", false, {LockClass::MEDIA_CORE, LockClass::SENDER_LIST}},
    {"a filter is asked", false, {LockClass::MEDIA_CORE, LockClass::SENDER_LIST}},
    {"a log sink is called", true, {}},
    // Locks of operations that start or end threads, and those under which a product's code runs.
    {"the thread waits for others",
     false,
     {LockClass::SETUP, LockClass::R3_START, LockClass::THREAD_LIFE, LockClass::RECEIVER,
      LockClass::RECEIVER_GROUPS, LockClass::RECEIVER_THREAD, LockClass::TICK, LockClass::FILE_PASS,
      LockClass::SENDER_LIST, LockClass::MEDIA_CORE, LockClass::STATS_SERVING}},
};

[[noreturn]] void die(const char* what, LockClass lock_class, LockPlace place) noexcept {
    std::fprintf(stderr, "%s:%d: held locks: %s", place.file, place.line, what);
    if (lock_class != UNNAMED_LOCK) {
        std::fprintf(stderr, " (%s)", lock_class_word(lock_class));
    }
    std::fprintf(stderr, ", and this thread holds\n");
    for (size_t i = 0; i < t_list.count; ++i) {
        const HeldLocks::Held& held = t_list.held[i];
        std::fprintf(stderr, "    %s%s, entered at %s:%d\n", lock_class_word(held.lock_class),
                     held.way == LockWay::READ ? " for reading" : "", held.place.file, held.place.line);
    }
    std::fflush(stderr);
    std::abort();
}

bool allows(const Row& row, LockClass lock_class) noexcept {
    if (row.any || lock_class == UNNAMED_LOCK) {
        return true;
    }
    for (const LockClass allowed : row.allowed) {
        if (allowed == lock_class) {
            return true;
        }
    }
    return false;
}

}  // namespace

size_t HeldLocks::count() noexcept {
    return t_list.count;
}

const HeldLocks::Held& HeldLocks::at(size_t index) noexcept {
    return t_list.held[index];
}

bool HeldLocks::holds(const void* lock) noexcept {
    for (size_t i = 0; i < t_list.count; ++i) {
        if (t_list.held[i].lock == lock) {
            return true;
        }
    }
    return false;
}

void HeldLocks::want(const void* lock, LockClass lock_class, LockPlace place) noexcept {
    if (holds(lock)) {
        die("a lock is wanted that would wait for itself", lock_class, place);
    }
    // Two buffers may be under way at a time: a call-back of one puts a packet into the other.
    if (lock_class == UNNAMED_LOCK || lock_class == LockClass::MEDIA_CORE) {
        return;
    }
    for (size_t i = 0; i < t_list.count; ++i) {
        if (t_list.held[i].lock_class == lock_class) {
            die("a second lock of a class is wanted", lock_class, place);
        }
    }
}

void HeldLocks::add(const Held& held) noexcept {
    if (t_list.count == LIMIT) {
        die("there is no room in the list for another one", held.lock_class, held.place);
    }
    t_list.held[t_list.count++] = held;
}

void HeldLocks::remove(const void* lock) noexcept {
    size_t i = t_list.count;
    while (i > 0 && t_list.held[i - 1].lock != lock) {
        --i;
    }
    if (i == 0) {
        die("a lock is left that is not held", UNNAMED_LOCK, LockPlace::here());
    }
    for (; i < t_list.count; ++i) {
        t_list.held[i - 1] = t_list.held[i];
    }
    --t_list.count;
}

void HeldLocks::require(Promise promise, LockPlace place) noexcept {
    const Row& row = PROMISES[static_cast<size_t>(promise)];
    for (size_t i = 0; i < t_list.count; ++i) {
        if (!allows(row, t_list.held[i].lock_class)) {
            die(row.what, UNNAMED_LOCK, place);
        }
    }
}

}  // namespace Orvex::Infra

#endif
