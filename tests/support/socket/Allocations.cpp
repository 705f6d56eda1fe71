// Allocations: operator new of this test program.
#include "support/socket/Allocations.h"

#include <cerrno>
#include <cstdlib>
#include <new>

namespace Orvex::Testing {

namespace {

thread_local std::size_t count_of_allocations = 0;
thread_local bool no_memory = false;
thread_local bool only_one = false;
thread_local std::size_t successes_left = 0;

}  // namespace

void* allocate(std::size_t size) noexcept {
    ++count_of_allocations;
    if (no_memory && successes_left-- == 0) {
        successes_left = 0;
        no_memory = !only_one;
        errno = ENOMEM;  // as malloc leaves it
        return nullptr;
    }
    return std::malloc(size != 0 ? size : 1);
}

std::size_t allocationCount() {
    return count_of_allocations;
}

NoMemory::NoMemory(std::size_t successes_before) {
    successes_left = successes_before;
    no_memory = true;
}

NoMemory::~NoMemory() {
    no_memory = false;
}

OneAllocationFails::OneAllocationFails(std::size_t successes_before) : NoMemory(successes_before) {
    only_one = true;
}

OneAllocationFails::~OneAllocationFails() {
    only_one = false;
}

}  // namespace Orvex::Testing

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return Orvex::Testing::allocate(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return Orvex::Testing::allocate(size);
}

void* operator new(std::size_t size) {
    void* const memory = Orvex::Testing::allocate(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void* operator new[](std::size_t size) {
    return ::operator new(size);
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete[](void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
