// CStrParser: numbers, and replacing what stands at the cursor.
#include <Reticor/StrParser.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "Tool/text/StrParserState.h"

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

/// Takes the number from the cursor of `s` to index `last`, which may be one past the text. -1: there is
/// none.
template <typename State, typename Value>
Value consume(State& s, int last, Value failure) {
    Value value = failure;
    s.m_status = -1;
    if (last == -1 || !parse(s.here(), s.m_text + std::min(last + 1, s.held()), value)) {
        return failure;
    }
    s.m_status = 0;
    s.set_offset(last + 1);
    return value;
}

}  // namespace

// The last index of a number in [start, end]. One that runs to `end` gives end + 1 instead, and is not looked
// at for a trailing point: the consumers come to stand one past the text's length, and the replacers, for
// which that index is outside the text, refuse.
int CStrParser::GetDigitalEnd(int start, int end) const {
    const State& s = *m_state;
    if (start < 0 || start > end || end >= s.held()) {
        return -1;
    }
    bool digits = false;
    bool point = false;
    for (int i = s.m_text[start] == '-' ? start + 1 : start; i <= end; ++i) {
        char c = s.m_text[i];
        if (is_digit(c)) {
            digits = true;
        } else if (c == '.' && digits && !point) {
            point = true;
        } else if (!digits) {
            return -1;
        } else {
            return s.m_text[i - 1] == '.' ? i - 2 : i - 1;
        }
    }
    return end + 1;
}

int CStrParser::NumberAtCursor() const {
    return m_state->left() > 0 ? GetDigitalEnd(m_state->offset(), m_state->held() - 1) : -1;
}

long long CStrParser::ConsumeInt64() {
    return consume(*m_state, NumberAtCursor(), -1LL);
}

int CStrParser::ConsumeInt32() {
    return static_cast<int>(ConsumeInt64());
}

short CStrParser::ConsumeInt16() {
    return static_cast<short>(ConsumeInt64());
}

unsigned long long CStrParser::ConsumeUint64() {
    return consume(*m_state, NumberAtCursor(), 0ULL);
}

unsigned CStrParser::ConsumeUint32() {
    return static_cast<unsigned>(ConsumeUint64());
}

unsigned short CStrParser::ConsumeUint16() {
    return static_cast<unsigned short>(ConsumeUint64());
}

double CStrParser::ConsumeDouble() {
    return consume(*m_state, NumberAtCursor(), -1.0);
}

float CStrParser::ConsumeFloat() {
    return static_cast<float>(ConsumeDouble());
}

unsigned CStrParser::ConsumeHexUint32() {
    State& s = *m_state;
    s.m_status = -1;
    if (s.left() == 0) {
        return 0;
    }
    unsigned value = 0;
    const char* const end = s.first_of([](char c) { return hex_value(c) < 0; });
    for (const char* digit = s.here(); digit != end; ++digit) {
        value = value * 16 + static_cast<unsigned>(hex_value(*digit));
    }
    s.move_to(end);
    s.m_status = 0;
    return value;
}

// Memory is needed only to grow. `s` may lie in the text itself.
int CStrParser::ReplaceInPlace(int start, int end, const char* s) {
    State& state = *m_state;
    if (start < 0 || end >= state.held() || s == nullptr) {
        return -1;
    }
    size_t n = strlen(s);
    size_t old = static_cast<size_t>(end - start + 1);
    if (n > old) {
        return GrowInPlace(start, end, s, n);
    }
    memmove(state.m_text + start, s, n);
    if (n < old) {
        size_t rest = static_cast<size_t>(state.held() - 1 - end);
        state.m_len -= static_cast<int>(old - n);
        state.m_end -= old - n;
        if (rest > 0) {
            memmove(state.m_text + start + n, state.m_text + end + 1, rest);
            state.m_text[state.held()] = '\0';
        }
    }
    return static_cast<int>(n);
}

// The length rises before there is memory for it, and stays so if there is none. The text is meant to be
// lines: if the new one does not end in a line end, it gets one, which the padding has room for.
int CStrParser::GrowInPlace(int start, int end, const char* s, size_t n) {
    State& state = *m_state;
    size_t head = static_cast<size_t>(start);
    size_t rest = static_cast<size_t>(state.held() - 1 - end);
    size_t len = static_cast<size_t>(state.m_len) + n - static_cast<size_t>(end - start + 1);
    state.m_len = static_cast<int>(std::min(len, STR_PARSER_MAX_LEN));
    char* block = new_block(len);
    if (block == nullptr) {
        return -1;
    }
    memcpy(block, state.m_text, head);
    memcpy(block + head, s, n);
    memcpy(block + head + n, state.m_text + end + 1, rest);
    memset(block + head + n + rest, 0, len - head - n - rest);
    if (block[len - 1] != '\n') {
        memcpy(block + len, "\r\n", 2);
        state.m_len += 2;
    }
    int saved = state.offset();
    free(state.m_text);
    state.m_text = block;
    state.m_end = block + state.m_len;
    state.set_offset(saved);
    state.m_block = len + STR_PARSER_PADDING;
    return static_cast<int>(n);
}

int CStrParser::ReplaceNumber(const char* digits) {
    int last = NumberAtCursor();
    return last == -1 ? -1 : ReplaceInPlace(m_state->offset(), last, digits);
}

int CStrParser::ReplaceInt64(long long value) {
    char digits[NUMBER_SIZE];
    *std::to_chars(digits, digits + sizeof digits - 1, value).ptr = '\0';
    return ReplaceNumber(digits);
}

int CStrParser::ReplaceInt32(int value) {
    return ReplaceInt64(value);
}

int CStrParser::ReplaceInt16(short value) {
    return ReplaceInt64(value);
}

int CStrParser::ReplaceUint64(unsigned long long value) {
    char digits[NUMBER_SIZE];
    *std::to_chars(digits, digits + sizeof digits - 1, value).ptr = '\0';
    return ReplaceNumber(digits);
}

int CStrParser::ReplaceUint32(unsigned value) {
    return ReplaceUint64(value);
}

int CStrParser::ReplaceUint16(unsigned short value) {
    return ReplaceUint64(value);
}

int CStrParser::ReplaceFloat(float value) {
    return ReplaceDouble(static_cast<double>(value));
}

int CStrParser::ReplaceDouble(double value) {
    char digits[LONGEST_DOUBLE + 1];
    char* end = std::to_chars(digits, digits + LONGEST_DOUBLE, value, std::chars_format::fixed, 6).ptr;
    *std::min(end, digits + NUMBER_SIZE - 1) = '\0';
    return ReplaceNumber(digits);
}

int CStrParser::ReplaceLength(int len, const char* s) {
    State& state = *m_state;
    size_t count = std::min(static_cast<size_t>(std::max(len, 0)), state.left());
    size_t n = s != nullptr ? strnlen(s, count) : 0;
    if (count > 0) {
        char* to = state.m_text + state.offset();
        if (n > 0) {
            memmove(to, s, n);
        }
        memset(to + n, ' ', count - n);
        state.move_to(to + count);
    }
    return state.offset();
}

}  // namespace Orvex::Reticor
