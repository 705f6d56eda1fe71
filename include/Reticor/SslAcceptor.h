// CSslAcceptor: a listening TLS socket, in a configuration that has no TLS.
#pragma once

#include <Reticor/Export.h>
#include <Reticor/Sock.h>

namespace Orvex::Reticor {

class CSockAddr;
class CSslStream;

/// Accepts secure streams. This configuration is built without TLS: every operation, the constructor
/// included, logs a line at level 3 that says so, looks at no argument and fails. The object never holds a
/// socket.
///
/// Thread safety: any thread. Nothing blocks, nothing throws.
class RETICOR_API CSslAcceptor : public CSock {
public:
    CSslAcceptor();
    ~CSslAcceptor() override;

    /// -1.
    int Open(const CSockAddr& local);
    /// Null, and not -1.
    CSslStream* Accept(CSockAddr* remote);
    /// -1.
    int Accept(CSslStream& stream, CSockAddr* remote);
    /// -1.
    int SetPemPath(const char* path);
};

}  // namespace Orvex::Reticor
