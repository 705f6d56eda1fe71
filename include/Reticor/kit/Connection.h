// Connection: a socket that calls back, one call at a time.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

#include <Reticor/Export.h>
#include <Reticor/NetHandler.h>
#include <Reticor/kit/UniqueFunction.h>

namespace Orvex::Reticor::Kit {
inline namespace v1 {

class Connection;
class ConnectionBody;
class Pool;

/// Why a connection has ended; what `onClose` is told.
enum class CloseReason {
    CLOSED,       ///< `close` of this side, and all that waited has been sent.
    ABORTED,      ///< `abort` of this side, or the pool has ended.
    PEER_CLOSED,  ///< The peer has ended its direction, and nobody had asked for `onEnd`.
    PEER_LOST,    ///< The system reported an error, a reset by the peer for instance.
    IDLE,         ///< Nothing came and nothing went for the idle time-out.
    STALLED,      ///< The peer took nothing of what waited for the greatest age.
    OVERFLOW,     ///< More waited than may, by `OutputPolicy::CLOSE`.
    FAILED,       ///< A call-back has thrown; a line at level 2 says what.
};

/// The name of a reason: "PEER_CLOSED".
RETICOR_API const char* toText(CloseReason reason) noexcept;

/// What happens when a peer does not take what is written to it.
enum class OutputPolicy {
    /// A write that does not fit gives false. Nothing is read while a quarter of the room is taken, so that
    /// a peer that does not read is not listened to.
    PAUSE_READING,
    /// A write that does not fit gives false and is counted by `dropped`. Reading goes on.
    DROP,
    /// The first write that does not fit ends the connection.
    CLOSE,
};

/// How a connection behaves. Copied when it is made.
struct ConnectionOptions {
    /// Silence in both directions that ends the connection; 0 is never. Any length; to within 5 ms.
    std::chrono::microseconds idle_timeout{0};
    /// Bytes that may wait to be sent, at most.
    size_t max_output = 1 << 20;
    /// How long bytes may wait while the peer takes none; counted anew whenever it takes some. 0 is for
    /// ever.
    std::chrono::microseconds max_output_age = std::chrono::seconds(60);
    /// What happens when more is written than may wait.
    OutputPolicy policy = OutputPolicy::PAUSE_READING;
    /// TCP_NODELAY: small pieces are sent at once.
    bool no_delay = true;
};

/// A connection, by a reference on it. It can be moved and not copied; `share` makes another one. Dropping
/// all of them does not end the connection: the kit keeps it until it is closed.
///
/// Calls for one connection never overlap: input, drained, what was posted to it, its timers and `onClose`
/// come one after the other, on any worker of its pool. So what only its call-backs touch needs no lock. A
/// call-back that blocks holds up its own connection, and keeps a worker.
///
/// Every operation may be called from any thread, also by call-backs of other connections, and none of them
/// waits. On a closed connection, and on an empty one, they do nothing and give false.
///
/// What a lambda captures is destroyed on the pool, after `onClose`, whatever has ended the connection. So
/// a lambda may capture a reference on its own connection.
///
/// A call-back that throws ends its connection (`CloseReason::FAILED`) and nothing else.
class RETICOR_API Connection {
public:
    /// Bytes that have come. They may be cut anywhere, and are good until the call-back returns.
    using Input = UniqueFunction<void(Connection&, std::string_view)>;
    /// What happens without more to say.
    using Event = UniqueFunction<void(Connection&)>;
    /// The end, and why.
    using Closed = UniqueFunction<void(Connection&, CloseReason)>;
    /// Of `whenRoom`: false if the connection has ended instead.
    using Room = UniqueFunction<void(Connection&, bool)>;

    /// Empty.
    Connection() noexcept = default;
    /// Takes the reference over; `other` is empty then.
    Connection(Connection&& other) noexcept : m_handler(std::exchange(other.m_handler, nullptr)) {}
    /// The same, and drops the reference that was held before.
    Connection& operator=(Connection&& other) noexcept {
        Connection taken(std::move(other));
        std::swap(m_handler, taken.m_handler);
        return *this;
    }
    /// There is no copy: see `share`.
    Connection(const Connection&) = delete;
    /// There is no copy: see `share`.
    Connection& operator=(const Connection&) = delete;
    /// Drops the reference. Does not end the connection.
    ~Connection() {
        if (m_handler != nullptr) {
            m_handler->DecRef();
        }
    }

    /// Makes a connection of a connected stream socket, which is the kit's from now on, also if this fails
    /// and closes it. `start` is called on the pool, before anything else, to set the call-backs. Empty,
    /// with a line at level 2, if the pool is stopping, serves as many connections as it can, or there is
    /// no memory.
    static Connection adopt(Pool& pool, int descriptor, const ConnectionOptions& options, Event start);

    /// One more reference on the same connection.
    Connection share() const noexcept;

    /// Whether this is a reference at all.
    explicit operator bool() const noexcept { return m_handler != nullptr; }
    /// Whether both are of the same connection.
    bool operator==(const Connection& other) const noexcept { return m_handler == other.m_handler; }
    /// Whether they are of two, or one of them is empty.
    bool operator!=(const Connection& other) const noexcept { return m_handler != other.m_handler; }

    /// Whether bytes can still be written: false from `close` on.
    bool isOpen() const noexcept;

    // ---- call-backs ------------------------------------------------------------------------------------
    //
    // To be set where the connection starts (`Server`, `adopt`, `connect`), which is before the first call.
    // Set later, they hold from the next call on; without memory for that the connection ends, as by `abort`.
    // Null takes one away.

    /// Called with what has come. Without it, what comes is read and thrown away.
    void onInput(Input call);

    /// Called once when the peer has ended its direction: it sends no more, and may still read. Without
    /// this, the connection is closed then, as by `close`.
    void onEnd(Event call);

    /// Called when all that waited has been sent, if anything had to wait.
    void onDrained(Event call);

    /// Called exactly once, as the last call, whatever has ended the connection.
    void onClose(Closed call);

    // ---- output ----------------------------------------------------------------------------------------

    /// Sends `bytes` now as far as the system takes them, and keeps a copy of the rest. All of them or
    /// none: false, with nothing taken, if the connection is closed or closing, or they do not fit beside
    /// what waits already (`ConnectionOptions::max_output`; more than that in one piece never fits). Pieces
    /// that are written by one thread arrive in that order.
    bool write(std::string_view bytes);

    /// The same for pieces that are sent as one, with one call of the system.
    bool write(std::initializer_list<std::string_view> pieces);
    /// The same for an array of pieces.
    bool write(const std::string_view* pieces, size_t count);

    /// Bytes that wait to be sent.
    size_t waiting() const noexcept;

    /// Writes that were dropped (`OutputPolicy::DROP`).
    uint64_t dropped() const noexcept;

    /// Calls `call` once, on the pool: when nothing waits to be sent, which may be now, or when the
    /// connection ends. One at a time: another one that still waits is called with what holds then; without
    /// memory for that the connection ends. When it has ended already, `call` is called at once, on the
    /// calling thread, with an empty connection and false.
    void whenRoom(Room call);

    /// Ends this side's direction when what waits has been sent: the peer reads an end, and may still send.
    bool finish();

    // ---- input -----------------------------------------------------------------------------------------

    /// No input is delivered after the call that may be running, until `resume`. The peer is then held up
    /// by the system. The peer's end is not noticed meanwhile; the idle time-out goes on.
    void pause();
    /// Input is delivered again.
    void resume();

    /// From now on nothing is read but what `readOnce` asks for, and `onInput` is not called.
    void readByAsking();

    /// `readByAsking`, and the question: `call` gets the next bytes, once, or an empty view when no more will
    /// come. One question at a time: a second one is answered with an empty view, and a line at level 2. When
    /// the connection has ended already, or there is no memory, it is answered at once, on the calling
    /// thread, with an empty connection and an empty view.
    void readOnce(Input call);

    /// Whoever asks by an object of its own, such as a coroutine: the shortest way.
    struct Reader {
        /// Called once, as a call of the connection, with what `readOnce` tells; on the asking thread, if the
        /// connection has ended already. The reader may be gone when it returns.
        void (*answer)(Reader& self, std::string_view bytes);
    };

    /// The same with a reader, which stays the caller's and must stay until it is answered. An empty
    /// connection answers at once.
    void readOnce(Reader& reader);

    // ---- calls -----------------------------------------------------------------------------------------

    /// Runs `call` as a call of this connection. In the order of posting, and before `onClose` if it was
    /// posted before `close` or `abort`. False if the connection has ended, and then `call` is destroyed
    /// before this returns; otherwise it is run exactly once.
    bool post(Event call);

    /// Runs `call` once as a call of this connection, after `delay`, to within 5 ms. When the connection
    /// ends before, it is destroyed after `onClose`. False as above.
    bool after(std::chrono::microseconds delay, Event call);

    /// Whether the caller is inside a call-back of this connection.
    bool isInside() const noexcept;

    // ---- end -------------------------------------------------------------------------------------------

    /// Ends the connection in order: no more input, what waits is sent, then `onClose`. Safe from any
    /// thread, any number of times; does not wait.
    void close();

    /// Ends the connection at once; what waits is lost.
    void abort();

    /// The peer's address as text, "127.0.0.1:40312" or "[::1]:40312"; empty if there is none. The other
    /// form writes it to `text` and returns its length; 64 bytes are enough.
    std::string peer() const {
        char text[64];
        return std::string(text, peer(text, sizeof text));
    }
    /// The same, written to `text`; returns its length. 64 bytes are enough.
    size_t peer(char* text, size_t size) const noexcept;

    /// The same of this side: where the peer has found us, also on a listener for every address.
    std::string local() const {
        char text[64];
        return std::string(text, local(text, sizeof text));
    }
    /// The same, written to `text`; returns its length. 64 bytes are enough.
    size_t local(char* text, size_t size) const noexcept;

private:
    friend class ConnectionBody;

    CNetHandler* m_handler = nullptr;  ///< A reference.
};

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
