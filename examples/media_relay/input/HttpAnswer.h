// HttpAnswer: the answer of a server (RFC 9112), as it comes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace relay {

/// Reads one final answer; interim ones (1xx) are passed over. The body of an answer other than 200 is not
/// read. Memory is bounded by the head.
class HttpAnswer {
public:
    enum class State {
        Head,  // is not whole yet
        Body,  // more of it may come, up to the end of the connection if nothing says its length
        Done,  // nothing more of it comes; what did is ignored
        Bad,   // the bytes are no answer that can be read
    };
    using OnBody = std::function<void(const uint8_t* bytes, size_t size)>;

    static constexpr size_t MOST_HEAD = 16384;  // bytes, of interim answers and of chunks' trailers together

    State put(const char* bytes, size_t size, const OnBody& onBody);

    /// 0 while it is not known. And, with a redirect, where to; empty if the server does not say it.
    int status() const { return m_status; }
    const std::string& location() const { return m_location; }

private:
    enum class Expect { StatusLine, Field, Bytes, ChunkSize, ChunkBytes, ChunkEnd, Trailer };

    bool takeLine();
    bool takeStatus();
    bool takeField();
    bool takeChunkSize();
    void endHead();

    Expect m_expect = Expect::StatusLine;
    State m_state = State::Head;
    std::string m_line;  // that is under way, without its end
    size_t m_read = 0;   // bytes of lines, chunks' sizes left out
    int m_pending = 0;   // status of the head under way
    int m_status = 0;
    std::string m_location;
    bool m_chunked = false;
    bool m_hasLength = false;
    uint64_t m_left = 0;  // bytes of the body, or of the chunk
};

}  // namespace relay
