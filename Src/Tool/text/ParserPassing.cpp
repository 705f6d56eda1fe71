// ParserPassing: what takes more than a step.
#include "Tool/text/ParserPassing.h"

#include <algorithm>
#include <cstring>

namespace Orvex::Reticor {

namespace {

/// Copies at most `out_len - 1` of the `n` bytes from `start` on and terminates them, if `out` is usable.
void copy(const char* start, int n, char* out, unsigned out_len) {
    if (out == nullptr || out_len == 0) {
        return;
    }
    size_t copied = std::min<size_t>(static_cast<size_t>(n), out_len - 1);
    if (copied > 0) {
        memcpy(out, start, copied);
    }
    out[copied] = '\0';
}

}  // namespace

int ParserPassing::expect_line_end() {
    if (m_text.left() == 0) {
        return -1;
    }
    const bool carriage_return = *m_text.here() == '\r';
    if (carriage_return && m_text.left() == 1) {
        m_text.advance(1);
        return -1;
    }
    const char* byte = m_text.here() + (carriage_return ? 1 : 0);
    if (*byte != '\n') {
        return -1;
    }
    m_text.move_to(byte + 1);
    return m_text.offset();
}

int ParserPassing::until(const unsigned char* table) {
    if (table == nullptr) {
        return -1;
    }
    return pass_until([table](char c) { return table[static_cast<signed char>(c)] != 0; });
}

int ParserPassing::until_digit() {
    return pass_until(is_digit);
}

int ParserPassing::until_hex_digit() {
    return pass_until([](char c) { return hex_value(c) >= 0; });
}

int ParserPassing::until_in_line(const unsigned char* table) {
    if (table == nullptr) {
        return -1;
    }
    return pass_until([table](char c) { return c == '\n' || table[static_cast<signed char>(c)] != 0; });
}

int ParserPassing::word(char* out, unsigned out_len) {
    const char* start = m_text.here();
    const int passed = m_text.move_to(m_text.first_of([](char c) { return !is_word(c); }));
    copy(start, passed, out, out_len);
    return passed;
}

int ParserPassing::bytes(unsigned len, char* out, unsigned out_len) {
    const char* start = m_text.here();
    const size_t passed = std::min<size_t>(len, m_text.left());
    m_text.advance(passed);
    copy(start, static_cast<int>(passed), out, out_len);
    return static_cast<int>(passed);
}

int ParserPassing::sentence(const char* delims, char* out, unsigned out_len) {
    if (delims == nullptr || m_text.offset() > m_text.held()) {
        return -1;
    }
    const char* const start = m_text.here();
    const char* const end = m_text.end_of_left();
    const char* stop = end;
    // The terminator of `delims` must not count as a delimiter, since the text may hold NUL bytes.
    const size_t count = strlen(delims);
    if (count == 1) {
        stop = m_text.find(*delims);
        stop = stop != nullptr ? stop : end;
    } else if (count > 1) {
        stop = m_text.first_of([=](char c) { return memchr(delims, c, count) != nullptr; });
    }
    const int passed = static_cast<int>(stop - start);
    m_text.move_to(stop != end ? stop + 1 : end);
    if (passed > 0) {
        copy(start, passed, out, out_len);
    }
    return passed;
}

// Leaves the cursor on the start of the line that was found, and gives its offset; -1 if there is none.
//
// A search that starts on a line's first byte has to find that line, so it first steps back onto the '\n'
// before it; offset 1 does not, and starts with the next line. A final '\n' keeps the cursor, which makes
// that byte a last candidate, and the search ends when the cursor no longer moves.
int ParserPassing::find_line(const char* head) {
    const size_t head_len = strlen(head);
    bool candidate = m_text.offset() == 0;
    if (m_text.offset() > 1) {
        m_text.step_back();
    }
    while (m_text.left() > 0) {
        const int passed = candidate ? 0 : through('\n');
        if (passed == -1 || m_text.left() < head_len) {
            return -1;
        }
        if (strncmp(m_text.here(), head, head_len) == 0) {
            return m_text.offset();
        }
        if (passed == 0 && !candidate) {
            return -1;
        }
        candidate = false;
    }
    return -1;
}

int ParserPassing::pass_line() {
    const int tail = m_text.line_tail();
    m_text.set_offset(tail < m_text.held() - 1 ? tail + 1 : tail);
    return tail;
}

int ParserPassing::line_with_head(const char* head, char* out, unsigned out_len) {
    const int saved = m_text.offset();
    const int start = head != nullptr ? find_line(head) : -1;
    if (start == -1) {
        m_text.set_offset(saved);
        return -1;
    }
    int tail = pass_line();
    if (out == nullptr || out_len == 0) {
        return 0;
    }
    if (m_text.at(tail) == '\n') {
        --tail;
    }
    // The first byte of the text is kept even if it is the '\r' of an empty line.
    if (m_text.at(tail) == '\r' && tail > 0) {
        --tail;
    }
    // Parked on the last '\n', the "line" may begin after its own end.
    const int len = std::max(tail - start + 1, 0);
    copy(m_text.bytes() + start, len, out, out_len);
    return len;
}

// The last line is found again and again, since the cursor stays on its last byte; the count must not.
int ParserPassing::lines_with_head(const char* head) {
    if (head == nullptr) {
        return -1;
    }
    const int saved = m_text.offset();
    int count = 0;
    int last = -1;
    for (int start = find_line(head); start > last; start = find_line(head)) {
        ++count;
        last = start;
        pass_line();
    }
    m_text.set_offset(saved);
    return count;
}

}  // namespace Orvex::Reticor
