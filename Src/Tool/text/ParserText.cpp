// ParserText: its memory, lines and searches.
#include "Tool/text/ParserText.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <new>

#include <Infra/Forever.h>

#include "Tool/text/ParserBytes.h"

namespace Orvex::Reticor {

namespace {

/// A block is this much longer than its text when it is made, and zero after it.
constexpr size_t PADDING = 10;

int difference(const char* a, const char* b, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        int distance = to_lower(a[i]) - to_lower(b[i]);
        if (distance != 0) {
            return distance;
        }
    }
    return 0;
}

/// Places for parsers that find no memory.
class Reserve {
public:
    static constexpr size_t SIZE = 256;

    /// Null if all are taken.
    ParserText* take() {
        for (size_t i = 0; i < SIZE; ++i) {
            if (!m_taken[i].exchange(true, std::memory_order_acquire)) {
                return &m_rooms[i].make();
            }
        }
        return nullptr;
    }

    /// False for one that is not from here.
    bool give(ParserText* text) {
        const auto from = reinterpret_cast<uintptr_t>(m_rooms.data());
        const size_t place = (reinterpret_cast<uintptr_t>(text) - from) / sizeof(m_rooms[0]);
        if (reinterpret_cast<uintptr_t>(text) < from || place >= SIZE) {
            return false;
        }
        text->~ParserText();
        m_taken[place].store(false, std::memory_order_release);
        return true;
    }

private:
    std::array<std::atomic<bool>, SIZE> m_taken{};
    std::array<Infra::Forever<ParserText>, SIZE> m_rooms;
};

Reserve g_reserve;

/// The one that never has a text.
Infra::Forever<ParserText> g_without_text;

ParserText& without_text() {
    static ParserText& none = g_without_text.make();
    return none;
}

}  // namespace

ParserText* ParserText::make() noexcept {
    ParserText* text = new (std::nothrow) ParserText;
    if (text == nullptr) {
        text = g_reserve.take();
    }
    if (text == nullptr) {
        text = &without_text();
        text->m_status = -1;
    }
    return text;
}

void ParserText::end(ParserText* text) noexcept {
    if (text != g_without_text.place() && !g_reserve.give(text)) {
        delete text;
    }
}

// A block for `len` bytes of text with zeros after them, null without memory.
char* ParserText::new_block(size_t len) {
    if (len > LONGEST) {
        return nullptr;
    }
    char* block = new (std::nothrow) char[len + PADDING];
    if (block != nullptr) {
        memset(block + len, 0, PADDING);
    }
    return block;
}

void ParserText::free_block(char* block) {
    delete[] block;
}

// The new block is filled before the old one goes: `text` may lie in it.
int ParserText::attach(const char* text, size_t len) {
    if (this == g_without_text.place()) {
        return -1;
    }
    char* block = new_block(len);
    if (block != nullptr) {
        memcpy(block, text, len);
    }
    free_block(m_text);
    m_text = block;
    m_len = block != nullptr ? static_cast<int>(len) : 0;
    m_end = m_text + m_len;
    m_block = block != nullptr ? len + PADDING : 0;
    m_status = block != nullptr ? 0 : -1;
    set_offset(0);
    return m_status;
}

// The block never shrinks under a cursor that stands far out, and everything after the new text is zero
// again, whatever an earlier replacement left there.
int ParserText::append(const char* text) {
    if (this == g_without_text.place()) {
        return -1;
    }
    const size_t n = strlen(text);
    const size_t len = static_cast<size_t>(m_len) + n;
    if (n > LONGEST || len > LONGEST) {
        return -1;
    }
    const size_t end = static_cast<size_t>(held());
    char* block = m_text;
    if (len + PADDING > m_block) {
        block = new_block(len);
        if (block == nullptr) {
            return -1;
        }
        if (end > 0) {
            memcpy(block, m_text, end);
        }
    }
    memmove(block + m_len, text, n);
    if (block != m_text) {
        const int saved = offset();
        free_block(m_text);
        m_text = block;
        m_block = len + PADDING;
        set_offset(saved);
    }
    memset(m_text + end, 0, static_cast<size_t>(m_len) - end);
    memset(m_text + len, 0, m_block - len);
    m_len = static_cast<int>(len);
    m_end = m_text + len;
    return m_len;
}

int ParserText::replace(int start, int end, const char* s) {
    if (start < 0 || end >= held() || s == nullptr) {
        return -1;
    }
    size_t n = strlen(s);
    size_t old = static_cast<size_t>(end - start + 1);
    if (n > old) {
        return grow(start, end, s, n);
    }
    memmove(m_text + start, s, n);
    if (n < old) {
        size_t rest = static_cast<size_t>(held() - 1 - end);
        m_len -= static_cast<int>(old - n);
        m_end -= old - n;
        if (rest > 0) {
            memmove(m_text + start + n, m_text + end + 1, rest);
            m_text[held()] = '\0';
        }
    }
    return static_cast<int>(n);
}

// The length rises before there is memory for it, and stays so if there is none. The text is meant to be
// lines: if the new one does not end in a line end, it gets one, which the padding has room for.
int ParserText::grow(int start, int end, const char* s, size_t n) {
    size_t head = static_cast<size_t>(start);
    size_t rest = static_cast<size_t>(held() - 1 - end);
    size_t len = static_cast<size_t>(m_len) + n - static_cast<size_t>(end - start + 1);
    m_len = static_cast<int>(std::min(len, LONGEST));
    char* block = new_block(len);
    if (block == nullptr) {
        return -1;
    }
    memcpy(block, m_text, head);
    memcpy(block + head, s, n);
    memcpy(block + head + n, m_text + end + 1, rest);
    memset(block + head + n + rest, 0, len - head - n - rest);
    if (block[len - 1] != '\n') {
        memcpy(block + len, "\r\n", 2);
        m_len += 2;
    }
    int saved = offset();
    free_block(m_text);
    m_text = block;
    m_end = block + m_len;
    set_offset(saved);
    m_block = len + PADDING;
    return static_cast<int>(n);
}

void ParserText::overwrite(int len, const char* s) {
    size_t count = std::min(static_cast<size_t>(std::max(len, 0)), left());
    size_t n = s != nullptr ? strnlen(s, count) : 0;
    if (count > 0) {
        char* to = m_text + offset();
        if (n > 0) {
            memmove(to, s, n);
        }
        memset(to + n, ' ', count - n);
        move_to(to + count);
    }
}

int ParserText::line_ends() const {
    return static_cast<int>(std::count<const char*>(m_text, m_end, '\n'));
}

// The walk starts before the cursor, so a cursor on a '\n' belongs to the line that this one ends.
int ParserText::line_head() const {
    int before = std::min(offset(), held());
    const void* found = before > 0 ? memrchr(m_text, '\n', static_cast<size_t>(before)) : nullptr;
    if (found == nullptr) {
        return 0;
    }
    int index = index_of(static_cast<const char*>(found));
    return index + 1 < held() ? index + 1 : index;
}

int ParserText::line_tail() const {
    const char* found = find('\n');
    return found != nullptr ? index_of(found) : held() - 1;
}

unsigned ParserText::line_length() const {
    int head = line_head();
    int tail = line_tail();
    if (at(tail) != '\n') {
        return static_cast<unsigned>(held() - head);
    }
    // The '\r' counts only inside the line: a cursor after the last '\n' has that '\n' alone for its line.
    if (tail > head && at(tail - 1) == '\r') {
        --tail;
    }
    return static_cast<unsigned>(tail - head);
}

int ParserText::compare(const char* s) const {
    if (!left_for(s)) {
        return -1;
    }
    return *s != '\0' ? strncmp(here(), s, strlen(s)) : 0;
}

int ParserText::compare_case(const char* s) const {
    if (!left_for(s)) {
        return -1;
    }
    return *s != '\0' ? difference(here(), s, strlen(s)) : 0;
}

const char* ParserText::search(const char* hay, size_t hay_len, const char* needle, size_t needle_len) {
    return static_cast<const char*>(memmem(hay, hay_len, needle, needle_len));
}

const char* ParserText::search_case(const char* hay, size_t hay_len, const char* needle, size_t needle_len) {
    for (size_t i = 0; i + needle_len <= hay_len; ++i) {
        if (difference(hay + i, needle, needle_len) == 0) {
            return hay + i;
        }
    }
    return nullptr;
}

int ParserText::locate(const char* s, int to, Search how) {
    const int from = offset();
    if (s == nullptr || from < 0 || to <= from) {
        return -1;
    }
    const size_t n = strlen(s);
    const size_t range = static_cast<size_t>(to - from);
    const char* found = n > 0 && n <= range ? how(m_text + from, range, s, n) : nullptr;
    if (found == nullptr) {
        return -1;
    }
    move_to(found);
    return offset();
}

}  // namespace Orvex::Reticor
