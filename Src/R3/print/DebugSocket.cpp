// CDebugSocket: the flags as they are at load, and the gate.
#include "R3/print/DebugSocket.h"

#include <initializer_list>

#include <Infra/Log.h>

namespace Orvex::Reticor {

std::atomic<bool> CDebugSocket::socket_all{false};
std::atomic<bool> CDebugSocket::socket_read{false};
std::atomic<bool> CDebugSocket::socket_write{false};
std::atomic<bool> CDebugSocket::socket_exception{false};
std::atomic<bool> CDebugSocket::socket_fd{false};
std::atomic<int64_t> CDebugSocket::socket_fd_num{-1};
std::atomic<bool> CDebugSocket::socket_nethandler{false};
std::atomic<int64_t> CDebugSocket::socket_nethandler_num{0};
std::atomic<bool> CDebugSocket::socket_off{true};
std::atomic<bool> CDebugSocket::socket_dendity{false};

namespace {

constexpr unsigned int TYPE_READ = 1;
constexpr unsigned int TYPE_WRITE = 2;
constexpr int REVENTS_READ = 0x101;   ///< Ready to read, or the read time-out.
constexpr int REVENTS_WRITE = 0x204;  ///< Ready to write, or the write time-out.
constexpr int REVENTS_EXCEPTION = 8;

}  // namespace

void CDebugSocket::follow(std::atomic<bool>& flag, std::atomic<int64_t>& number, bool on, int64_t value) {
    set(flag, on);
    number.store(value, std::memory_order_relaxed);
}

void CDebugSocket::set_all(bool on) {
    for (std::atomic<bool>* flag : {&socket_all, &socket_read, &socket_write, &socket_exception}) {
        set(*flag, on);
    }
    follow(socket_fd, socket_fd_num, on, -1);
    follow(socket_nethandler, socket_nethandler_num, on, 0);
    set(socket_dendity, on);
}

bool CDebugSocket::DebugControl(int type, bool on, long long value) {
    switch (type) {
        case 0:
            set(socket_all, on);
            return true;
        case 1:
            set(socket_read, on);
            return true;
        case 2:
            set(socket_write, on);
            return true;
        case 3:
            set(socket_exception, on);
            return true;
        case 4:
            follow(socket_fd, socket_fd_num, on, value);
            return true;
        case 5:
            follow(socket_nethandler, socket_nethandler_num, on, value);
            return true;
        case 6:
            set(socket_off, on);
            return true;
        case 7:
            set_all(on);
            return true;
        case 8:
            set(socket_dendity, on);
            return true;
        default:
            INFRA_LOG_PLAIN(2, "Set DebugControl Failed.\n");
            return false;
    }
}

bool CDebugSocket::any_class() {
    return on(socket_all) || on(socket_read) || on(socket_write) || on(socket_exception);
}

bool CDebugSocket::passes_type(unsigned int type) {
    return ((type & TYPE_READ) != 0 && on(socket_read)) || ((type & TYPE_WRITE) != 0 && on(socket_write)) ||
           on(socket_all) || on(socket_exception);
}

bool CDebugSocket::passes_revents(int revents) {
    return ((revents & REVENTS_READ) != 0 && on(socket_read)) ||
           ((revents & REVENTS_WRITE) != 0 && on(socket_write)) ||
           ((revents & REVENTS_EXCEPTION) != 0 && on(socket_exception)) || on(socket_all);
}

bool CDebugSocket::matches(int64_t socket, int64_t handler) {
    if (!any_class() || !on(socket_off)) {
        return false;
    }
    const bool by_socket = on(socket_fd);
    const bool by_handler = on(socket_nethandler);
    if (!by_socket && !by_handler) {
        return true;
    }
    // With either filter on, both numbers count: each is out of reach of real sockets and ids until it is
    // set.
    return socket == socket_fd_num.load(std::memory_order_relaxed) ||
           handler == socket_nethandler_num.load(std::memory_order_relaxed);
}

}  // namespace Orvex::Reticor
