// EXPECT_EVENTUALLY, ASSERT_EVENTUALLY: wait until a condition holds, with a deadline that only stops a hang.
//
// The deadline is 10 seconds, multiplied by the environment's RETICOR_TEST_TIME_FACTOR for slow builds.
#pragma once

#include <time.h>

#include <gtest/gtest.h>

#include <cstdlib>

#include <Infra/Time.h>

namespace Orvex::Testing {

inline double timeFactor() {
    const char* const text = std::getenv("RETICOR_TEST_TIME_FACTOR");
    const double factor = text != nullptr ? std::atof(text) : 1.0;
    return factor > 0 ? factor : 1.0;
}

// A bound in milliseconds, as long as this build needs it.
inline int scaledMs(int ms) {
    return static_cast<int>(ms * timeFactor());
}

template <typename Condition>
bool eventually(Condition condition, int limit_ms = 10000) {
    const uint64_t end_us =
        Infra::CTime::getCurrentMicroSecond() + static_cast<uint64_t>(scaledMs(limit_ms)) * 1000;
    while (!condition()) {
        if (Infra::CTime::getCurrentMicroSecond() >= end_us) {
            return condition();
        }
        const timespec step = {0, 500000};
        ::nanosleep(&step, nullptr);
    }
    return true;
}

}  // namespace Orvex::Testing

#define EXPECT_EVENTUALLY(...) \
    EXPECT_TRUE(::Orvex::Testing::eventually([&] { return static_cast<bool>(__VA_ARGS__); })) << #__VA_ARGS__
#define ASSERT_EVENTUALLY(...) \
    ASSERT_TRUE(::Orvex::Testing::eventually([&] { return static_cast<bool>(__VA_ARGS__); })) << #__VA_ARGS__
