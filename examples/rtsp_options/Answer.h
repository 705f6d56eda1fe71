// Answer: what a client is told.
#pragma once

#include <optional>
#include <string>

#include "rtsp_options/Request.h"

namespace rtsp {

struct Answer {
    int code;
    const char* reason;
    std::string headers;  // whole lines
    std::string body;
    bool last = false;  // closes the connection
};

/// `ip` is our address as the client sees it, and `session` a number of its own.
Answer answerTo(const Request& request, const std::string& ip, unsigned session);

std::string toText(const Answer& answer, const std::optional<unsigned>& cseq);

}  // namespace rtsp
