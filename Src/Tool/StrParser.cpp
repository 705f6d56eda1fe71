// CStrParser: its text, the cursor, comparing and searching. What passes bytes is in StrParserConsume.cpp,
// numbers and replacement are in StrParserNumber.cpp, addresses in StrParserAddr.cpp.
#include <Reticor/StrParser.h>

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "Tool/StrParserState.h"

namespace Orvex::Reticor {

namespace {

void* allocate_block(void* old, size_t size) {
    return old != nullptr ? realloc(old, size) : calloc(1, size);
}

int compare_case(const char* a, const char* b, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        int difference = to_lower(a[i]) - to_lower(b[i]);
        if (difference != 0) {
            return difference;
        }
    }
    return 0;
}

}  // namespace

void* (*TEST_allocate_block)(void* old, size_t size) = allocate_block;

void CStrParser::State::copy(int start, int n, char* out, unsigned out_len) const {
    if (out == nullptr || out_len == 0) {
        return;
    }
    size_t copied = std::min<size_t>(static_cast<size_t>(n), out_len - 1);
    if (copied > 0) {
        memcpy(out, m_text + start, copied);
    }
    out[copied] = '\0';
}

// The new block is filled before the old one goes: `text` may lie in it.
int CStrParser::State::attach(const char* text, size_t len) {
    char* block = nullptr;
    if (len <= STR_PARSER_MAX_LEN) {
        block = static_cast<char*>(TEST_allocate_block(nullptr, len + STR_PARSER_PADDING));
    }
    if (block != nullptr) {
        memcpy(block, text, len);
    }
    free(m_text);
    m_text = block;
    m_len = m_held = block != nullptr ? static_cast<int>(len) : 0;
    m_block = block != nullptr ? len + STR_PARSER_PADDING : 0;
    m_offset = 0;
    m_status = block != nullptr ? 0 : -1;
    return m_status;
}

// `text` may lie in the block, which realloc moves. The block never shrinks under a cursor that stands far
// out, and everything behind the new text is zero again, whatever an earlier replacement left there.
int CStrParser::State::append(const char* text) {
    size_t n = strlen(text);
    size_t len = static_cast<size_t>(m_len) + n;
    if (n > STR_PARSER_MAX_LEN || len > STR_PARSER_MAX_LEN) {
        return -1;
    }
    size_t needed = len + STR_PARSER_PADDING;
    if (needed > m_block) {
        auto inside = reinterpret_cast<uintptr_t>(text) - reinterpret_cast<uintptr_t>(m_text);
        bool own = m_text != nullptr && inside < m_block;
        auto* block = static_cast<char*>(TEST_allocate_block(m_text, needed));
        if (block == nullptr) {
            return -1;
        }
        m_text = block;
        m_block = needed;
        text = own ? block + inside : text;
    }
    memmove(m_text + m_len, text, n);
    memset(m_text + m_held, 0, static_cast<size_t>(m_len - m_held));
    memset(m_text + len, 0, m_block - len);
    m_len = m_held = static_cast<int>(len);
    return m_len;
}

CStrParser::CStrParser() noexcept : m_state(new State) {}

CStrParser::CStrParser(const char* text) noexcept : m_state(new State) {
    Attach(text);
}

CStrParser::CStrParser(const char* text, unsigned len) noexcept : m_state(new State) {
    Attach(text, len);
}

CStrParser::~CStrParser() {
    free(m_state->m_text);
    delete m_state;
}

int CStrParser::Attach(const char* text) {
    assert(text);
    return m_state->attach(text, strlen(text));
}

int CStrParser::Attach(const char* text, unsigned len) {
    assert(text);
    return m_state->attach(text, len);
}

int CStrParser::Append(const char* text) {
    return text == nullptr ? -1 : m_state->append(text);
}

const char* CStrParser::GetString() const {
    return m_state->m_text;
}

int CStrParser::GetStringLen() const {
    return m_state->m_len;
}

int CStrParser::GetStatus() const {
    return m_state->m_status;
}

int CStrParser::GetCurOffset() const {
    return m_state->m_offset;
}

char CStrParser::GetCurChar() const {
    return m_state->at(m_state->m_offset);
}

char CStrParser::CheckPrevChar() const {
    return m_state->at(m_state->m_offset - 1);
}

void CStrParser::ResetAll() {
    m_state->m_offset = 0;
    m_state->m_status = 0;
}

void CStrParser::ResetToLineHead() {
    m_state->m_offset = GetCurLineHead();
}

int CStrParser::LocateOffset(int offset) {
    int last = m_state->m_len - 1;
    m_state->m_offset = offset < 0 ? 0 : std::min(offset, last);
    return m_state->m_offset;
}

int CStrParser::GetLineNum() const {
    return static_cast<int>(std::count(m_state->m_text, m_state->m_text + m_state->m_held, '\n'));
}

unsigned CStrParser::GetCurLinelength() const {
    const State& s = *m_state;
    int head = GetCurLineHead();
    int tail = GetCurLineTail();
    if (s.at(tail) != '\n') {
        return static_cast<unsigned>(s.m_held - head);
    }
    // The '\r' counts only inside the line: a cursor after the last '\n' has that '\n' alone for its line.
    if (tail > head && s.at(tail - 1) == '\r') {
        --tail;
    }
    return static_cast<unsigned>(tail - head);
}

// The walk starts before the cursor, so a cursor on a '\n' belongs to the line that this one ends.
int CStrParser::GetCurLineHead() const {
    const State& s = *m_state;
    int before = std::min(s.m_offset, s.m_held);
    const void* found = before > 0 ? memrchr(s.m_text, '\n', static_cast<size_t>(before)) : nullptr;
    if (found == nullptr) {
        return 0;
    }
    int index = static_cast<int>(static_cast<const char*>(found) - s.m_text);
    return index + 1 < s.m_held ? index + 1 : index;
}

int CStrParser::GetCurLineTail() const {
    const State& s = *m_state;
    int left = s.left();
    const void* found = left > 0 ? memchr(s.here(), '\n', static_cast<size_t>(left)) : nullptr;
    return found != nullptr ? static_cast<int>(static_cast<const char*>(found) - s.m_text) : s.m_held - 1;
}

int CStrParser::Compare(const char* s) const {
    if (!m_state->left_for(s)) {
        return -1;
    }
    return *s != '\0' ? strncmp(m_state->here(), s, strlen(s)) : 0;
}

int CStrParser::CompareCase(const char* s) const {
    if (!m_state->left_for(s)) {
        return -1;
    }
    return *s != '\0' ? compare_case(m_state->here(), s, strlen(s)) : 0;
}

int CStrParser::Expect(char c) {
    if (m_state->left() == 0 || *m_state->here() != c) {
        return -1;
    }
    return ++m_state->m_offset;
}

int CStrParser::ExpectEOL() {
    State& s = *m_state;
    if (s.left() == 0) {
        return -1;
    }
    int saved = s.m_offset;
    if (*s.here() == '\r' && ++s.m_offset == s.m_held) {
        return -1;
    }
    if (*s.here() != '\n') {
        s.m_offset = saved;
        return -1;
    }
    return ++s.m_offset;
}

int CStrParser::LocateString(const char* s) {
    return LocateString(s, m_state->m_offset, m_state->m_held);
}

int CStrParser::LocateStringCase(const char* s) {
    return LocateStringCase(s, m_state->m_offset, m_state->m_held);
}

int CStrParser::LocateStringInLine(const char* s) {
    return LocateString(s, m_state->m_offset, GetCurLineTail() + 1);
}

int CStrParser::LocateStringInLineCase(const char* s) {
    return LocateStringCase(s, m_state->m_offset, GetCurLineTail() + 1);
}

int CStrParser::LocateString(const char* s, int from, int to) {
    return m_state->locate(s, from, to, MemMem);
}

int CStrParser::LocateStringCase(const char* s, int from, int to) {
    return m_state->locate(s, from, to, MemMemCase);
}

// A needle longer than the range is turned away before its length is made an int of.
int CStrParser::State::locate(const char* s, int from, int to, Search search) {
    if (s == nullptr || from < 0 || to <= from || static_cast<size_t>(to - from) < strlen(s)) {
        return -1;
    }
    auto* text = reinterpret_cast<unsigned char*>(m_text);
    auto* needle = reinterpret_cast<unsigned char*>(const_cast<char*>(s));
    unsigned char* found = search(text + from, to - from, needle, static_cast<int>(strlen(s)));
    if (found == nullptr) {
        return -1;
    }
    m_offset = static_cast<int>(found - text);
    return m_offset;
}

unsigned char* CStrParser::MemMem(unsigned char* hay, int hay_len, unsigned char* needle, int needle_len) {
    if (hay == nullptr || needle == nullptr || hay_len < 1 || needle_len < 1) {
        return nullptr;
    }
    return static_cast<unsigned char*>(
        memmem(hay, static_cast<size_t>(hay_len), needle, static_cast<size_t>(needle_len)));
}

unsigned char* CStrParser::MemMemCase(unsigned char* hay, int hay_len, unsigned char* needle,
                                      int needle_len) {
    if (hay == nullptr || needle == nullptr || hay_len < 1 || needle_len < 1) {
        return nullptr;
    }
    auto* text = reinterpret_cast<const char*>(hay);
    auto* wanted = reinterpret_cast<const char*>(needle);
    for (int i = 0; i <= hay_len - needle_len; ++i) {
        if (compare_case(text + i, wanted, static_cast<size_t>(needle_len)) == 0) {
            return hay + i;
        }
    }
    return nullptr;
}

}  // namespace Orvex::Reticor
