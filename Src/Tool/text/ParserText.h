// ParserText: the text of a parser, its cursor, and what is looked up or replaced in it.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Orvex::Reticor {

/// A private copy of a text and a cursor over it.
///
/// Invariants: held() <= length(), and both are 0 without a text. The block is longer than what is held, and
/// its last byte is 0.
///
/// Threads: those of the parser, which belongs to one at a time.
class ParserText {
public:
    /// Leaves room for what follows a text, and for a cursor one past the length.
    static constexpr size_t LONGEST = INT_MAX - 16;

    ParserText() = default;
    ~ParserText() { free_block(m_text); }

    /// A new one, with no text. Without memory it comes out of a reserve; when that is used up, it is one
    /// without a text for ever, which all those share.
    static ParserText* make() noexcept;
    static void end(ParserText* text) noexcept;

    ParserText(const ParserText&) = delete;
    ParserText& operator=(const ParserText&) = delete;

    // The text. `text` may lie in the present one.

    /// Takes a copy in place of the present text; cursor and status become 0. 0; -1 without memory, with that
    /// as status, and no text.
    int attach(const char* text, size_t len);
    /// Adds a copy at the end and gives the new length; -1 without memory, and nothing has changed.
    int append(const char* text);
    /// Puts `s` in place of the bytes [start, end] and gives its length. The cursor stays. -1 if they do not
    /// lie in the text, for null, and without memory, which only growth needs.
    int replace(int start, int end, const char* s);
    /// Puts up to `len` bytes over those at the cursor, from `s` and then blanks, and moves past them.
    void overwrite(int len, const char* s);

    const char* bytes() const { return m_text; }
    /// What `GetStringLen` gives.
    int length() const { return m_len; }
    int held() const { return static_cast<int>(m_end - m_text); }
    int status() const { return m_status; }
    void set_status(int status) { m_status = status; }
    /// The byte at `index`, 0 outside the text.
    char at(int index) const {
        return static_cast<unsigned>(index) < static_cast<unsigned>(held()) ? m_text[index] : '\0';
    }
    /// Number of '\n'.
    int line_ends() const;

    // The cursor. It may stand outside the text, where nothing is left.

    int offset() const { return static_cast<int>(static_cast<intptr_t>(m_cursor - address(m_text))); }
    void set_offset(int offset) { m_cursor = address(m_text) + static_cast<uintptr_t>(intptr_t{offset}); }

    /// Bytes from the cursor to the end: 0 for a cursor before, at or past it. Whatever reads at the cursor
    /// asks here first.
    size_t left() const {
        size_t passed = m_cursor - address(m_text);
        size_t all = static_cast<size_t>(m_end - m_text);
        return passed < all ? all - passed : 0;
    }
    /// Whether as many bytes are left as `s` has; not if that is null.
    bool left_for(const char* s) const { return s != nullptr && strlen(s) <= left(); }
    const char* here() const { return reinterpret_cast<const char*>(m_cursor); }
    /// After the last byte that is left; the cursor itself if there is none.
    const char* end_of_left() const { return reinterpret_cast<const char*>(m_cursor + left()); }
    bool is_last(const char* byte) const { return byte + 1 == m_end; }

    /// Moves the cursor and gives the bytes passed.
    int move_to(const char* byte) {
        int passed = static_cast<int>(address(byte) - m_cursor);
        m_cursor = address(byte);
        return passed;
    }
    void advance(size_t count) { m_cursor += count; }
    void step_back() { --m_cursor; }

    // Lines. A cursor on a '\n' belongs to the line that it ends.

    int line_head() const;
    /// The line's '\n', or the last byte of the text.
    int line_tail() const;
    /// Without the line's "\n" or "\r\n".
    unsigned line_length() const;

    // Looking from the cursor on.

    /// The first `c`, null if there is none.
    const char* find(char c) const {
        size_t bytes = left();
        return bytes > 0 ? static_cast<const char*>(memchr(here(), c, bytes)) : nullptr;
    }
    /// The first byte that `stop` takes, `end_of_left` if there is none.
    template <typename Stop>
    const char* first_of(Stop stop) const {
        const char* byte = here();
        const char* const end = end_of_left();
        while (byte != end && !stop(*byte)) {
            ++byte;
        }
        return byte;
    }

    /// What `strncmp` gives for the length of `s`, -1 also if fewer bytes are left.
    int compare(const char* s) const;
    int compare_case(const char* s) const;

    using Search = const char* (*)(const char* hay, size_t hay_len, const char* needle, size_t needle_len);
    /// The first occurrence, or null. The lengths are above 0.
    static const char* search(const char* hay, size_t hay_len, const char* needle, size_t needle_len);
    /// The same without regard to case.
    static const char* search_case(const char* hay, size_t hay_len, const char* needle, size_t needle_len);
    /// Moves the cursor to the first `s` between it and the index `to`, and gives its offset; -1 if there is
    /// none.
    int locate(const char* s, int to, Search how);

private:
    static uintptr_t address(const char* byte) { return reinterpret_cast<uintptr_t>(byte); }
    static char* new_block(size_t len);
    static void free_block(char* block);
    int grow(int start, int end, const char* s, size_t n);
    int index_of(const char* byte) const { return static_cast<int>(byte - m_text); }

    char* m_text = nullptr;
    /// After the last byte of text that the block really has: before `m_text + m_len` only after a growth
    /// that found no memory.
    const char* m_end = nullptr;
    /// The cursor is kept as an address, so that an operation starts where the last one ended without
    /// arithmetic in between: a walk through a text is one chain of such steps. As a number it may stand
    /// outside the block.
    uintptr_t m_cursor = 0;
    int m_len = 0;
    int m_status = 0;
    size_t m_block = 0;  ///< Bytes of the block.
};

}  // namespace Orvex::Reticor
