// EpollSeam: stands before the calls of epoll and keeps what was asked of the kernel.
#include "support/core/EpollSeam.h"

#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>

namespace Orvex::Testing {

namespace {

std::mutex s_mutex;
std::vector<EpollCall> s_calls;
std::atomic<int> s_fd{-1};
std::atomic<uint64_t> s_waits{0};
thread_local int t_fault = 0;

template <typename Function>
Function* realFunction(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

int passOn(int epoll, int op, int fd, epoll_event* event) {
    static auto* const real = realFunction<decltype(::epoll_ctl)>("epoll_ctl");
    return real(epoll, op, fd, event);
}

int passOn(int epoll, epoll_event* events, int most, int timeout) {
    static auto* const real = realFunction<decltype(::epoll_wait)>("epoll_wait");
    return real(epoll, events, most, timeout);
}

int recorded(int epoll, int op, int fd, epoll_event* event) {
    if (const int error = std::exchange(t_fault, 0)) {
        errno = error;
        return -1;
    }
    if (fd != s_fd.load(std::memory_order_relaxed)) {
        return passOn(epoll, op, fd, event);
    }
    const std::lock_guard<std::mutex> guard(s_mutex);
    const int result = passOn(epoll, op, fd, event);
    const int error = errno;
    s_calls.push_back({op, event != nullptr ? event->events : 0, result == 0 ? 0 : error});
    errno = error;
    return result;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const EpollCall& call) {
    const char* const name = call.op == EPOLL_CTL_ADD ? "ADD" : call.op == EPOLL_CTL_MOD ? "MOD" : "DEL";
    return out << name << " 0x" << std::hex << call.events << std::dec << " error " << call.error;
}

EpollRecorder::EpollRecorder(int fd) {
    const std::lock_guard<std::mutex> guard(s_mutex);
    s_calls.clear();
    s_fd = fd;
}

EpollRecorder::~EpollRecorder() {
    s_fd = -1;
}

std::vector<EpollCall> EpollRecorder::calls() const {
    const std::lock_guard<std::mutex> guard(s_mutex);
    return s_calls;
}

std::vector<EpollCall> EpollRecorder::take() {
    const std::lock_guard<std::mutex> guard(s_mutex);
    return std::exchange(s_calls, {});
}

EpollFault::EpollFault(int error) {
    t_fault = error;
}

EpollFault::~EpollFault() {
    t_fault = 0;
}

uint64_t epollWaits() {
    return s_waits.load(std::memory_order_relaxed);
}

std::vector<EpollItem> epollItems(int epoll) {
    std::ifstream listing("/proc/self/fdinfo/" + std::to_string(epoll));
    std::vector<EpollItem> items;
    for (std::string line; std::getline(listing, line);) {
        std::istringstream words(line);
        std::string tfd, events_name, data_name;
        EpollItem item{};
        if (words >> tfd >> item.fd >> events_name >> std::hex >> item.events >> data_name >> item.data &&
            tfd == "tfd:") {
            items.push_back(item);
        }
    }
    return items;
}

std::optional<EpollItem> epollItem(int epoll, int fd) {
    for (const EpollItem& item : epollItems(epoll)) {
        if (item.fd == fd) {
            return item;
        }
    }
    return std::nullopt;
}

int epollReports(int epoll) {
    epoll_event events[64];
    return passOn(epoll, events, 64, 0);
}

}  // namespace Orvex::Testing

extern "C" __attribute__((visibility("default"))) int epoll_ctl(int epoll, int op, int fd,
                                                                epoll_event* event) noexcept {
    return Orvex::Testing::recorded(epoll, op, fd, event);
}

extern "C" __attribute__((visibility("default"))) int epoll_wait(int epoll, epoll_event* events, int most,
                                                                 int timeout) {
    Orvex::Testing::s_waits.fetch_add(1, std::memory_order_relaxed);
    return Orvex::Testing::passOn(epoll, events, most, timeout);
}
