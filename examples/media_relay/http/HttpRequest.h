// HttpRequest: the head of a request (RFC 9112), read with the library's parser.
#pragma once

#include <string>

namespace relay {

struct HttpRequest {
    std::string method;
    std::string path;  // without a query
};

/// Collects bytes until the head of a request is whole.
class HttpReader {
public:
    static constexpr size_t kMaxHead = 16384;  // bytes

    /// Takes more bytes. 0: the head is not whole yet; 200: `request` holds it; else the status to answer.
    int put(const char* bytes, size_t size, HttpRequest& request);

private:
    std::string m_head;
};

/// Reads a whole head, the blank line included. 200, or the status to answer.
int parseRequest(const std::string& head, HttpRequest& request);

}  // namespace relay
