// CDebugSocket: the flags that choose which steps of the socket event flow are traced, and the gate they
// form.
#pragma once

#include <atomic>
#include <cstdint>

namespace Orvex::Reticor {

/// All state is static. The console command sets the flags, the event path reads them; each is an atomic of
/// its own that is read and written relaxed, so a change reaches the workers soon and in no order with
/// others.
///
/// A site prints its line if all its tests pass: the class test (by what was asked for, or by what is ready),
/// the density test, and the match. Sites leave out the first or the second, never the match, which is false
/// in one test while nothing is traced.
///
/// Thread safety: any thread.
class CDebugSocket {
public:
    static std::atomic<bool> socket_all;                ///< Trace all socket events.
    static std::atomic<bool> socket_read;               ///< Trace read events.
    static std::atomic<bool> socket_write;              ///< Trace write events.
    static std::atomic<bool> socket_exception;          ///< Trace exception events.
    static std::atomic<bool> socket_fd;                 ///< Filter by `socket_fd_num`.
    static std::atomic<int64_t> socket_fd_num;          ///< The socket to follow.
    static std::atomic<bool> socket_nethandler;         ///< Filter by `socket_nethandler_num`.
    static std::atomic<int64_t> socket_nethandler_num;  ///< The id of the handler to follow.
    static std::atomic<bool> socket_off;      ///< In spite of its name: lines print while it is true.
    static std::atomic<bool> socket_dendity;  ///< Print the lines of dense sites too.

    /// Sets flags, each with a store of its own. False, with a line at level 2, for another `type`.
    ///
    /// | `type` | sets |
    /// |---|---|
    /// | 0, 1, 2, 3 | `socket_all`, `socket_read`, `socket_write`, `socket_exception` |
    /// | 4, 5 | `socket_fd`, `socket_nethandler`, and the number that belongs to it to `value` |
    /// | 6 | `socket_off` |
    /// | 7 | all flags but `socket_off`, and both numbers to their first values |
    /// | 8 | `socket_dendity` |
    static bool DebugControl(int type, bool on, long long value);

    /// The class test of a site that is asked for directions: `type` has 1 for read, 2 for write.
    static bool passes_type(unsigned int type);

    /// The class test of a site that delivers: `revents` as in a socket's record.
    static bool passes_revents(int revents);

    /// The test of the sites that print often.
    static bool passes_density() { return on(socket_dendity); }

    /// The test of every site: whether a line about this socket and this handler is wanted.
    static bool matches(int64_t socket, int64_t handler);

private:
    static bool on(const std::atomic<bool>& flag) { return flag.load(std::memory_order_relaxed); }
    static void set(std::atomic<bool>& flag, bool value) { flag.store(value, std::memory_order_relaxed); }
    static void follow(std::atomic<bool>& flag, std::atomic<int64_t>& number, bool on, int64_t value);
    static void set_all(bool on);
    static bool any_class();
};

}  // namespace Orvex::Reticor
