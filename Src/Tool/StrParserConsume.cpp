// CStrParser: what passes bytes, words and lines.
#include <Reticor/StrParser.h>

#include <algorithm>
#include <cstring>

#include "Tool/StrParserState.h"

namespace Orvex::Reticor {

namespace {

/// Index of the first byte in [from, to) that `stop` takes, `to` if there is none.
template <typename Stop>
int first_of(const char* text, int from, int to, Stop stop) {
    while (from < to && !stop(text[from])) {
        ++from;
    }
    return from;
}

int index_of(const char* text, int from, int to, char c) {
    if (from >= to) {
        return to;
    }
    const void* found = memchr(text + from, c, static_cast<size_t>(to - from));
    return found != nullptr ? static_cast<int>(static_cast<const char*>(found) - text) : to;
}

}  // namespace

// Bytes left come first everywhere: the cursor may stand outside the text, where there is nothing to pass.

int CStrParser::ConsumeUntil(char c) {
    State& s = *m_state;
    if (s.left() == 0) {
        return -1;
    }
    int stop = index_of(s.m_text, s.m_offset, s.m_held, c);
    return stop < s.m_held ? s.move_to(stop) : -1;
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
    int saved = s.m_offset;
    int passed = s.pass_until([c](char here) { return here == c || here == '\n'; });
    if (passed != -1 && *s.here() != c) {
        s.m_offset = saved;
        return -1;
    }
    return passed;
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
    int passed = ConsumeUntil('\n');
    if (passed == -1) {
        return -1;
    }
    if (s.m_offset == s.m_held - 1) {
        return s.m_offset;
    }
    ++s.m_offset;
    return passed + 1;
}

int CStrParser::GetThru(char c) {
    State& s = *m_state;
    int passed = ConsumeUntil(c);
    if (passed == -1 || s.m_offset == s.m_held - 1) {
        return passed;
    }
    ++s.m_offset;
    return passed + 1;
}

int CStrParser::GetThruEOL() {
    return GetThru('\n');
}

int CStrParser::ConsumeWhitespace() {
    State& s = *m_state;
    int end = s.m_offset + s.left();
    return s.move_to(first_of(s.m_text, s.m_offset, end, [](char c) { return !is_blank(c); }));
}

int CStrParser::ConsumeWhitespaceInLine() {
    State& s = *m_state;
    int end = s.m_offset + s.left();
    return s.move_to(
        first_of(s.m_text, s.m_offset, end, [](char c) { return !is_blank(c) || c == '\r' || c == '\n'; }));
}

int CStrParser::ConsumeWord(char* out, unsigned out_len) {
    State& s = *m_state;
    int start = s.m_offset;
    int passed = s.move_to(first_of(s.m_text, start, start + s.left(), [](char c) { return !is_word(c); }));
    s.copy(start, passed, out, out_len);
    return passed;
}

int CStrParser::ConsumeLength(unsigned len, char* out, unsigned out_len) {
    State& s = *m_state;
    int start = s.m_offset;
    int passed = static_cast<int>(std::min(len, static_cast<unsigned>(s.left())));
    s.m_offset += passed;
    s.copy(start, passed, out, out_len);
    return passed;
}

int CStrParser::ConsumeSentence(const char* delims, char* out, unsigned out_len) {
    State& s = *m_state;
    if (delims == nullptr || s.m_offset > s.m_held) {
        return -1;
    }
    int start = s.m_offset;
    int end = start + s.left();
    // strchr would take the byte 0 for a delimiter: it finds the terminator of `delims`.
    size_t count = strlen(delims);
    int stop = count == 1 ? index_of(s.m_text, start, end, *delims)
                          : first_of(s.m_text, start, end,
                                     [=](char c) { return memchr(delims, c, count) != nullptr; });
    s.m_offset = stop < end ? stop + 1 : stop;
    if (stop > start) {
        s.copy(start, stop - start, out, out_len);
    }
    return stop - start;
}

// Leaves the cursor on the start of the line that was found, and gives its offset; -1 if there is none.
//
// A search that starts on a line's first byte has to find that line, so it first steps back onto the '\n'
// before it; offset 1 does not, and starts with the next line. GetThruEOL parks on a '\n' that ends the text,
// which makes that byte a last candidate, and the search ends when the cursor no longer moves.
int CStrParser::FindLineWithHead(const char* head) {
    State& s = *m_state;
    bool candidate = s.m_offset == 0;
    if (s.m_offset > 1) {
        --s.m_offset;
    }
    while (s.left() > 0) {
        int before = s.m_offset;
        if (!candidate && GetThruEOL() == -1) {
            return -1;
        }
        if (!s.left_for(head)) {
            return -1;
        }
        if (strncmp(s.here(), head, strlen(head)) == 0) {
            return s.m_offset;
        }
        if (!candidate && s.m_offset == before) {
            return -1;
        }
        candidate = false;
    }
    return -1;
}

int CStrParser::GetLineWithHead(const char* head, char* out, unsigned out_len) {
    State& s = *m_state;
    int saved = s.m_offset;
    int start = head != nullptr ? FindLineWithHead(head) : -1;
    if (start == -1) {
        s.m_offset = saved;
        return -1;
    }
    int tail = GetCurLineTail();
    s.m_offset = tail < s.m_held - 1 ? tail + 1 : tail;
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
    s.copy(start, len, out, out_len);
    return len;
}

// The last line is found again and again, since the cursor stays on its last byte; the count must not.
int CStrParser::GetLineNumWithHead(const char* head) {
    if (head == nullptr) {
        return -1;
    }
    State& s = *m_state;
    int saved = s.m_offset;
    int count = 0;
    int last = -1;
    int start = FindLineWithHead(head);
    while (start > last) {
        ++count;
        last = start;
        int tail = GetCurLineTail();
        s.m_offset = tail < s.m_held - 1 ? tail + 1 : tail;
        start = FindLineWithHead(head);
    }
    s.m_offset = saved;
    return count;
}

}  // namespace Orvex::Reticor
