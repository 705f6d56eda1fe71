// Request: what a client asks, read with CStrParser.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace rtsp {

struct Request {
    std::string method;
    std::string url;
    std::string version;
    std::optional<unsigned> cseq;  // none: there was no good one
    size_t content_length = 0;
    std::string required;  // what the client insists on, of which we know nothing
    bool takes_sdp = true;
    bool good = false;  // as far as its grammar goes
};

/// Bytes of `input` up to and with the empty line; 0 as long as that has not come.
size_t headLength(const std::string& input);

/// `head` is everything up to the empty line, that one included.
Request parse(const std::string& head);

/// The value of another header; empty if it is not there.
std::string header(const std::string& head, const char* name);

}  // namespace rtsp
