// ShapedStream: a stream socket that takes exactly as much as the test lets it, keeps what it took, and fails
// on demand.
//
// The calls send(2) and sendmsg(2) of this test program stand before the C library's, and act for descriptors
// that are shaped; all others go through.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <Reticor/SockStream.h>

namespace Orvex::Testing {

// The descriptor is one end of a real pair, so that it can be registered; the kernel always calls it ready to
// write. One thread at a time uses a stream and its shape.
class ShapedStream : public Reticor::CSockStream {
public:
    static constexpr std::size_t UNLIMITED = ~std::size_t{0};

    ShapedStream();
    ~ShapedStream() override;
    ShapedStream(const ShapedStream&) = delete;
    ShapedStream& operator=(const ShapedStream&) = delete;

    // How many more bytes it takes, over any number of calls. What does not fit is not taken, and a call that
    // finds no room gets the error: EAGAIN unless fail() named another one.
    void setRoom(std::size_t bytes) { m_room = bytes; }
    std::size_t room() const { return m_room; }
    void fail(int error) { m_error = error; }
    void recover();

    // The next call takes nothing and has this result, whatever the kernel could never answer included.
    void answerNext(long result) {
        m_answer = result;
        m_has_answer = true;
    }

    const std::string& wire() const { return m_wire; }
    void clearWire() { m_wire.clear(); }
    // So that taking that number of bytes, in some calls, allocates nothing.
    void reserveWire(std::size_t bytes) {
        m_wire.reserve(bytes);
        m_calls.reserve(100);
    }
    // For each call that came, the number of its pieces.
    const std::vector<std::size_t>& calls() const { return m_calls; }
    void clearCalls() { m_calls.clear(); }

    // What the two calls do. For the definitions of send and sendmsg alone.
    long take(const struct iovec* pieces, std::size_t count);
    static ShapedStream* of(int fd);

private:
    std::size_t m_room = UNLIMITED;
    int m_error;
    long m_answer = 0;
    bool m_has_answer = false;
    std::string m_wire;
    std::vector<std::size_t> m_calls;
    CSock m_far;
};

}  // namespace Orvex::Testing
