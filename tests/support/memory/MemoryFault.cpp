// MemoryFault, QuietLog: operator new of this test program, and a log sink with room of its own.
#include "support/memory/MemoryFault.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include <Infra/Log.h>

namespace Orvex::Testing {

namespace {

struct Fault {
    std::atomic<bool> on{false};
    std::atomic<bool> all{false};
    std::atomic<bool> others{false};
    std::atomic<long> successes_left{0};
    std::atomic<bool> hit{false};
};

Fault g_fault;
thread_local bool t_owner = false;
thread_local size_t t_count = 0;

bool refuses() {
    ++t_count;
    if (!g_fault.on.load(std::memory_order_acquire) || g_fault.others == t_owner) {
        return false;
    }
    const long left = g_fault.successes_left.fetch_sub(1);
    if (left > 0 || (left < 0 && !g_fault.all)) {
        return false;
    }
    g_fault.hit = true;
    errno = ENOMEM;
    return true;
}

void* allocate(size_t size) noexcept {
    return refuses() ? nullptr : std::malloc(size != 0 ? size : 1);
}

void* allocate(size_t size, std::align_val_t alignment) noexcept {
    const auto unit = static_cast<size_t>(alignment);
    return refuses() ? nullptr : std::aligned_alloc(unit, (size + unit - 1) / unit * unit);
}

void* or_throw(void* memory) {
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

// ---- the log

constexpr size_t MOST_LINES = 64;
constexpr size_t MOST_BYTES = 256;

std::atomic<size_t> g_lines{0};
char g_text[MOST_LINES][MOST_BYTES];
const Infra::LogSink* g_sink_before = nullptr;

void write_line(void*, const Infra::LogLine& line) {
    if (line.level > 2) {
        return;
    }
    const size_t number = g_lines.fetch_add(1);
    if (number < MOST_LINES) {
        std::snprintf(g_text[number], MOST_BYTES, "%s", line.text);
    }
}

const Infra::LogSink g_sink = {&write_line, nullptr};

}  // namespace

MemoryFault::MemoryFault(Whose whose, Extent extent, size_t successes_before) {
    t_owner = true;
    g_fault.others = whose == Whose::OTHERS;
    g_fault.all = extent == Extent::ALL;
    g_fault.successes_left = static_cast<long>(successes_before);
    g_fault.hit = false;
    g_fault.on.store(true, std::memory_order_release);
}

MemoryFault::~MemoryFault() {
    end();
    t_owner = false;
}

void MemoryFault::end() {
    g_fault.on.store(false, std::memory_order_release);
}

bool MemoryFault::hit() {
    return g_fault.hit;
}

size_t MemoryFault::own() {
    return t_count;
}

QuietLog::QuietLog() {
    g_lines = 0;
    g_sink_before = Infra::setLogSink(&g_sink);
}

QuietLog::~QuietLog() {
    Infra::setLogSink(g_sink_before);
}

size_t QuietLog::count() {
    return g_lines;
}

size_t QuietLog::count(const char* text) {
    size_t found = 0;
    for (size_t i = 0; i < g_lines && i < MOST_LINES; ++i) {
        found += std::strstr(g_text[i], text) != nullptr ? 1 : 0;
    }
    return found;
}

std::string QuietLog::all() {
    std::string text;
    for (size_t i = 0; i < g_lines && i < MOST_LINES; ++i) {
        text += g_text[i];
    }
    return text;
}

}  // namespace Orvex::Testing

extern "C" {

// Orvex::Reticor::general_allocate(unsigned long)
void* __wrap__ZN5Orvex7Reticor16general_allocateEm(size_t size) noexcept;

void* __wrap__ZN5Orvex7Reticor16general_allocateEm(size_t size) noexcept {
    return Orvex::Testing::allocate(size);
}

}  // extern "C"

void* operator new(size_t size) {
    return Orvex::Testing::or_throw(Orvex::Testing::allocate(size));
}
void* operator new[](size_t size) {
    return Orvex::Testing::or_throw(Orvex::Testing::allocate(size));
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return Orvex::Testing::allocate(size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return Orvex::Testing::allocate(size);
}
void* operator new(size_t size, std::align_val_t alignment) {
    return Orvex::Testing::or_throw(Orvex::Testing::allocate(size, alignment));
}
void* operator new[](size_t size, std::align_val_t alignment) {
    return Orvex::Testing::or_throw(Orvex::Testing::allocate(size, alignment));
}
void* operator new(size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return Orvex::Testing::allocate(size, alignment);
}
void* operator new[](size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return Orvex::Testing::allocate(size, alignment);
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, size_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, size_t, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, size_t, std::align_val_t) noexcept {
    std::free(memory);
}
