// BodyReader: lengths, chunks, and the lines between them.

#include "media_relay/http/BodyReader.h"

#include <algorithm>
#include <charconv>

namespace relay {

namespace {

/// The digits at the front of `text`, up to `end`. False if there are none, or too many.
bool readNumber(const std::string& text, int base, uint64_t& number, size_t& end) {
    const std::from_chars_result read = std::from_chars(text.data(), text.data() + text.size(), number, base);
    end = static_cast<size_t>(read.ptr - text.data());
    return read.ec == std::errc();
}

bool isControl(char letter) {
    return (letter >= 0 && letter < ' ' && letter != '\t') || letter == 0x7F;
}

}  // namespace

int BodyReader::begin(const HttpRequest& request) {
    *this = BodyReader();
    int status = frame(request);
    const std::string expected = inSmallLetters(request.field("expect"));
    if (status == 200 && !expected.empty() && expected != "100-continue") {
        status = 417;
    }
    if (status != 200) {
        m_stage = Stage::BROKEN;
    }
    m_awaited = status == 200 && !expected.empty() && !hasEnded();
    return status;
}

/// How long the body is, in whatever way the head says it.
int BodyReader::frame(const HttpRequest& request) {
    const auto coding = request.fields.find("transfer-encoding");
    const auto length = request.fields.find("content-length");
    if (coding != request.fields.end()) {
        m_stage = Stage::SIZE;
        if (length != request.fields.end()) {
            return 400;
        }
        return inSmallLetters(coding->second) == "chunked" ? 200 : 501;
    }
    if (length != request.fields.end()) {
        size_t end = 0;
        const bool good = readNumber(length->second, 10, m_left, end) && end == length->second.size();
        m_stage = m_left == 0 ? Stage::ENDED : Stage::COUNTED;
        return good ? 200 : 400;
    }
    m_stage = Stage::REST;
    return 200;
}

std::string_view BodyReader::take(std::string_view& bytes) {
    while (!bytes.empty() && !hasEnded() && !isBroken()) {
        if (isInData()) {
            return takeData(bytes);
        }
        takeLine(bytes);
    }
    return {};
}

bool BodyReader::finish() {
    if (m_stage == Stage::REST) {
        m_stage = Stage::ENDED;
    }
    return hasEnded();
}

bool BodyReader::isInData() const {
    return m_stage == Stage::REST || m_stage == Stage::COUNTED || m_stage == Stage::CHUNK;
}

std::string_view BodyReader::takeData(std::string_view& bytes) {
    if (m_stage == Stage::REST) {
        const std::string_view all = bytes;
        bytes = {};
        return all;
    }
    const std::string_view piece = bytes.substr(0, std::min<uint64_t>(m_left, bytes.size()));
    bytes.remove_prefix(piece.size());
    m_left -= piece.size();
    if (m_left == 0) {
        m_stage = m_stage == Stage::CHUNK ? Stage::CHUNK_END : Stage::ENDED;
    }
    return piece;
}

/// Takes one line, or its beginning. A line ends with both its characters: whoever takes one of them alone
/// for an end finds other chunks than whoever does not.
void BodyReader::takeLine(std::string_view& bytes) {
    const size_t most = mostOfLine();
    while (!bytes.empty()) {
        const char letter = bytes.front();
        bytes.remove_prefix(1);
        const bool returned = !m_line.empty() && m_line.back() == '\r';
        if (letter == '\n' && returned) {
            m_line.pop_back();
            m_stage = onLine();
            m_line.clear();
            return;
        }
        const bool fits = letter == '\r' ? m_line.size() <= most : m_line.size() < most && !isControl(letter);
        if (returned || !fits) {
            m_stage = Stage::BROKEN;
            return;
        }
        m_line += letter;
    }
}

/// Bytes before the end of the line.
size_t BodyReader::mostOfLine() const {
    switch (m_stage) {
        case Stage::SIZE:
            return MOST_LINE;
        case Stage::TRAILERS:
            return MOST_TRAILERS - m_trailers;
        default:
            return 0;
    }
}

BodyReader::Stage BodyReader::onLine() {
    if (m_stage == Stage::SIZE) {
        return onSize();
    }
    if (m_stage == Stage::CHUNK_END) {
        return Stage::SIZE;
    }
    m_trailers += m_line.size();
    return m_line.empty() ? Stage::ENDED : Stage::TRAILERS;
}

/// "1a", or "1a;name=value", of which the extension means nothing to us.
BodyReader::Stage BodyReader::onSize() {
    size_t end = 0;
    if (!readNumber(m_line, 16, m_left, end)) {
        return Stage::BROKEN;
    }
    const size_t mark = m_line.find_first_not_of(" \t", end);
    if (end != m_line.size() && (mark == std::string::npos || m_line[mark] != ';')) {
        return Stage::BROKEN;
    }
    return m_left == 0 ? Stage::TRAILERS : Stage::CHUNK;
}

}  // namespace relay
