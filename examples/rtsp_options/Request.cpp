// Request: the first line, and the headers that matter.
#include "rtsp_options/Request.h"

#include <cstring>

#include <Reticor/StrParser.h>

namespace rtsp {

using Orvex::Reticor::CStrParser;

namespace {

/// Moves the parser to the value of a header; false if it is not there.
bool toHeader(CStrParser& p, const char* name) {
    p.ResetAll();
    while (p.GetThruEOL() > 0) {  // 0: nothing was passed, this is the last line end
        const int line = p.GetCurOffset();
        if (p.CompareCase(name) == 0) {
            p.ConsumeLength(static_cast<unsigned>(strlen(name)), nullptr, 0);
            p.ConsumeWhitespaceInLine();
            if (p.Expect(':') != -1) {
                p.ConsumeWhitespaceInLine();
                return true;
            }
            p.LocateOffset(line);  // another header, whose name only begins like this
        }
    }
    return false;
}

/// The rest of the line.
std::string restOfLine(CStrParser& p) {
    char text[512];
    return p.ConsumeSentence("\r\n", text, sizeof text) > 0 ? text : "";
}

/// A number that is alone in the rest of its line. For the parser a sign and a fraction belong to a number;
/// not for us.
std::optional<unsigned> number(CStrParser& p) {
    char word[12];
    const int start = p.GetCurOffset();
    const int length = p.ConsumeWord(word, sizeof word);
    if (length < 1 || length > 9 || strspn(word, "0123456789") != static_cast<size_t>(length)) {
        return std::nullopt;
    }
    p.ConsumeWhitespaceInLine();
    if (p.ExpectEOL() == -1) {
        return std::nullopt;
    }
    p.LocateOffset(start);
    return p.ConsumeUint32();
}

/// A word of the first line, and what separates it from the next. Empty if it is too long or misses that.
std::string firstLineWord(CStrParser& p, bool last) {
    char word[1024];
    const int length = p.ConsumeWord(word, sizeof word);
    const bool ended = last ? p.ExpectEOL() != -1 : p.Expect(' ') != -1;
    return ended && length < static_cast<int>(sizeof word) ? word : "";
}

}  // namespace

size_t headLength(const std::string& input) {
    const size_t crlf = input.find("\n\r\n");
    const size_t lf = input.find("\n\n");
    if (crlf == std::string::npos && lf == std::string::npos) {
        return 0;
    }
    return crlf < lf ? crlf + 3 : lf + 2;
}

Request parse(const std::string& head) {
    Request request;
    CStrParser p(head.data(), static_cast<unsigned>(head.size()));
    request.method = firstLineWord(p, false);
    request.url = firstLineWord(p, false);
    request.version = firstLineWord(p, true);
    request.good = request.version.compare(0, 5, "RTSP/") == 0 && !request.method.empty() &&
                   (request.url == "*" || request.url.compare(0, 7, "rtsp://") == 0);
    if (toHeader(p, "CSeq")) {
        request.cseq = number(p);
    }
    request.good = request.good && request.cseq.has_value();
    if (toHeader(p, "Content-Length")) {
        const std::optional<unsigned> length = number(p);
        request.good = request.good && length.has_value();
        request.content_length = length.value_or(0);
    }
    if (toHeader(p, "Require")) {
        request.required = restOfLine(p);
    }
    if (toHeader(p, "Accept")) {
        request.takes_sdp =
            p.LocateStringInLineCase("application/sdp") != -1 || p.LocateStringInLine("*/*") != -1;
    }
    return request;
}

std::string header(const std::string& head, const char* name) {
    CStrParser p(head.data(), static_cast<unsigned>(head.size()));
    return toHeader(p, name) ? restOfLine(p) : "";
}

}  // namespace rtsp
