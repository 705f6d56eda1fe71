// What a CStrParser holds behind its pointer, and the byte classes that its sources share.
#pragma once

#include <Reticor/StrParser.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Orvex::Reticor {

/// A block is this much longer than its text when it is made, and zero behind it.
constexpr size_t STR_PARSER_PADDING = 10;
/// Leaves room for the padding, and for a cursor one past the length.
constexpr size_t STR_PARSER_MAX_LEN = INT_MAX - 16;

/// Where blocks come from: realloc. Tests put one here that fails.
extern void* (*TEST_allocate_block)(void* old, size_t size);

/// A block for `len` bytes of text with zeros behind them, null without memory. To be given back with free.
char* new_block(size_t len);

/// Invariants: held() <= m_len, and both are 0 without a text; m_block > held(), and the last byte of the
/// block is 0.
struct __attribute__((visibility("hidden"))) CStrParser::State {
    char* m_text = nullptr;
    /// Behind the last byte of text that the block really has: before `m_text + m_len` only after a growth
    /// that found no memory.
    const char* m_end = nullptr;
    /// The cursor is kept as an address, so that an operation starts where the last one ended without
    /// arithmetic in between: a walk through a text is one chain of such steps. As a number it may stand
    /// outside the block.
    uintptr_t m_cursor = 0;
    int m_len = 0;  ///< What `GetStringLen` gives.
    int m_status = 0;
    size_t m_block = 0;  ///< Bytes of the block.

    int held() const { return static_cast<int>(m_end - m_text); }
    int offset() const { return static_cast<int>(static_cast<intptr_t>(m_cursor - address(m_text))); }
    void set_offset(int offset) { m_cursor = address(m_text) + static_cast<uintptr_t>(intptr_t{offset}); }

    /// Bytes from the cursor to the end: 0 for a cursor before, at or past it. Whatever reads at the cursor
    /// asks here first.
    size_t left() const {
        size_t behind = m_cursor - address(m_text);
        size_t all = static_cast<size_t>(m_end - m_text);
        return behind < all ? all - behind : 0;
    }
    /// Whether as many bytes are left as `s` has; not if that is null.
    bool left_for(const char* s) const { return s != nullptr && strlen(s) <= left(); }
    const char* here() const { return reinterpret_cast<const char*>(m_cursor); }
    /// Behind the last byte that is left; the cursor itself if there is none.
    const char* end_of_left() const { return reinterpret_cast<const char*>(m_cursor + left()); }

    /// The byte at `index`, 0 outside the text.
    char at(int index) const {
        return static_cast<unsigned>(index) < static_cast<unsigned>(held()) ? m_text[index] : '\0';
    }
    int index_of(const char* byte) const { return static_cast<int>(byte - m_text); }

    /// Moves the cursor and gives the bytes passed.
    int move_to(const char* byte) {
        int passed = static_cast<int>(address(byte) - m_cursor);
        m_cursor = address(byte);
        return passed;
    }
    /// The first `c` from the cursor on, null if there is none.
    const char* find(char c) const {
        size_t bytes = left();
        return bytes > 0 ? static_cast<const char*>(memchr(here(), c, bytes)) : nullptr;
    }
    /// The first byte from the cursor on that `stop` takes, `end_of_left` if there is none.
    template <typename Stop>
    const char* first_of(Stop stop) const {
        const char* byte = here();
        const char* const end = end_of_left();
        while (byte != end && !stop(*byte)) {
            ++byte;
        }
        return byte;
    }
    /// Moves the cursor to the first byte that `stop` takes and gives the bytes passed; -1 if there is none.
    template <typename Stop>
    int pass_until(Stop stop) {
        const char* byte = first_of(stop);
        return byte != end_of_left() ? move_to(byte) : -1;
    }

    using Search = unsigned char* (*)(unsigned char*, int, unsigned char*, int);

    int attach(const char* text, size_t len);
    int append(const char* text);
    /// Copies at most `out_len - 1` of the `n` bytes from `start` on and terminates them, if `out` is usable.
    static void copy(const char* start, int n, char* out, unsigned out_len);
    /// Moves the cursor to `s` in [from, to) and gives its offset, or -1.
    int locate(const char* s, int from, int to, Search search);

private:
    static uintptr_t address(const char* byte) { return reinterpret_cast<uintptr_t>(byte); }
};

// ASCII only, so that no locale and no byte above 127 changes what a protocol's text means.

inline bool is_blank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

inline bool is_blank_in_line(char c) {
    return c == ' ' || c == '\t' || c == '\v' || c == '\f';
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
