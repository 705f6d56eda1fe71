// What a CStrParser holds behind its pointer, and the byte classes that its sources share.
#pragma once

#include <Reticor/StrParser.h>

#include <climits>
#include <cstddef>
#include <cstring>

namespace Orvex::Reticor {

/// A block is this much longer than its text when it is made, and zero behind it.
constexpr size_t STR_PARSER_PADDING = 10;
/// Leaves room for the padding, and for a cursor one past the length.
constexpr size_t STR_PARSER_MAX_LEN = INT_MAX - 16;

/// Where blocks come from: zeroed if `old` is null, otherwise `old` made larger. Tests put a failing one
/// here.
extern void* (*TEST_allocate_block)(void* old, size_t size);

/// Invariants: 0 <= m_held <= m_len, except that both are 0 without a text; m_block >= m_held + 1; the last
/// byte of the block is 0.
struct CStrParser::State {
    char* m_text = nullptr;
    int m_len = 0;  ///< Bytes of text, as callers are told.
    int m_offset = 0;
    int m_status = 0;
    /// Bytes of text that the block really has: below `m_len` only after a growth that found no memory.
    int m_held = 0;
    size_t m_block = 0;  ///< Bytes of the block.

    /// Bytes from the cursor to the end: 0 for a cursor before, at or past it. Whatever reads at the cursor
    /// asks here first.
    int left() const { return m_offset < 0 || m_offset >= m_held ? 0 : m_held - m_offset; }
    /// Whether as many bytes are left as `s` has. Not for null.
    bool left_for(const char* s) const { return s != nullptr && strlen(s) <= static_cast<size_t>(left()); }
    const char* here() const { return m_text + m_offset; }
    /// The byte at `index`, 0 outside the text.
    char at(int index) const { return index < 0 || index >= m_held ? '\0' : m_text[index]; }
    /// Moves the cursor to `offset` and gives the bytes passed.
    int move_to(int offset) {
        int passed = offset - m_offset;
        m_offset = offset;
        return passed;
    }

    /// Moves the cursor to the first byte that `stop` takes and gives the bytes passed; -1 if there is none.
    template <typename Stop>
    int pass_until(Stop stop) {
        const int end = m_offset + left();
        for (int i = m_offset; i < end; ++i) {
            if (stop(m_text[i])) {
                return move_to(i);
            }
        }
        return -1;
    }

    using Search = unsigned char* (*)(unsigned char*, int, unsigned char*, int);

    int attach(const char* text, size_t len);
    int append(const char* text);
    /// Copies at most `out_len - 1` of the `n` bytes from `start` on and terminates them, if `out` is usable.
    void copy(int start, int n, char* out, unsigned out_len) const;
    /// Moves the cursor to `s` in [from, to) and gives its offset, or -1.
    int locate(const char* s, int from, int to, Search search);
};

// ASCII only, so that no locale and no byte above 127 changes what a protocol's text means.

inline bool is_blank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

inline bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

inline bool is_word(char c) {
    return c >= 33 && c <= 126;
}

/// The digit's value, -1 for other bytes.
inline int hex_value(char c) {
    if (is_digit(c)) {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

inline int to_lower(char c) {
    int byte = static_cast<unsigned char>(c);
    return byte >= 'A' && byte <= 'Z' ? byte + ('a' - 'A') : byte;
}

}  // namespace Orvex::Reticor
