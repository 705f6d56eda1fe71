// ConnectionOutput: the bytes of a connection that wait to be sent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Orvex::Reticor::Kit {
inline namespace v1 {

/// Under its owner's lock. It knows the descriptor only while it is called.
class ConnectionOutput {
public:
    size_t waiting() const { return m_bytes.size() - m_sent; }
    /// When the system took the last of what waits, or when it began to wait. By CTime.
    uint64_t progress_us() const { return m_progress_us; }

    /// Sends the pieces with one call. Returns the bytes that the system has taken; -1 if the connection is
    /// lost.
    static int64_t send(int descriptor, const std::string_view* pieces, size_t count);

    /// Keeps what lies after the first `sent` bytes of the pieces. False without memory.
    bool keep(const std::string_view* pieces, size_t count, size_t sent);

    /// Sends what waits, with one call. Result as for `send`.
    int64_t flush(int descriptor);

    /// Gives memory back; `all` of it with what waits.
    void trim(bool all);

private:
    std::string m_bytes;  ///< The first m_sent of them are sent.
    size_t m_sent = 0;
    uint64_t m_progress_us = 0;
};

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
