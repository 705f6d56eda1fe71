// connect: a Connection to a host that is named.
#pragma once

#include <chrono>
#include <string_view>
#include <utility>

#include <Reticor/Export.h>
#include <Reticor/kit/Connection.h>
#include <Reticor/kit/Pool.h>
#include <Reticor/kit/UniqueFunction.h>

namespace Orvex::Reticor::Kit {
inline namespace v1 {

/// How an attempt to connect has ended.
enum class ConnectResult {
    CONNECTED,  ///< There is a connection.
    NOT_FOUND,  ///< The name has no address.
    REFUSED,    ///< No address took the connection; the last error of the system is with it.
    TIMED_OUT,  ///< The deadline has passed.
    CANCELLED,  ///< The pool has ended, or there was no memory, no descriptor or no place.
};

/// The name of a result: "TIMED_OUT".
RETICOR_API const char* toText(ConnectResult result) noexcept;

/// How to connect. Copied.
struct ConnectOptions {
    /// For all of it, the name's look-up included. It does not wait for a look-up that hangs.
    std::chrono::microseconds deadline = std::chrono::seconds(10);
    /// When no answer came for so long, the next address is tried beside the others; at once when one fails.
    std::chrono::microseconds stagger = std::chrono::milliseconds(250);
    /// Of the connection.
    ConnectionOptions connection;
};

/// What `connect` calls. `connection` is empty unless the result is CONNECTED; `error` is the system's
/// number, or 0.
using Connected = UniqueFunction<void(Connection& connection, ConnectResult result, int error)>;

/// Connects to a port of `host`, an address or a name, and calls `done` exactly once, on the pool. There the
/// call-backs of the new connection are set, before anything else of it is called; a connection that nobody
/// has kept a reference of goes on by its call-backs.
///
/// A name is looked up on threads of the kit's own, of which there are up to four at a time, so that no
/// worker waits. Its addresses are tried in turn, IPv6 and IPv4 by turns and in the system's order, each
/// `stagger` after the one before; the first that answers is taken, and the others are closed.
///
/// Returns at once. True if `done` will be called; false, with `done` destroyed, if it is empty, the pool is
/// stopping or there is no memory. A pool that is stopped calls it with CANCELLED. Any thread.
RETICOR_API bool connect(Pool& pool, std::string_view host, unsigned short port,
                         const ConnectOptions& options, Connected done);

/// The same with the default options.
inline bool connect(Pool& pool, std::string_view host, unsigned short port, Connected done) {
    return connect(pool, host, port, ConnectOptions(), std::move(done));
}

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
