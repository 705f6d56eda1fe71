// SeededRandom: random numbers of a test, which prints its seed so that a failing run can be repeated.
//
// The environment's RETICOR_TEST_SEED replaces the seed. One object per thread: derive the seeds of further
// threads with fork().
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>

#include <Infra/Time.h>

namespace Orvex::Testing {

class SeededRandom {
public:
    SeededRandom() : SeededRandom(choose_seed()) {
        std::printf("RETICOR_TEST_SEED=%llu\n", static_cast<unsigned long long>(m_seed));
        std::fflush(stdout);
    }
    explicit SeededRandom(uint64_t seed) : m_seed(seed), m_engine(seed) {}

    uint64_t seed() const { return m_seed; }

    // From `low` to `high`, both included.
    template <typename Number>
    Number between(Number low, Number high) {
        return std::uniform_int_distribution<Number>(low, high)(m_engine);
    }

    // True in one of `n` cases.
    bool oneIn(unsigned n) { return between(1u, n) == 1; }

    // A generator for another thread or part, whose seed follows from this one's.
    SeededRandom fork() { return SeededRandom(m_engine()); }

    std::mt19937_64& engine() { return m_engine; }

private:
    static uint64_t choose_seed() {
        const char* const text = std::getenv("RETICOR_TEST_SEED");
        if (text != nullptr) {
            return std::strtoull(text, nullptr, 0);
        }
        return Infra::CTime::getCurrentMicroSecond() * 1000003 + static_cast<uint64_t>(::getpid());
    }

    const uint64_t m_seed;
    std::mt19937_64 m_engine;
};

}  // namespace Orvex::Testing
