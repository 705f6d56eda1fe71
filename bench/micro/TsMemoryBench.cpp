// How long a block of memory takes: CTsMemory beside the C library's malloc, jemalloc and mimalloc.
//
// Three ways of use. Pair: a block is freed right after it was taken. Lifo: 32 blocks are taken and freed
// last first. Fifo: 256 blocks live in a ring, the oldest is freed and a new one taken in its place. Every
// block is written to once. All allocators are called through pointers, so none gains by inlining; the peers
// are loaded beside each other with their symbols kept apart, and the process's own malloc stays the C
// library's. Linked to the library's objects instead of the shared library, ours gains a little by its
// nearness: compare like with like before reading much into a lead of a nanosecond.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <Reticor/TsMemory.h>

namespace {

constexpr int LIFO_DEPTH = 32;
constexpr int FIFO_DEPTH = 256;
constexpr unsigned int SIZES[] = {64, 1500, 4096, 65536};

template <typename Size>
struct Allocator {
    const char* name;
    void* (*allocate)(Size);
    void (*release)(void*);
};

template <typename Size>
char* take(const Allocator<Size>& allocator, unsigned int size) {
    char* block = static_cast<char*>(allocator.allocate(size));
    *static_cast<volatile char*>(block) = 1;
    return block;
}

/// A program holds blocks of most sizes at any moment. Without them an allocator may give a whole page back
/// at each free of the only block, which no program that runs for a while would see.
template <typename Size>
class Residents {
public:
    Residents(const Allocator<Size>& allocator, unsigned int size) : m_allocator(allocator) {
        for (char*& block : m_blocks) {
            block = take(allocator, size);
        }
    }
    ~Residents() {
        for (char* block : m_blocks) {
            m_allocator.release(block);
        }
    }
    Residents(const Residents&) = delete;
    Residents& operator=(const Residents&) = delete;

private:
    const Allocator<Size>& m_allocator;
    char* m_blocks[3];
};

template <typename Size>
void pair(benchmark::State& state, Allocator<Size> allocator, unsigned int size) {
    const Residents<Size> residents(allocator, size);
    for (auto _ : state) {
        allocator.release(take(allocator, size));
    }
    state.SetItemsProcessed(state.iterations());
}

template <typename Size>
void lifo(benchmark::State& state, Allocator<Size> allocator, unsigned int size) {
    const Residents<Size> residents(allocator, size);
    char* blocks[LIFO_DEPTH];
    for (auto _ : state) {
        for (int i = 0; i < LIFO_DEPTH; ++i) {
            blocks[i] = take(allocator, size);
        }
        for (int i = LIFO_DEPTH; i-- > 0;) {
            allocator.release(blocks[i]);
        }
    }
    state.SetItemsProcessed(state.iterations() * LIFO_DEPTH);
}

template <typename Size>
void fifo(benchmark::State& state, Allocator<Size> allocator, unsigned int size) {
    const Residents<Size> residents(allocator, size);
    char* ring[FIFO_DEPTH];
    for (char*& block : ring) {
        block = take(allocator, size);
    }
    unsigned int place = 0;
    for (auto _ : state) {
        allocator.release(ring[place]);
        ring[place] = take(allocator, size);
        place = (place + 1) % FIFO_DEPTH;
    }
    for (char* block : ring) {
        allocator.release(block);
    }
    state.SetItemsProcessed(state.iterations());
}

template <typename Size>
void add(const Allocator<Size>& allocator, unsigned int size) {
    const std::string tail = "/" + std::to_string(size) + "/" + allocator.name;
    benchmark::RegisterBenchmark(("Pair" + tail).c_str(), pair<Size>, allocator, size);
    benchmark::RegisterBenchmark(("Lifo" + tail).c_str(), lifo<Size>, allocator, size);
    benchmark::RegisterBenchmark(("Fifo" + tail).c_str(), fifo<Size>, allocator, size);
}

/// An allocator from a library of its own. Its `allocate` is null if the library is not there.
Allocator<std::size_t> load(const char* name, const char* library, const char* allocate,
                            const char* release) {
    Allocator<std::size_t> allocator{name, nullptr, nullptr};
    void* handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        std::fprintf(stderr, "%s is left out: %s\n", name, dlerror());
        return allocator;
    }
    allocator.allocate = reinterpret_cast<void* (*)(std::size_t)>(dlsym(handle, allocate));
    allocator.release = reinterpret_cast<void (*)(void*)>(dlsym(handle, release));
    return allocator;
}

/// The peers keep their state in static per-thread storage, of which the loader has little left for libraries
/// that come late. Start over with more.
void wantRoomForThreadStorage(char** argv) {
    if (std::getenv("GLIBC_TUNABLES") == nullptr) {
        setenv("GLIBC_TUNABLES", "glibc.rtld.optional_static_tls=16384", 1);
        execv("/proc/self/exe", argv);
    }
}

}  // namespace

int main(int argc, char** argv) {
    wantRoomForThreadStorage(argv);
    benchmark::Initialize(&argc, argv);
    using Orvex::Reticor::CTsMemory;
    CTsMemory::CreateMemPool();
    const Allocator<unsigned int> ours{"reticor", &CTsMemory::TsMalloc, &CTsMemory::TsFree};
    const Allocator<unsigned int> shared{"reticor_shared", &CTsMemory::Malloc, &CTsMemory::Free};
    const Allocator<std::size_t> peers[] = {{"glibc", &std::malloc, &std::free},
                                            load("jemalloc", "libjemalloc.so.2", "malloc", "free"),
                                            load("mimalloc", "libmimalloc.so.2", "mi_malloc", "mi_free")};
    for (const unsigned int size : SIZES) {
        add(ours, size);
        for (const Allocator<std::size_t>& peer : peers) {
            if (peer.allocate != nullptr && peer.release != nullptr) {
                add(peer, size);
            }
        }
        add(shared, size);
    }
    benchmark::RunSpecifiedBenchmarks();
    CTsMemory::DestroyThreadMemPool();
    CTsMemory::DestroyMemPool();
    return 0;
}
