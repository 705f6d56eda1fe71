// TcpClient: the other end of a server under test, on the system's calls alone.
#pragma once

#include <string>

namespace Orvex::Testing {

/// A connection to a port of this machine. Blocks, for a quarter of a minute at most (times
/// RETICOR_TEST_TIME_FACTOR): then the operation ends short, and the test fails by what it compares.
class TcpClient {
public:
    /// `receive_bytes` limits what the kernel takes for us before we read it; 0 leaves that to the system.
    /// `from` is our own IPv4 address; empty leaves that to the system as well.
    explicit TcpClient(int port, const std::string& host = "127.0.0.1", int receive_bytes = 0,
                       const std::string& from = "");
    ~TcpClient();
    TcpClient(TcpClient&& other) noexcept;
    TcpClient(const TcpClient&) = delete;
    TcpClient& operator=(const TcpClient&) = delete;

    bool isConnected() const { return m_fd >= 0; }

    /// Sends all of it; false if that fails.
    bool send(const std::string& bytes);

    /// Sends until nobody has taken a byte for `patience_ms`, or all is sent; returns how much that is.
    size_t sendUntilStuck(const std::string& bytes, int patience_ms);

    /// That number of bytes, fewer if the connection ends.
    std::string receive(size_t count);

    /// Up to and without the line end.
    std::string receiveLine();

    /// Whatever comes until the server closes; `wasClosed` tells whether it did.
    std::string receiveAll();
    bool wasClosed() const { return m_over; }
    /// Whether that was by a reset.
    bool wasReset() const { return m_reset; }

    /// Whether the server has closed, and nothing is left to read; does not wait.
    bool isClosed() const;

    /// Whether nothing comes for that time, the end of the connection included.
    bool isSilentFor(int ms) const;

    /// Sends and expects the same bytes back.
    bool echoes(const std::string& bytes);

    /// No more bytes from us.
    void finish();

    /// Ends the connection by a reset instead of in order.
    void reset();

private:
    bool fill();

    int m_fd = -1;
    std::string m_read;  // and not yet returned
    bool m_over = false;
    bool m_reset = false;
};

}  // namespace Orvex::Testing
