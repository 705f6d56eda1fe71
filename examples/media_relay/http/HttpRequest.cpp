// HttpRequest: the request line, and a look at the lines after it.

#include "media_relay/http/HttpRequest.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include <Reticor/StrParser.h>

namespace relay {

using Orvex::Reticor::CStrParser;

namespace {

/// Where the head ends, after its blank line; 0 if it does not yet. Lines end at a line feed, with or
/// without a carriage return. What was looked through before is not looked at again.
size_t headEnd(const std::string& text, size_t from) {
    for (size_t at = text.find('\n', from); at != std::string::npos; at = text.find('\n', at + 1)) {
        if (text.compare(at + 1, 1, "\n") == 0) {
            return at + 2;
        }
        if (text.compare(at + 1, 2, "\r\n") == 0) {
            return at + 3;
        }
    }
    return 0;
}

int parseLine(CStrParser& parser, HttpRequest& request) {
    char method[16] = {};
    char target[2048] = {};
    char version[16] = {};
    const int methodSize = parser.ConsumeWord(method, sizeof method);
    if (methodSize < 1 || methodSize >= static_cast<int>(sizeof method) ||
        parser.ConsumeWhitespaceInLine() < 1) {
        return 400;
    }
    const int targetSize = parser.ConsumeWord(target, sizeof target);
    if (targetSize >= static_cast<int>(sizeof target)) {
        return 414;
    }
    if (targetSize < 1 || target[0] != '/' || parser.ConsumeWhitespaceInLine() < 1 ||
        parser.ConsumeWord(version, sizeof version) != 8 || std::strncmp(version, "HTTP/1.", 7) != 0) {
        return 400;
    }
    request = HttpRequest();
    request.method = method;
    request.path = target;
    const size_t mark = std::min(request.path.find('?'), request.path.size());
    request.query = request.path.substr(std::min(mark + 1, request.path.size()));
    request.path.erase(mark);
    request.keepsAlive = version[7] != '0';
    return parser.ExpectEOL() == -1 ? 400 : 200;
}

char small(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

bool tellsLength(const std::string& key) {
    return key == "content-length" || key == "transfer-encoding";
}

/// Takes "Name: value" at the cursor.
bool parseField(CStrParser& parser, HttpRequest& request) {
    const char* const name = parser.GetString() + parser.GetCurOffset();
    const int size = parser.GetCurChar() > ' ' ? parser.ConsumeUntilinLine(':') : 0;
    if (size < 1 || name[size - 1] == ' ' || name[size - 1] == '\t') {  // servers differ in what that names
        return false;
    }
    const char* value = name + size + 1;
    const char* end = name + parser.GetCurLinelength();
    while (value < end && (*value == ' ' || *value == '\t')) {
        ++value;
    }
    while (value < end && (end[-1] == ' ' || end[-1] == '\t')) {
        --end;
    }
    const std::string key = inSmallLetters(std::string(name, static_cast<size_t>(size)));
    if (request.fields.count(key) != 0 && tellsLength(key)) {  // servers differ in which of them they believe
        return false;
    }
    request.fields[key] = std::string(value, end);
    return parser.GetThruEOL() > 0;
}

/// Whether the client says that it closes.
bool saysClose(const HttpRequest& request) {
    return inSmallLetters(request.field("connection")).find("close") != std::string::npos;
}

}  // namespace

std::string inSmallLetters(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), small);
    return text;
}

int parseRequest(const std::string& head, HttpRequest& request) {
    CStrParser parser(head.data(), static_cast<unsigned>(head.size()));
    const int status = parseLine(parser, request);
    if (status != 200) {
        return status;
    }
    while (parser.ExpectEOL() == -1) {  // the blank line ends it
        if (!parseField(parser, request)) {
            return 400;
        }
    }
    request.keepsAlive = request.keepsAlive && !saysClose(request);
    return 200;
}

int HttpReader::put(const char* bytes, size_t size, HttpRequest& request) {
    const size_t before = m_head.size();
    m_head.append(bytes, size);
    const size_t end = headEnd(m_head, before < 3 ? 0 : before - 3);
    if (end > kMaxHead || (end == 0 && m_head.size() > kMaxHead)) {
        return 431;
    }
    m_end = end;
    return end == 0 ? 0 : parseRequest(m_head.substr(0, end), request);
}

std::string HttpReader::takeRest() {
    std::string rest = m_head.substr(m_end);
    m_head.clear();
    m_end = 0;
    return rest;
}

}  // namespace relay
