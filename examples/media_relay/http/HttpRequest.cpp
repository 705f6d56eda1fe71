// HttpRequest: the request line, and a look at the lines after it.

#include "media_relay/http/HttpRequest.h"

#include <algorithm>
#include <cstring>

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
    request.method = method;
    request.path = target;
    request.path.erase(std::min(request.path.find('?'), request.path.size()));
    return parser.ExpectEOL() == -1 ? 400 : 200;
}

}  // namespace

int parseRequest(const std::string& head, HttpRequest& request) {
    CStrParser parser(head.data(), static_cast<unsigned>(head.size()));
    const int status = parseLine(parser, request);
    if (status != 200) {
        return status;
    }
    while (parser.ExpectEOL() == -1) {  // the blank line ends it
        const bool named = parser.GetCurChar() > ' ' && parser.ConsumeUntilinLine(':') > 0;
        if (!named || parser.GetThruEOL() < 1) {
            return 400;
        }
    }
    return 200;
}

int HttpReader::put(const char* bytes, size_t size, HttpRequest& request) {
    const size_t before = m_head.size();
    m_head.append(bytes, size);
    const size_t end = headEnd(m_head, before < 3 ? 0 : before - 3);
    if (end > kMaxHead || (end == 0 && m_head.size() > kMaxHead)) {
        return 431;
    }
    return end == 0 ? 0 : parseRequest(m_head.substr(0, end), request);
}

}  // namespace relay
