// Text: figures and names as a terminal shows them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace top {

/// Three figures at most: "0", "0.3", "47", "1.0 k", "35 M". Negative and odd values are "0".
std::string number(double value);
/// The same with a unit: "1.2 MB" of number_of(1.2e6, "B"); of a small one "47 B".
std::string number_of(double value, const char* unit);
/// "850 us", "3.4 ms", "1.2 s", "3 min", "2.5 h".
std::string duration(double us);
/// "37 %" of 0.37.
std::string percent(double share);

/// Columns that it takes in the terminal. `text` is clean.
size_t columns(const std::string& text);
/// As UTF-8 that the terminal of this locale can show: what else there is becomes a question mark each.
std::string clean(const std::string& text);
/// A letter by its code point.
std::string utf8(int letter);
/// Cut to `width` columns; the last one then says that something is missing. `text` is clean.
std::string fit(const std::string& text, size_t width);
/// Filled with blanks to `width` columns, in front if `right`, and cut if it is longer.
std::string pad(const std::string& text, size_t width, bool right);
/// Whether `text` contains `part`, in whatever case of ASCII letters.
bool contains(const std::string& text, const std::string& part);

}  // namespace top
