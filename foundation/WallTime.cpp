// The time of day as text: the calendar of UTC.
#include "WallTime.h"

#include <time.h>

#include <cstdio>

namespace Orvex::Infra::Detail {

namespace {

constexpr int64_t SECONDS_A_DAY = 86400;
constexpr int64_t DAYS_IN_400_YEARS = 146097;
constexpr int64_t DAYS_BEFORE_1970 = 719468;  // from the first of March of the year 0

struct Date {
    int64_t year;
    int month;
    int day;
};

// Years are counted from March, so that the day that comes every four years is the last one.
Date date_of(int64_t days_since_1970) noexcept {
    const int64_t days = days_since_1970 + DAYS_BEFORE_1970;
    const int64_t era = (days >= 0 ? days : days - (DAYS_IN_400_YEARS - 1)) / DAYS_IN_400_YEARS;
    const int64_t day_of_era = days - era * DAYS_IN_400_YEARS;
    const int64_t year_of_era =
        (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    const int64_t day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    const int64_t month_from_march = (5 * day_of_year + 2) / 153;
    const int month = static_cast<int>(month_from_march < 10 ? month_from_march + 3 : month_from_march - 9);
    return {year_of_era + era * 400 + (month <= 2 ? 1 : 0), month,
            static_cast<int>(day_of_year - (153 * month_from_march + 2) / 5 + 1)};
}

}  // namespace

size_t write_wall_time(char* text, int64_t seconds, long ns) noexcept {
    int64_t days = seconds / SECONDS_A_DAY;
    int64_t second = seconds % SECONDS_A_DAY;
    if (second < 0) {
        --days;
        second += SECONDS_A_DAY;
    }
    const Date date = date_of(days);
    const int length =
        std::snprintf(text, WALL_TIME_ROOM, "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ ",
                      static_cast<int>(date.year), date.month, date.day, static_cast<int>(second / 3600),
                      static_cast<int>(second / 60 % 60), static_cast<int>(second % 60), ns / 1000);
    return length < 0                                     ? 0
           : static_cast<size_t>(length) < WALL_TIME_ROOM ? static_cast<size_t>(length)
                                                          : WALL_TIME_ROOM - 1;
}

size_t write_wall_time(char* text) noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return write_wall_time(text, now.tv_sec, now.tv_nsec);
}

}  // namespace Orvex::Infra::Detail
