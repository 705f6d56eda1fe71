// HttpAnswer: lines and bytes by turns.

#include "media_relay/input/HttpAnswer.h"

#include <algorithm>

namespace relay {

namespace {

constexpr int kMostDigits = 15;  // of a length: no answer is longer, and no sum of two overflows

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

char small(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

std::string smallLetters(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), small);
    return text;
}

std::string trimmed(const std::string& text) {
    const size_t begin = text.find_first_not_of(" \t");
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

/// Digits alone, of that base. False if it is none, or too long.
bool readLength(const std::string& text, unsigned base, uint64_t& length) {
    length = 0;
    for (const char c : text) {
        const char letter = small(c);
        const unsigned digit = isDigit(letter)                  ? static_cast<unsigned>(letter - '0')
                               : letter >= 'a' && letter <= 'f' ? static_cast<unsigned>(letter - 'a') + 10
                                                                : base;
        if (digit >= base) {
            return false;
        }
        length = length * base + digit;
    }
    return !text.empty() && text.size() <= kMostDigits;
}

}  // namespace

HttpAnswer::State HttpAnswer::put(const char* bytes, size_t size, const OnBody& onBody) {
    while (size > 0 && (m_state == State::Head || m_state == State::Body)) {
        if (m_expect == Expect::Bytes || m_expect == Expect::ChunkBytes) {
            const bool bounded = m_hasLength || m_expect == Expect::ChunkBytes;
            const size_t part = bounded ? static_cast<size_t>(std::min<uint64_t>(size, m_left)) : size;
            onBody(reinterpret_cast<const uint8_t*>(bytes), part);
            bytes += part;
            size -= part;
            m_left -= bounded ? part : 0;
            if (bounded && m_left == 0) {
                m_state = m_expect == Expect::Bytes ? State::Done : State::Body;
                m_expect = Expect::ChunkEnd;
            }
            continue;
        }
        const char c = *bytes++;
        --size;
        if (c != '\n') {
            m_line += c;
        } else {
            if (!m_line.empty() && m_line.back() == '\r') {
                m_line.pop_back();
            }
            const bool good = takeLine();
            m_line.clear();
            m_state = good ? m_state : State::Bad;
        }
        if (m_line.size() + m_read > MOST_HEAD) {
            m_state = State::Bad;
        }
    }
    return m_state;
}

/// False if it is not what should come.
bool HttpAnswer::takeLine() {
    switch (m_expect) {
        case Expect::StatusLine:
            m_read += m_line.size() + 1;
            return takeStatus();
        case Expect::Field:
            m_read += m_line.size() + 1;
            return takeField();
        case Expect::ChunkSize:
            return takeChunkSize();
        case Expect::ChunkEnd:
            m_expect = Expect::ChunkSize;
            return m_line.empty();
        case Expect::Trailer:
            m_read += m_line.size() + 1;
            m_state = m_line.empty() ? State::Done : m_state;
            return true;
        default:
            return false;
    }
}

/// "HTTP/1.1 200 OK"; the words after the number may be missing.
bool HttpAnswer::takeStatus() {
    if (m_line.size() < 12 || m_line.compare(0, 7, "HTTP/1.") != 0 || !isDigit(m_line[7]) ||
        m_line[8] != ' ' || !std::all_of(m_line.begin() + 9, m_line.begin() + 12, isDigit) ||
        (m_line.size() > 12 && m_line[12] != ' ')) {
        return false;
    }
    m_pending = std::stoi(m_line.substr(9, 3));
    m_expect = Expect::Field;
    m_chunked = m_hasLength = false;
    m_location.clear();
    return m_pending >= 100;
}

bool HttpAnswer::takeField() {
    if (m_line.empty()) {
        endHead();
        return true;
    }
    const size_t colon = m_line.find(':');
    if (colon == std::string::npos || colon == 0 || m_line[0] == ' ' || m_line[0] == '\t') {
        return false;
    }
    const std::string name = smallLetters(m_line.substr(0, colon));
    const std::string value = trimmed(m_line.substr(colon + 1));
    if (name == "location") {
        m_location = value;
    } else if (name == "transfer-encoding") {
        m_chunked = smallLetters(value) == "chunked";
        return m_chunked;
    } else if (name == "content-length") {
        uint64_t length = 0;
        const bool good = readLength(value, 10, length) && (!m_hasLength || length == m_left);
        m_hasLength = true;
        m_left = length;
        return good;
    }
    return true;
}

void HttpAnswer::endHead() {
    m_expect = Expect::StatusLine;
    if (m_pending < 200) {
        return;
    }
    m_status = m_pending;
    m_hasLength = m_hasLength && !m_chunked;
    m_state = m_status != 200 || (m_hasLength && m_left == 0) ? State::Done : State::Body;
    m_expect = m_chunked ? Expect::ChunkSize : Expect::Bytes;
}

/// In hexadecimal digits, perhaps with extensions after them.
bool HttpAnswer::takeChunkSize() {
    if (!readLength(trimmed(m_line.substr(0, m_line.find(';'))), 16, m_left)) {
        return false;
    }
    m_expect = m_left == 0 ? Expect::Trailer : Expect::ChunkBytes;
    return true;
}

}  // namespace relay
