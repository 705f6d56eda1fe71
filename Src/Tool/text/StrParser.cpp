// CStrParser: its text, the cursor, comparing and searching. What passes bytes is in StrParserConsume.cpp,
// numbers and replacement are in StrParserNumber.cpp, addresses in StrParserAddr.cpp.
#include <Reticor/StrParser.h>

#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <cstring>

#include "Tool/text/StrParserState.h"

namespace Orvex::Reticor {

namespace {

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

void* (*TEST_allocate_block)(void* old, size_t size) = realloc;

char* new_block(size_t len) {
    if (len > STR_PARSER_MAX_LEN) {
        return nullptr;
    }
    auto* block = static_cast<char*>(TEST_allocate_block(nullptr, len + STR_PARSER_PADDING));
    if (block != nullptr) {
        memset(block + len, 0, STR_PARSER_PADDING);
    }
    return block;
}

void CStrParser::State::copy(const char* start, int n, char* out, unsigned out_len) {
    if (out == nullptr || out_len == 0) {
        return;
    }
    size_t copied = std::min<size_t>(static_cast<size_t>(n), out_len - 1);
    if (copied > 0) {
        memcpy(out, start, copied);
    }
    out[copied] = '\0';
}

// The new block is filled before the old one goes: `text` may lie in it.
int CStrParser::State::attach(const char* text, size_t len) {
    char* block = new_block(len);
    if (block != nullptr) {
        memcpy(block, text, len);
    }
    free(m_text);
    m_text = block;
    m_len = block != nullptr ? static_cast<int>(len) : 0;
    m_end = m_text + m_len;
    m_block = block != nullptr ? len + STR_PARSER_PADDING : 0;
    m_status = block != nullptr ? 0 : -1;
    set_offset(0);
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
    size_t end = static_cast<size_t>(held());
    if (needed > m_block) {
        int saved = offset();
        size_t inside = address(text) - address(m_text);
        bool own = m_text != nullptr && inside < m_block;
        auto* block = static_cast<char*>(TEST_allocate_block(m_text, needed));
        if (block == nullptr) {
            return -1;
        }
        m_text = block;
        m_block = needed;
        set_offset(saved);
        text = own ? block + inside : text;
    }
    memmove(m_text + m_len, text, n);
    memset(m_text + end, 0, static_cast<size_t>(m_len) - end);
    memset(m_text + len, 0, m_block - len);
    m_len = static_cast<int>(len);
    m_end = m_text + len;
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
    return m_state->offset();
}

char CStrParser::GetCurChar() const {
    return m_state->at(m_state->offset());
}

char CStrParser::CheckPrevChar() const {
    return m_state->at(m_state->offset() - 1);
}

void CStrParser::ResetAll() {
    m_state->set_offset(0);
    m_state->m_status = 0;
}

void CStrParser::ResetToLineHead() {
    m_state->set_offset(GetCurLineHead());
}

int CStrParser::LocateOffset(int offset) {
    int last = m_state->m_len - 1;
    m_state->set_offset(offset < 0 ? 0 : std::min(offset, last));
    return m_state->offset();
}

int CStrParser::GetLineNum() const {
    return static_cast<int>(std::count<const char*>(m_state->m_text, m_state->m_end, '\n'));
}

unsigned CStrParser::GetCurLinelength() const {
    const State& s = *m_state;
    int head = GetCurLineHead();
    int tail = GetCurLineTail();
    if (s.at(tail) != '\n') {
        return static_cast<unsigned>(s.held() - head);
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
    int before = std::min(s.offset(), s.held());
    const void* found = before > 0 ? memrchr(s.m_text, '\n', static_cast<size_t>(before)) : nullptr;
    if (found == nullptr) {
        return 0;
    }
    int index = s.index_of(static_cast<const char*>(found));
    return index + 1 < s.held() ? index + 1 : index;
}

int CStrParser::GetCurLineTail() const {
    const char* found = m_state->find('\n');
    return found != nullptr ? m_state->index_of(found) : m_state->held() - 1;
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
    State& s = *m_state;
    if (s.left() == 0 || *s.here() != c) {
        return -1;
    }
    ++s.m_cursor;
    return s.offset();
}

int CStrParser::ExpectEOL() {
    State& s = *m_state;
    if (s.left() == 0) {
        return -1;
    }
    bool carriage_return = *s.here() == '\r';
    if (carriage_return && s.left() == 1) {
        ++s.m_cursor;
        return -1;
    }
    const char* byte = s.here() + (carriage_return ? 1 : 0);
    if (*byte != '\n') {
        return -1;
    }
    s.move_to(byte + 1);
    return s.offset();
}

int CStrParser::LocateString(const char* s) {
    return LocateString(s, m_state->offset(), m_state->held());
}

int CStrParser::LocateStringCase(const char* s) {
    return LocateStringCase(s, m_state->offset(), m_state->held());
}

int CStrParser::LocateStringInLine(const char* s) {
    return LocateString(s, m_state->offset(), GetCurLineTail() + 1);
}

int CStrParser::LocateStringInLineCase(const char* s) {
    return LocateStringCase(s, m_state->offset(), GetCurLineTail() + 1);
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
    set_offset(static_cast<int>(found - text));
    return offset();
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
