// The time of day as text, beside the C library's calendar.
#include "WallTime.h"

#include <gtest/gtest.h>
#include <time.h>

#include <cstdint>
#include <string>

#include "support/SeededRandom.h"

namespace Orvex::Infra::Detail {
namespace {

std::string text_of(int64_t seconds, long ns) {
    char text[WALL_TIME_ROOM];
    const size_t length = write_wall_time(text, seconds, ns);
    return std::string(text, length);
}

TEST(WallTime, IsThatOfTheCalendar) {
    EXPECT_EQ("1970-01-01T00:00:00.000000Z ", text_of(0, 999));
    EXPECT_EQ("1969-12-31T23:59:59.999999Z ", text_of(-1, 999999999));
    EXPECT_EQ("2000-02-29T12:00:00.000001Z ", text_of(951825600, 1000));
    EXPECT_EQ("2100-03-01T00:00:00.000000Z ", text_of(4107542400, 0));
}

TEST(WallTime, AgreesWithTheSystemOnAnyDay) {
    Testing::SeededRandom random;
    for (int i = 0; i < 10000; ++i) {
        const time_t seconds = random.between<int64_t>(-30000000000, 250000000000);
        tm time{};
        ::gmtime_r(&seconds, &time);
        char text[64];
        ::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S.000000Z ", &time);
        ASSERT_EQ(text, text_of(seconds, 0)) << seconds;
    }
}

}  // namespace
}  // namespace Orvex::Infra::Detail
