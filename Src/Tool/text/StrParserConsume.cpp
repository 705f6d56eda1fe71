// CStrParser: what passes bytes, words and lines.
#include <Reticor/StrParser.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <algorithm>
#include <cstring>

#include "Tool/text/StrParserState.h"

namespace Orvex::Reticor {

namespace {

/// The first `c` or '\n', `end` if there is none. The names in front of a ':' are too short for two calls of
/// memchr to pay, and their lengths too irregular for a loop over bytes; sixteen at a time take one step for
/// most of them.
const char* find_in_line(const char* byte, const char* end, char c) {
#if defined(__SSE2__)
    for (; end - byte >= 16; byte += 16) {
        __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(byte));
        __m128i found =
            _mm_or_si128(_mm_cmpeq_epi8(block, _mm_set1_epi8(c)), _mm_cmpeq_epi8(block, _mm_set1_epi8('\n')));
        unsigned bits = static_cast<unsigned>(_mm_movemask_epi8(found));
        if (bits != 0) {
            return byte + __builtin_ctz(bits);
        }
    }
#endif
    while (byte != end && *byte != c && *byte != '\n') {
        ++byte;
    }
    return byte;
}

}  // namespace

// Bytes left come first everywhere: the cursor may stand outside the text, where there is nothing to pass.

int CStrParser::ConsumeUntil(char c) {
    const char* byte = m_state->find(c);
    return byte != nullptr ? m_state->move_to(byte) : -1;
}

int CStrParser::ConsumeUntil(const unsigned char* table) {
    if (table == nullptr) {
        return -1;
    }
    return m_state->pass_until([table](char c) { return table[static_cast<signed char>(c)] != 0; });
}

int CStrParser::ConsumeUntilDigit() {
    return m_state->pass_until(is_digit);
}

int CStrParser::ConsumeUntilHexDigit() {
    return m_state->pass_until([](char c) { return hex_value(c) >= 0; });
}

int CStrParser::ConsumeUntilinLine(char c) {
    State& s = *m_state;
    const char* const end = s.end_of_left();
    const char* byte = find_in_line(s.here(), end, c);
    return byte != end && *byte == c ? s.move_to(byte) : -1;
}

int CStrParser::ConsumeUntilinLine(const unsigned char* table) {
    if (table == nullptr) {
        return -1;
    }
    return m_state->pass_until(
        [table](char c) { return c == '\n' || table[static_cast<signed char>(c)] != 0; });
}

int CStrParser::ConsumeUntilNextLine() {
    State& s = *m_state;
    const char* byte = s.find('\n');
    if (byte == nullptr) {
        return -1;
    }
    if (byte + 1 == s.m_end) {
        s.move_to(byte);
        return s.offset();
    }
    return s.move_to(byte + 1);
}

int CStrParser::GetThru(char c) {
    State& s = *m_state;
    const char* byte = s.find(c);
    if (byte == nullptr) {
        return -1;
    }
    if (byte + 1 == s.m_end) {
        return s.move_to(byte);
    }
    return s.move_to(byte + 1);
}

int CStrParser::GetThruEOL() {
    return GetThru('\n');
}

int CStrParser::ConsumeWhitespace() {
    return m_state->move_to(m_state->first_of([](char c) { return !is_blank(c); }));
}

int CStrParser::ConsumeWhitespaceInLine() {
    return m_state->move_to(m_state->first_of([](char c) { return !is_blank_in_line(c); }));
}

int CStrParser::ConsumeWord(char* out, unsigned out_len) {
    State& s = *m_state;
    const char* start = s.here();
    int passed = s.move_to(s.first_of([](char c) { return !is_word(c); }));
    State::copy(start, passed, out, out_len);
    return passed;
}

int CStrParser::ConsumeLength(unsigned len, char* out, unsigned out_len) {
    State& s = *m_state;
    const char* start = s.here();
    int passed = static_cast<int>(std::min<size_t>(len, s.left()));
    s.m_cursor += static_cast<unsigned>(passed);
    State::copy(start, passed, out, out_len);
    return passed;
}

int CStrParser::ConsumeSentence(const char* delims, char* out, unsigned out_len) {
    State& s = *m_state;
    if (delims == nullptr || s.offset() > s.held()) {
        return -1;
    }
    const char* const start = s.here();
    const char* const end = s.end_of_left();
    const char* stop = end;
    // The terminator of `delims` must not count as a delimiter, since the text may hold NUL bytes.
    size_t count = strlen(delims);
    if (count == 1) {
        stop = s.find(*delims);
        stop = stop != nullptr ? stop : end;
    } else if (count > 1) {
        stop = s.first_of([=](char c) { return memchr(delims, c, count) != nullptr; });
    }
    int passed = static_cast<int>(stop - start);
    s.move_to(stop != end ? stop + 1 : end);
    if (passed > 0) {
        State::copy(start, passed, out, out_len);
    }
    return passed;
}

// Leaves the cursor on the start of the line that was found, and gives its offset; -1 if there is none.
//
// A search that starts on a line's first byte has to find that line, so it first steps back onto the '\n'
// before it; offset 1 does not, and starts with the next line. GetThruEOL parks on a '\n' that ends the text,
// which makes that byte a last candidate, and the search ends when the cursor no longer moves.
int CStrParser::FindLineWithHead(const char* head) {
    State& s = *m_state;
    const size_t head_len = strlen(head);
    bool candidate = s.offset() == 0;
    if (s.offset() > 1) {
        --s.m_cursor;
    }
    while (s.left() > 0) {
        int passed = candidate ? 0 : GetThruEOL();
        if (passed == -1 || s.left() < head_len) {
            return -1;
        }
        if (strncmp(s.here(), head, head_len) == 0) {
            return s.offset();
        }
        if (passed == 0 && !candidate) {
            return -1;
        }
        candidate = false;
    }
    return -1;
}

int CStrParser::PassLine() {
    State& s = *m_state;
    int tail = GetCurLineTail();
    s.set_offset(tail < s.held() - 1 ? tail + 1 : tail);
    return tail;
}

int CStrParser::GetLineWithHead(const char* head, char* out, unsigned out_len) {
    State& s = *m_state;
    int saved = s.offset();
    int start = head != nullptr ? FindLineWithHead(head) : -1;
    if (start == -1) {
        s.set_offset(saved);
        return -1;
    }
    int tail = PassLine();
    if (out == nullptr || out_len == 0) {
        return 0;
    }
    if (s.at(tail) == '\n') {
        --tail;
    }
    // The first byte of the text is kept even if it is the '\r' of an empty line.
    if (s.at(tail) == '\r' && tail > 0) {
        --tail;
    }
    // Parked on the last '\n', the "line" may begin behind its own end.
    int len = std::max(tail - start + 1, 0);
    State::copy(s.m_text + start, len, out, out_len);
    return len;
}

// The last line is found again and again, since the cursor stays on its last byte; the count must not.
int CStrParser::GetLineNumWithHead(const char* head) {
    if (head == nullptr) {
        return -1;
    }
    int saved = m_state->offset();
    int count = 0;
    int last = -1;
    for (int start = FindLineWithHead(head); start > last; start = FindLineWithHead(head)) {
        ++count;
        last = start;
        PassLine();
    }
    m_state->set_offset(saved);
    return count;
}

}  // namespace Orvex::Reticor
