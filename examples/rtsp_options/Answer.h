// Answer: what a client is told.
#pragma once

#include <optional>
#include <string>

namespace rtsp {

struct Answer {
    int code;
    const char* reason;
    std::string headers;  // whole lines
    std::string body;
    bool last = false;  // closes the connection
};

/// As it goes over the wire. `cseq` is the request's number.
std::string toText(const Answer& answer, const std::optional<unsigned>& cseq);

}  // namespace rtsp
