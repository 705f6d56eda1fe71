// ClassRows: the names of handler classes, and the row in which each is counted.
#include "Core/count/ClassRows.h"

#include <cxxabi.h>

#include <cstdlib>
#include <cstring>

namespace Orvex::Reticor {

Infra::CMutex ClassRows::sm_mutex{Infra::LockClass::CLASS_ROWS};
ClassRows::Place ClassRows::sm_places[PLACES];
size_t ClassRows::sm_taken = 0;
uint32_t ClassRows::sm_rows = 1;
std::atomic<const char*> ClassRows::sm_names[COUNT];
std::atomic<const char*> ClassRows::sm_readable[COUNT];
char ClassRows::sm_room[ROOM];
size_t ClassRows::sm_used = 0;

uint32_t ClassRows::Find(const void* vtable) {
    // A fourth of the places is never taken, so each search ends at a free one.
    for (size_t i = first_place(vtable);; i = (i + 1) % PLACES) {
        const void* const found = sm_places[i].vtable.load(std::memory_order_acquire);
        if (found == vtable) {
            return sm_places[i].row.load(std::memory_order_relaxed);
        }
        if (found == nullptr) {
            return NOT_CALLED;
        }
    }
}

uint32_t ClassRows::row_of(const char* name) {
    for (uint32_t row = 1; row < sm_rows; ++row) {
        if (std::strcmp(sm_names[row].load(std::memory_order_relaxed), name) == 0) {
            return row;
        }
    }
    const size_t size = std::strlen(name) + 1;
    if (sm_rows == OTHERS || size > ROOM - sm_used) {
        return OTHERS;
    }
    char* const copy = sm_room + sm_used;
    sm_used += size;
    std::memcpy(copy, name, size);
    sm_names[sm_rows].store(copy, std::memory_order_release);
    return sm_rows++;
}

uint32_t ClassRows::Enter(const void* vtable, const char* name) {
    Infra::CGuard guard(sm_mutex);
    if (const uint32_t known = Find(vtable)) {
        return known;
    }
    const uint32_t row = row_of(name);
    if (sm_taken < PLACES * 3 / 4) {
        size_t i = first_place(vtable);
        while (sm_places[i].vtable.load(std::memory_order_relaxed) != nullptr) {
            i = (i + 1) % PLACES;
        }
        sm_places[i].row.store(row, std::memory_order_relaxed);
        sm_places[i].vtable.store(vtable, std::memory_order_release);
        ++sm_taken;
    }
    return row;
}

const char* ClassRows::Name(uint32_t row) {
    if (row == NOT_CALLED) {
        return "not called yet";
    }
    if (row == OTHERS) {
        return "other classes";
    }
    if (const char* const readable = sm_readable[row].load(std::memory_order_acquire)) {
        return readable;
    }
    const char* const name = sm_names[row].load(std::memory_order_acquire);
    int status = 0;
    char* const made = name != nullptr ? abi::__cxa_demangle(name, nullptr, nullptr, &status) : nullptr;
    if (made == nullptr) {
        return name != nullptr ? name : "";
    }
    const char* first = nullptr;
    if (sm_readable[row].compare_exchange_strong(first, made, std::memory_order_acq_rel)) {
        return made;
    }
    std::free(made);  // another reader was quicker
    return first;
}

}  // namespace Orvex::Reticor
