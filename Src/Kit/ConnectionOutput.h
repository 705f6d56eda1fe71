// ConnectionOutput: what becomes of bytes that are written to a connection: sent, kept or refused.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <Reticor/kit/Connection.h>

namespace Orvex::Reticor::Kit {
inline namespace v1 {

/// Decides by the options, and tells its owner what has to follow: it registers nothing, sets no timer and
/// ends nothing itself.
///
/// Thread safety: its owner's lock guards it.
class ConnectionOutput {
public:
    /// What has become of a write.
    enum class Written {
        SENT,        ///< All of it.
        BEGINS,      ///< It waits, and nothing did before: `flush` is to be called when there is room.
        WAITS,       ///< It waits after others.
        REFUSED,     ///< Nothing of it is taken: it does not fit, or nothing is written any more.
        DROPPED,     ///< Nothing of it is taken, and that is to be counted.
        OVERFLOWED,  ///< Nothing of it is taken, and that ends the connection.
        LOST,        ///< The system has reported an error.
        NO_MEMORY,   ///< A piece may be half on its way.
    };
    /// What has become of what waits.
    enum class Flushed {
        ALL,    ///< Nothing waits.
        EASED,  ///< So little waits that the peer may be read again.
        WAITS,
        LOST,  ///< The system has reported an error.
    };

    /// The options are the owner's.
    explicit ConnectionOutput(const ConnectionOptions& options) : m_options(options) {}

    /// Writes go to this descriptor from now on. It is the owner's, who calls `seal` before it closes it.
    void open(int descriptor);

    size_t waiting() const { return m_bytes.size() - m_sent; }

    /// All of the bytes or nothing, with one call of the system at most.
    Written write(std::string_view bytes) {
        if (m_direct < 0 || bytes.size() > m_options.max_output) {
            return write(&bytes, 1, bytes.size());
        }
        const ssize_t taken = ::send(m_direct, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        return taken == static_cast<ssize_t>(bytes.size()) ? Written::SENT : keep_rest(bytes, taken);
    }
    /// The same of pieces with `total` bytes.
    Written write(const std::string_view* pieces, size_t count, size_t total);

    /// Sends what waits, with one call.
    Flushed flush();
    /// After a `flush` of all, on a connection that goes on: our direction ends if `finish` has asked for
    /// that.
    void go_on();

    /// Whether so much waits that the peer is not to be read.
    bool is_crowded() const {
        return m_options.policy == OutputPolicy::PAUSE_READING && waiting() > m_options.max_output / 4;
    }

    /// Ends our direction when all is sent. False if nothing is written any more anyway.
    bool finish();
    /// Every later write is refused. What waits can still be sent.
    void seal();
    /// Forgets what waits.
    void clear();

    /// How long the peer may still take nothing of what waits, in microseconds: 0 if that was too long, -1
    /// if nothing waits.
    int64_t age_left(uint64_t now_us) const;
    /// When the system took bytes last, by CTime; noted for an idle time-out alone.
    uint64_t moved_us() const { return m_moved_us; }

private:
    __attribute__((noinline)) Written keep_rest(std::string_view bytes, ssize_t taken);
    Written keep(const std::string_view* pieces, size_t count, size_t sent);
    Written refuse() const;
    int64_t send(const std::string_view* pieces, size_t count) const;
    void look_direct();

    const ConnectionOptions& m_options;
    int m_descriptor = -1;
    int m_direct = -1;       ///< The descriptor, while a write needs nothing else.
    bool m_writable = true;  ///< Not sealed, and our direction is not to end.
    bool m_finish = false;   ///< Our direction ends when all is sent.
    std::string m_bytes;     ///< The first m_sent of them are sent.
    size_t m_sent = 0;
    uint64_t m_progress_us = 0;  ///< When the system took the last of what waits, or when it began to wait.
    uint64_t m_moved_us = 0;
};

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
