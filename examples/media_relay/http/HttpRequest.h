// HttpRequest: the head of a request (RFC 9112), read with the library's parser.
#pragma once

#include <map>
#include <string>

namespace relay {

struct HttpRequest {
    std::string method;
    std::string path;         // without a query
    std::string query;        // after the question mark, as it was sent
    bool keepsAlive = false;  // the client takes more than one answer on its connection
    /// By their names in small letters. Of a repeated one the last; one that says how long the body is comes
    /// once.
    std::map<std::string, std::string> fields;

    /// What stands in that line of the head; empty without one.
    std::string field(const std::string& name) const {
        const auto found = fields.find(name);
        return found == fields.end() ? "" : found->second;
    }
};

std::string inSmallLetters(std::string text);

/// Collects bytes until the head of a request is whole.
class HttpReader {
public:
    static constexpr size_t kMaxHead = 16384;  // bytes

    /// Takes more bytes. 0: the head is not whole yet; 200: `request` holds it; else the status to answer.
    int put(const char* bytes, size_t size, HttpRequest& request);

    /// Whether a head is under way.
    bool hasBegun() const { return !m_head.empty(); }

    /// What came after a head that is whole, and belongs to its body or to the next one. The reader begins
    /// anew.
    std::string takeRest();

private:
    std::string m_head;
    size_t m_end = 0;  // of the head that was whole
};

/// Reads a whole head, the blank line included. 200, or the status to answer.
int parseRequest(const std::string& head, HttpRequest& request);

}  // namespace relay
