// Text: units, and UTF-8 by the width of its letters.
#include "top/Text.h"

#include <wchar.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>

namespace top {

namespace {

constexpr const char* UNITS[] = {"", "k", "M", "G", "T", "P", "E"};

/// `counted`: a number of things, which has no point if it is whole.
std::string figures(double value, bool counted) {
    char room[32];
    const bool whole = counted && value == std::floor(value);
    std::snprintf(room, sizeof room, value >= 9.95 || whole ? "%.0f" : "%.1f", value);
    return room;
}

/// A letter and its length in bytes; -1, 1 if there is none. Surrogates and overlong forms are none.
int32_t letter_at(const std::string& text, size_t at, size_t& length) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(i < text.size() ? text[i] : 0); };
    const unsigned char first = byte(at);
    length = first < 0x80 ? 1u : first >= 0xf0 ? 4u : first >= 0xe0 ? 3u : 2u;
    int32_t letter = length == 1 ? first : first & (0xff >> (length + 1));
    bool good = first < 0x80 || (first >= 0xc2 && first <= 0xf4);
    for (size_t i = 1; good && i < length; ++i) {
        good = (byte(at + i) & 0xc0) == 0x80;
        letter = letter << 6 | (byte(at + i) & 0x3f);
    }
    constexpr int32_t LEAST[] = {0, 0, 0x80, 0x800, 0x10000};
    if (!good || letter < LEAST[length] || letter > 0x10ffff || (letter >= 0xd800 && letter < 0xe000)) {
        length = 1;
        return -1;
    }
    return letter;
}

/// Columns of a letter; -1 if this locale cannot show it. Of ASCII the C library is not asked.
int width_of(int32_t letter) {
    if (letter < 0x80) {
        return letter >= ' ' && letter != 0x7f ? 1 : -1;
    }
    return ::wcwidth(static_cast<wchar_t>(letter));
}

const std::string& ellipsis() {
    static const std::string FULL = "\xe2\x80\xa6";
    static const std::string PLAIN = "~";
    return width_of(0x2026) == 1 ? FULL : PLAIN;
}

}  // namespace

std::string number_of(double value, const char* unit) {
    if (!(value > 0)) {
        value = 0;
    }
    size_t power = 0;
    constexpr size_t LAST = sizeof(UNITS) / sizeof(UNITS[0]) - 1;
    while (value >= 999.5 && power < LAST) {
        value /= 1000;
        ++power;
    }
    const std::string word = std::string(UNITS[power]) + unit;
    return figures(std::min(value, 999.0), power == 0) + (word.empty() ? "" : " ") + word;
}

std::string number(double value) {
    return number_of(value, "");
}

std::string duration(double us) {
    constexpr struct {
        double us;
        const char* name;
    } STEPS[] = {{3600e6, " h"}, {120e6, " min"}, {0.9995e6, " s"}, {0.9995e3, " ms"}, {0, " us"}};
    constexpr double UNIT[] = {3600e6, 60e6, 1e6, 1e3, 1};
    us = us > 0 ? us : 0;
    size_t i = 0;
    while (us < STEPS[i].us) {
        ++i;
    }
    return figures(us / UNIT[i], UNIT[i] == 1) + STEPS[i].name;
}

std::string percent(double share) {
    char room[32];
    std::snprintf(room, sizeof room, "%.0f %%", share > 0 ? std::min(share * 100, 9999.0) : 0.0);
    return room;
}

size_t columns(const std::string& text) {
    size_t sum = 0;
    size_t length = 0;
    for (size_t at = 0; at < text.size(); at += length) {
        sum += static_cast<size_t>(std::max(0, width_of(letter_at(text, at, length))));
    }
    return sum;
}

std::string clean(const std::string& text) {
    std::string shown;
    size_t length = 0;
    for (size_t at = 0; at < text.size(); at += length) {
        const int32_t letter = letter_at(text, at, length);
        shown += letter >= 0 && width_of(letter) >= 0 ? text.substr(at, length) : "?";
    }
    return shown;
}

std::string utf8(int letter) {
    const auto byte = [](int value) { return static_cast<char>(value); };
    if (letter < 0x80) {
        return {byte(letter)};
    }
    std::string text;
    if (letter >= 0x10000) {
        text = {byte(0xf0 | letter >> 18), byte(0x80 | (letter >> 12 & 0x3f))};
    } else if (letter >= 0x800) {
        text = {byte(0xe0 | letter >> 12)};
    }
    text += letter >= 0x800 ? byte(0x80 | (letter >> 6 & 0x3f)) : byte(0xc0 | letter >> 6);
    return text + byte(0x80 | (letter & 0x3f));
}

std::string fit(const std::string& text, size_t width) {
    if (columns(text) <= width) {
        return text;
    }
    size_t taken = 0;
    size_t length = 0;
    size_t at = 0;
    for (; at < text.size(); at += length) {
        const int wide = std::max(0, width_of(letter_at(text, at, length)));
        if (taken + static_cast<size_t>(wide) + 1 > width) {
            break;
        }
        taken += static_cast<size_t>(wide);
    }
    return width == 0 ? "" : text.substr(0, at) + ellipsis();
}

std::string pad(const std::string& text, size_t width, bool right) {
    const std::string shown = fit(text, width);
    const std::string blanks(width - columns(shown), ' ');
    return right ? blanks + shown : shown + blanks;
}

bool contains(const std::string& text, const std::string& part) {
    const auto same = [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); };
    return std::search(text.begin(), text.end(), part.begin(), part.end(), same) != text.end() ||
           part.empty();
}

}  // namespace top
