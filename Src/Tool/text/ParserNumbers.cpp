// ParserNumbers: reading and writing numbers without the locale.
#include "Tool/text/ParserNumbers.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <system_error>

#include "Tool/text/ParserBytes.h"

namespace Orvex::Reticor {

namespace {

/// A replaced number is written with at most this many characters, terminator included.
constexpr size_t NUMBER_SIZE = 256;
/// Sign, 309 digits, point and six places of the largest double.
constexpr size_t LONGEST_DOUBLE = 1 + 309 + 1 + 6;

// These three take all that is a number from `first` on, as the formatted input of the C library would, but
// never look at `last`. False: no digit stands there.

bool parse(const char* first, const char* last, long long& value) {
    std::from_chars_result result = std::from_chars(first, last, value);
    if (result.ec == std::errc::result_out_of_range) {
        value = *first == '-' ? LLONG_MIN : LLONG_MAX;
    }
    return result.ec != std::errc::invalid_argument;
}

// A minus negates modulo 2^64, but a value that is too wide stays the largest one.
bool parse(const char* first, const char* last, unsigned long long& value) {
    bool minus = *first == '-';
    std::from_chars_result result = std::from_chars(minus ? first + 1 : first, last, value);
    if (result.ec == std::errc::result_out_of_range) {
        value = ULLONG_MAX;
    } else if (minus) {
        value = 0 - value;
    }
    return result.ec != std::errc::invalid_argument;
}

// A value too small for a double is a zero, one too large is refused.
bool parse(const char* first, const char* last, double& value) {
    std::from_chars_result result = std::from_chars(first, last, value, std::chars_format::fixed);
    if (result.ec != std::errc::result_out_of_range) {
        return result.ec == std::errc();
    }
    const char* digits = *first == '-' ? first + 1 : first;
    const char* point = std::find(digits, last, '.');
    value = *first == '-' ? -0.0 : 0.0;
    return std::all_of(digits, point, [](char c) { return c == '0'; });
}

}  // namespace

// The last index of a number in [start, end]. One that runs to `end` gives end + 1 instead, and is not looked
// at for a trailing point: the consumers come to stand one past the text's length, and the replacers, for
// which that index is outside the text, refuse.
int ParserNumbers::number_end(int start, int end) const {
    if (start < 0 || start > end || end >= m_text.held()) {
        return -1;
    }
    const char* const bytes = m_text.bytes();
    bool digits = false;
    bool point = false;
    for (int i = bytes[start] == '-' ? start + 1 : start; i <= end; ++i) {
        char c = bytes[i];
        if (is_digit(c)) {
            digits = true;
        } else if (c == '.' && digits && !point) {
            point = true;
        } else if (!digits) {
            return -1;
        } else {
            return bytes[i - 1] == '.' ? i - 2 : i - 1;
        }
    }
    return end + 1;
}

int ParserNumbers::number_at_cursor() const {
    return m_text.left() > 0 ? number_end(m_text.offset(), m_text.held() - 1) : -1;
}

template <typename Value>
Value ParserNumbers::take_as(Value failure) {
    Value value = failure;
    const int last = number_at_cursor();
    m_text.set_status(-1);
    if (last == -1 || !parse(m_text.here(), m_text.bytes() + std::min(last + 1, m_text.held()), value)) {
        return failure;
    }
    m_text.set_status(0);
    m_text.set_offset(last + 1);
    return value;
}

long long ParserNumbers::take(long long failure) {
    return take_as(failure);
}

unsigned long long ParserNumbers::take(unsigned long long failure) {
    return take_as(failure);
}

double ParserNumbers::take(double failure) {
    return take_as(failure);
}

unsigned ParserNumbers::take_hex() {
    m_text.set_status(-1);
    if (m_text.left() == 0) {
        return 0;
    }
    unsigned value = 0;
    const char* const end = m_text.first_of([](char c) { return hex_value(c) < 0; });
    for (const char* digit = m_text.here(); digit != end; ++digit) {
        value = value * 16 + static_cast<unsigned>(hex_value(*digit));
    }
    m_text.move_to(end);
    m_text.set_status(0);
    return value;
}

int ParserNumbers::replace_by(const char* digits) {
    const int last = number_at_cursor();
    return last == -1 ? -1 : m_text.replace(m_text.offset(), last, digits);
}

int ParserNumbers::replace(long long value) {
    char digits[NUMBER_SIZE];
    *std::to_chars(digits, digits + sizeof digits - 1, value).ptr = '\0';
    return replace_by(digits);
}

int ParserNumbers::replace(unsigned long long value) {
    char digits[NUMBER_SIZE];
    *std::to_chars(digits, digits + sizeof digits - 1, value).ptr = '\0';
    return replace_by(digits);
}

int ParserNumbers::replace(double value) {
    char digits[LONGEST_DOUBLE + 1];
    char* end = std::to_chars(digits, digits + LONGEST_DOUBLE, value, std::chars_format::fixed, 6).ptr;
    *std::min(end, digits + NUMBER_SIZE - 1) = '\0';
    return replace_by(digits);
}

}  // namespace Orvex::Reticor
