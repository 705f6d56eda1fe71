// CTime against the clock of the system.
#include <Infra/Time.h>

#include <gtest/gtest.h>
#include <time.h>

namespace Orvex::Infra {
namespace {

uint64_t monotonicUs() {
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

TEST(Time, MicroSecondsAreThoseOfTheMonotonicClock) {
    const uint64_t before = monotonicUs();
    const uint64_t reading = CTime::getCurrentMicroSecond();
    const uint64_t after = monotonicUs();
    EXPECT_LE(before, reading);
    EXPECT_LE(reading, after);
}

TEST(Time, MilliSecondsAreOfTheSameClock) {
    const uint64_t before = CTime::getCurrentMicroSecond();
    const uint64_t reading = CTime::getCurrentMilliSecond();
    const uint64_t after = CTime::getCurrentMicroSecond();
    EXPECT_LE(before / 1000, reading);
    EXPECT_LE(reading, after / 1000);
}

TEST(Time, ReadingsNeverRunBackwards) {
    uint64_t last = CTime::getCurrentMicroSecond();
    for (int i = 0; i < 100000; ++i) {
        const uint64_t now = CTime::getCurrentMicroSecond();
        ASSERT_GE(now, last);
        last = now;
    }
}

}  // namespace
}  // namespace Orvex::Infra
