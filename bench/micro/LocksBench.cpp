// LocksBench: the locks and the semaphore of the foundation beside those of the C and C++ libraries.
//
// Each figure is the time of one thread for one round: take the lock, touch the data, give it back. With two
// threads both do that without a pause, which is the worst case. SemaphorePingPong is one hand-over to
// another thread and back.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <semaphore.h>

#include <cstdint>
#include <shared_mutex>
#include <thread>

#include <Infra/Mutex.h>
#include <Infra/ReadWriteMutex.h>
#include <Infra/Semaphore.h>

namespace {

using Orvex::Infra::CMutex;
using Orvex::Infra::CReadWriteMutex;
using Orvex::Infra::CSemaphore;

constexpr std::size_t CACHE_LINE = 128;

// The contenders under one set of names.
struct OurMutex {
    CMutex mutex;
    void enter() INFRA_NO_THREAD_SAFETY_ANALYSIS { mutex.enter(); }
    void leave() INFRA_NO_THREAD_SAFETY_ANALYSIS { mutex.leave(); }
};

template <int KIND>
struct SystemMutex {
    pthread_mutex_t mutex;
    SystemMutex() {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, KIND);
        pthread_mutex_init(&mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    void enter() { pthread_mutex_lock(&mutex); }
    void leave() { pthread_mutex_unlock(&mutex); }
};

struct OurReadWriteMutex {
    CReadWriteMutex mutex;
    void read() INFRA_NO_THREAD_SAFETY_ANALYSIS { mutex.enterReading(); }
    void leaveReading() INFRA_NO_THREAD_SAFETY_ANALYSIS { mutex.leave(); }
    void write() INFRA_NO_THREAD_SAFETY_ANALYSIS { mutex.enterWriting(); }
    void leaveWriting() INFRA_NO_THREAD_SAFETY_ANALYSIS { mutex.leave(); }
};

struct SystemReadWriteLock {
    pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;
    void read() { pthread_rwlock_rdlock(&lock); }
    void leaveReading() { pthread_rwlock_unlock(&lock); }
    void write() { pthread_rwlock_wrlock(&lock); }
    void leaveWriting() { pthread_rwlock_unlock(&lock); }
};

struct StandardSharedMutex {
    std::shared_mutex mutex;
    void read() { mutex.lock_shared(); }
    void leaveReading() { mutex.unlock_shared(); }
    void write() { mutex.lock(); }
    void leaveWriting() { mutex.unlock(); }
};

struct OurSemaphore {
    CSemaphore semaphore{0};
    void post() { semaphore.post(); }
    void pend() { semaphore.pend(); }
};

struct SystemSemaphore {
    sem_t semaphore;
    SystemSemaphore() { sem_init(&semaphore, 0, 0); }
    void post() { sem_post(&semaphore); }
    void pend() {
        while (sem_wait(&semaphore) != 0) {
        }
    }
};

template <typename Lock>
struct alignas(CACHE_LINE) Guarded {
    Lock lock;
    alignas(CACHE_LINE) uint64_t data = 0;
};

template <typename Lock>
void Mutex(benchmark::State& state) {
    static Guarded<Lock> guarded;
    for (auto step : state) {
        guarded.lock.enter();
        benchmark::DoNotOptimize(++guarded.data);
        guarded.lock.leave();
    }
}

template <typename Lock>
void Reading(benchmark::State& state) {
    static Guarded<Lock> guarded;
    for (auto step : state) {
        guarded.lock.read();
        const uint64_t seen = guarded.data;
        benchmark::DoNotOptimize(seen);
        guarded.lock.leaveReading();
    }
}

template <typename Lock>
void Writing(benchmark::State& state) {
    static Guarded<Lock> guarded;
    for (auto step : state) {
        guarded.lock.write();
        benchmark::DoNotOptimize(++guarded.data);
        guarded.lock.leaveWriting();
    }
}

// One write in a hundred rounds.
template <typename Lock>
void MostlyReading(benchmark::State& state) {
    static Guarded<Lock> guarded;
    int round = 0;
    for (auto step : state) {
        if (++round % 100 == 0) {
            guarded.lock.write();
            benchmark::DoNotOptimize(++guarded.data);
            guarded.lock.leaveWriting();
        } else {
            guarded.lock.read();
            const uint64_t seen = guarded.data;
            benchmark::DoNotOptimize(seen);
            guarded.lock.leaveReading();
        }
    }
}

template <typename Semaphore>
void SemaphoreUncontended(benchmark::State& state) {
    Semaphore semaphore;
    for (auto step : state) {
        semaphore.post();
        semaphore.pend();
    }
}

template <typename Semaphore>
void SemaphorePingPong(benchmark::State& state) {
    Semaphore there;
    Semaphore back;
    bool ended = false;  // handed over by `there`
    std::thread partner([&] {
        for (;;) {
            there.pend();
            if (ended) {
                return;
            }
            back.post();
        }
    });
    for (auto step : state) {
        there.post();
        back.pend();
    }
    ended = true;
    there.post();
    partner.join();
}

#define LOCK_BENCHMARK(work, lock) BENCHMARK(work<lock>)->ThreadRange(1, 2)->UseRealTime()

LOCK_BENCHMARK(Mutex, OurMutex);
LOCK_BENCHMARK(Mutex, SystemMutex<PTHREAD_MUTEX_NORMAL>);
LOCK_BENCHMARK(Mutex, SystemMutex<PTHREAD_MUTEX_RECURSIVE>);

LOCK_BENCHMARK(Reading, OurReadWriteMutex);
LOCK_BENCHMARK(Reading, SystemReadWriteLock);
LOCK_BENCHMARK(Reading, StandardSharedMutex);
LOCK_BENCHMARK(Writing, OurReadWriteMutex);
LOCK_BENCHMARK(Writing, SystemReadWriteLock);
LOCK_BENCHMARK(MostlyReading, OurReadWriteMutex);
LOCK_BENCHMARK(MostlyReading, SystemReadWriteLock);
LOCK_BENCHMARK(MostlyReading, StandardSharedMutex);

BENCHMARK(SemaphoreUncontended<OurSemaphore>)->UseRealTime();
BENCHMARK(SemaphoreUncontended<SystemSemaphore>)->UseRealTime();
BENCHMARK(SemaphorePingPong<OurSemaphore>)->UseRealTime();
BENCHMARK(SemaphorePingPong<SystemSemaphore>)->UseRealTime();

}  // namespace
