// ParserPassing: passes bytes, words and lines of a parser's text.
#pragma once

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <cstddef>

#include "Tool/text/ParserBytes.h"
#include "Tool/text/ParserText.h"

namespace Orvex::Reticor {

/// Moves the cursor of a text, and gives the bytes passed; -1 where nothing was passed because the text ends
/// first, unless another result is named. The operations are those of CStrParser, which tells more.
///
/// Bytes left come first everywhere: the cursor may stand outside the text, where there is nothing to pass.
/// The short ones stand here, since the walk through a request makes thousands of such steps.
class ParserPassing {
public:
    explicit ParserPassing(ParserText& text) : m_text(text) {}

    /// The new offset, or -1.
    int expect(char c) {
        if (m_text.left() == 0 || *m_text.here() != c) {
            return -1;
        }
        m_text.advance(1);
        return m_text.offset();
    }
    int expect_line_end();

    int until(char c) {
        const char* byte = m_text.find(c);
        return byte != nullptr ? m_text.move_to(byte) : -1;
    }
    int until(const unsigned char* table);
    int until_digit();
    int until_hex_digit();
    int until_in_line(char c) {
        const char* const end = m_text.end_of_left();
        const char* byte = find_in_line(m_text.here(), end, c);
        return byte != end && *byte == c ? m_text.move_to(byte) : -1;
    }
    int until_in_line(const unsigned char* table);
    /// At a final '\n' the offset, not a count.
    int until_next_line() {
        const char* byte = m_text.find('\n');
        if (byte == nullptr) {
            return -1;
        }
        if (m_text.is_last(byte)) {
            m_text.move_to(byte);
            return m_text.offset();
        }
        return m_text.move_to(byte + 1);
    }
    int through(char c) {
        const char* byte = m_text.find(c);
        if (byte == nullptr) {
            return -1;
        }
        return m_text.move_to(m_text.is_last(byte) ? byte : byte + 1);
    }

    int blanks() {
        return m_text.move_to(m_text.first_of([](char c) { return !is_blank(c); }));
    }
    int blanks_in_line() {
        return m_text.move_to(m_text.first_of([](char c) { return !is_blank_in_line(c); }));
    }
    int word(char* out, unsigned out_len);
    int bytes(unsigned len, char* out, unsigned out_len);
    int sentence(const char* delims, char* out, unsigned out_len);

    /// The line's length with `out` usable, otherwise 0; -1 if there is no such line.
    int line_with_head(const char* head, char* out, unsigned out_len);
    /// Counts such lines and leaves the cursor.
    int lines_with_head(const char* head);

private:
    /// The first `c` or '\n', `end` if there is none. The names in front of a ':' are too short for two calls
    /// of memchr to pay, and their lengths too irregular for a loop over bytes; sixteen at a time take one
    /// step for most of them.
    static const char* find_in_line(const char* byte, const char* end, char c) {
#if defined(__SSE2__)
        for (; end - byte >= 16; byte += 16) {
            __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(byte));
            __m128i found = _mm_or_si128(_mm_cmpeq_epi8(block, _mm_set1_epi8(c)),
                                         _mm_cmpeq_epi8(block, _mm_set1_epi8('\n')));
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
    template <typename Stop>
    int pass_until(Stop stop) {
        const char* byte = m_text.first_of(stop);
        return byte != m_text.end_of_left() ? m_text.move_to(byte) : -1;
    }
    int find_line(const char* head);
    int pass_line();

    ParserText& m_text;
};

}  // namespace Orvex::Reticor
