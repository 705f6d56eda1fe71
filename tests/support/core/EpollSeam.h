// EpollSeam: what the kernel was told by epoll_ctl, call by call, and what it knows now.
//
// The calls are recorded by definitions of epoll_ctl and epoll_wait in this program, which pass them on.
#pragma once

#include <sys/epoll.h>

#include <cstdint>
#include <optional>
#include <ostream>
#include <vector>

namespace Orvex::Testing {

// One epoll_ctl. `error` is 0 or the errno it failed with.
struct EpollCall {
    int op;
    uint32_t events;
    int error;

    bool operator==(const EpollCall& other) const {
        return op == other.op && events == other.events && error == other.error;
    }
};

std::ostream& operator<<(std::ostream& out, const EpollCall& call);

constexpr EpollCall added(uint32_t events) {
    return {EPOLL_CTL_ADD, events, 0};
}
constexpr EpollCall modified(uint32_t events) {
    return {EPOLL_CTL_MOD, events, 0};
}
constexpr EpollCall failed(int op, uint32_t events, int error) {
    return {op, events, error};
}
constexpr EpollCall deleted() {
    return {EPOLL_CTL_DEL, 0, 0};
}

// Records every epoll_ctl that names one descriptor while it lives. One at a time.
class EpollRecorder {
public:
    explicit EpollRecorder(int fd);
    ~EpollRecorder();
    EpollRecorder(const EpollRecorder&) = delete;
    EpollRecorder& operator=(const EpollRecorder&) = delete;

    // The calls since the construction, or since the last take().
    std::vector<EpollCall> calls() const;
    std::vector<EpollCall> take();
};

// Makes the next epoll_ctl on the calling thread fail with `error`.
class EpollFault {
public:
    explicit EpollFault(int error);
    ~EpollFault();
    EpollFault(const EpollFault&) = delete;
    EpollFault& operator=(const EpollFault&) = delete;
};

// How often this program has called epoll_wait.
uint64_t epollWaits();

// How an epoll instance holds a descriptor.
struct EpollItem {
    int fd;
    uint32_t events;
    uint64_t data;
};

// The items of an epoll instance, from the kernel's own listing.
std::vector<EpollItem> epollItems(int epoll);
std::optional<EpollItem> epollItem(int epoll, int fd);

// What EPOLLERR and EPOLLHUP add to every item in that listing; a one-shot that was spent has lost them.
constexpr uint32_t ALWAYS_REPORTED = EPOLLERR | EPOLLHUP;

// How many of its descriptors an epoll instance has a report for at this moment. A look takes the report of
// an edge-triggered or one-shot item away.
int epollReports(int epoll);

}  // namespace Orvex::Testing
