// CSslStream: a TLS stream socket, in a configuration that has no TLS.
#pragma once

#include <sys/uio.h>

#include <Reticor/Export.h>
#include <Reticor/Sock.h>

namespace Orvex::Reticor {

class CSockAddr;
class CSockStream;

/// A secure stream. This configuration is built without TLS: the class exists so that products link, but
/// every operation, the constructor included, logs a line at level 3 that says so, looks at no argument and
/// fails with -1. The object never holds a socket.
///
/// Thread safety: any thread. Nothing blocks, nothing throws.
class RETICOR_API CSslStream : public CSock {
public:
    CSslStream();
    ~CSslStream() override;

    /// -1, with the line.
    int Connect(const CSockAddr& remote, CSockAddr* local);
    /// -1, with the line; `stream` stays the caller's.
    int Connect(CSockStream* stream);
    /// -1, with the line.
    int Send(const char* data, unsigned len);
    /// -1, with the line.
    int Recv(char* dst, unsigned len);
    /// -1, with the line.
    int WriteV(const struct iovec* vec, int count);
    /// -1, with the line, at once.
    int Send_n(const char* data, unsigned len, int timeout);
    /// -1, with the line, at once.
    int Recv_n(char* dst, unsigned len, int timeout);
    /// -1, with the line.
    int SetPemPath(const char* path);
};

}  // namespace Orvex::Reticor
