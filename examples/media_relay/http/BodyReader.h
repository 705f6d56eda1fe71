// BodyReader: finds the body of a request in the bytes after its head (RFC 9112).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "media_relay/http/HttpRequest.h"

namespace relay {

/// Takes a body of a told length, one in chunks, and one that lasts until the connection ends, as publishers
/// of live streams send it. Nothing is copied: each piece of the body lies in the bytes that were given.
/// What can be read in two ways is refused, since a server in between may have read it in the other one.
class BodyReader {
public:
    static constexpr size_t MOST_LINE = 256;        // bytes of a chunk's size with its extensions
    static constexpr size_t MOST_TRAILERS = 16384;  // bytes of all lines after the last chunk

    /// A head is whole. 200, or the status to answer: then there is no body that could be found.
    int begin(const HttpRequest& request);

    /// Whether the client wants to read "100 Continue" before it sends the body.
    bool isAwaited() const { return m_awaited; }

    /// Takes the next piece of the body off the front of `bytes`. Empty when more bytes are needed, when the
    /// body has ended (what is left in `bytes` came after it), and when it is broken.
    std::string_view take(std::string_view& bytes);

    /// The body is whole.
    bool hasEnded() const { return m_stage == Stage::ENDED; }

    /// What came is no body; nothing that comes later can be read.
    bool isBroken() const { return m_stage == Stage::BROKEN; }

    /// The connection has ended. Whether the body is whole; if it is not, its last bytes are missing.
    bool finish();

private:
    enum class Stage {
        REST,       // all there is
        COUNTED,    // so many bytes
        SIZE,       // the line in front of a chunk
        CHUNK,      // so many bytes
        CHUNK_END,  // the end of the line after them
        TRAILERS,
        ENDED,
        BROKEN,
    };

    int frame(const HttpRequest& request);
    bool isInData() const;
    std::string_view takeData(std::string_view& bytes);
    void takeLine(std::string_view& bytes);
    size_t mostOfLine() const;
    Stage onLine();
    Stage onSize();

    Stage m_stage = Stage::BROKEN;
    bool m_awaited = false;
    uint64_t m_left = 0;  // bytes of the body, or of the chunk
    std::string m_line;   // the beginning of one
    size_t m_trailers = 0;
};

}  // namespace relay
