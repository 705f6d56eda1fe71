// CSimulatorStream: a TCP socket seen through a slow link, to try senders out at a chosen bandwidth.
#pragma once

#include <sys/uio.h>

#include <memory>

#include <Reticor/Export.h>
#include <Reticor/Sock.h>

namespace Orvex::Reticor {

class CSockStream;

/// Wraps a CSockStream and lets a limited number of bytes per second through. Senders take it in place of the
/// real socket, and so does CNetHandler::RegisterSock: it carries the real socket's handle. Only sending is
/// shaped; receive from the real socket.
///
/// Time goes in windows of one second. A caller may use the bytes of a window all at once, and the next
/// window begins with the first Send more than 1000 ms after the start of the last one. While a window is
/// used up Send gives 0, as a socket does whose buffer is full. The kernel still calls the socket ready to
/// write then, so a handler that watches it for writing is called again at once until the window is over.
///
/// Thread safety: a simulator has no lock; its owner serialises all use. Nothing here throws.
class RETICOR_API CSimulatorStream : public CSock {
public:
    /// No real socket, and a bandwidth of 0: until SetBandWidth every Send gives 0. Without memory there is a
    /// line at level 2, and it stays so.
    CSimulatorStream();
    /// The real socket is left open.
    ~CSimulatorStream() override;

    CSimulatorStream(const CSimulatorStream&) = delete;
    CSimulatorStream& operator=(const CSimulatorStream&) = delete;

    /// Wraps `real`, which stays the caller's and must outlive the use of this object; null takes it away.
    /// The handle is copied as it is now: wrap a socket after it was connected. Do not close the simulator;
    /// close the real socket.
    void SetRealSocket(CSockStream* real);

    /// Sets the bandwidth in units of 1048576 bits per second, so that 1 gives 131072 bytes per window. From
    /// 4096 on the number wraps: 4096 gives 0 bytes. What was sent in the present window still counts. Always
    /// 0.
    int SetBandWidth(unsigned mbit);

    /// Sends what the window still allows of `len` bytes. Returns the bytes sent; 0 if the window is used up
    /// or nothing can be sent now; -1 as CSockStream::Send. Without a real socket the bytes are counted and
    /// go nowhere.
    int Send(const char* data, unsigned len);

    /// Sends `count` pieces, one Send after the other, until one is not taken whole. Returns the bytes sent;
    /// -1 if `vec` is null, or if a Send failed, also when bytes went out before it. Pieces without address
    /// and length are passed over.
    int WriteV(const struct iovec* vec, int count);

private:
    struct Record;
    std::unique_ptr<Record> m_record;
};

}  // namespace Orvex::Reticor
