// The time of day as text.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Orvex::Infra::Detail {

/// Room for the text of a time in the years 0 to 9999, with its terminator.
constexpr size_t WALL_TIME_ROOM = 32;

/// Writes a time of UTC, counted from 1970, as "2026-11-22T12:43:38.123456Z " to `text`, which has
/// WALL_TIME_ROOM bytes, and returns its length. Takes no lock, allocates nothing and asks for no time zone,
/// unlike what the C library has for this.
size_t write_wall_time(char* text, int64_t seconds, long ns) noexcept;

/// The same of now.
size_t write_wall_time(char* text) noexcept;

}  // namespace Orvex::Infra::Detail
