// StandardErrorSeam, and the definitions of pwritev2 and poll that come before the C library's.
#include "support/foundation/StandardErrorSeam.h"

#include <dlfcn.h>
#include <poll.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace Orvex::Testing {

namespace {

struct Plan {
    std::deque<WriteOutcome> outcomes;
    bool room = true;
    int room_asked = 0;
};

thread_local Plan* t_plan = nullptr;

}  // namespace

StandardErrorSeam::StandardErrorSeam(std::deque<WriteOutcome> outcomes) {
    t_plan = new Plan{std::move(outcomes)};
}

StandardErrorSeam::~StandardErrorSeam() {
    delete std::exchange(t_plan, nullptr);
}

void StandardErrorSeam::then(WriteOutcome outcome) {
    t_plan->outcomes.push_back(outcome);
}

void StandardErrorSeam::setRoom(bool room) {
    t_plan->room = room;
}

size_t StandardErrorSeam::left() const {
    return t_plan->outcomes.size();
}

int StandardErrorSeam::roomAsked() const {
    return t_plan->room_asked;
}

// False if the call is to go through.
bool decide_write(int fd, const iovec* parts, ssize_t* result) {
    if (t_plan == nullptr || fd != STDERR_FILENO || t_plan->outcomes.empty()) {
        return false;
    }
    const WriteOutcome outcome = t_plan->outcomes.front();
    t_plan->outcomes.pop_front();
    if (outcome.error != 0) {
        errno = outcome.error;
        *result = -1;
        return true;
    }
    const size_t all = parts->iov_len;
    const size_t taken = outcome.taken == WriteOutcome::ALL ? all : static_cast<size_t>(outcome.taken);
    *result = ::write(fd, parts->iov_base, taken < all ? taken : all);
    return true;
}

// The same for a question for room; -1 if it goes through.
int decide_room(pollfd* asked, nfds_t count) {
    if (t_plan == nullptr || count != 1 || asked->fd != STDERR_FILENO) {
        return -1;
    }
    ++t_plan->room_asked;
    return t_plan->room ? 1 : 0;
}

}  // namespace Orvex::Testing

extern "C" __attribute__((visibility("default"))) ssize_t pwritev2(int fd, const iovec* parts, int count,
                                                                   off_t offset, int flags) {
    ssize_t result = 0;
    if (Orvex::Testing::decide_write(fd, parts, &result)) {
        return result;
    }
    static auto* const real = reinterpret_cast<decltype(::pwritev2)*>(::dlsym(RTLD_NEXT, "pwritev2"));
    return real(fd, parts, count, offset, flags);
}

extern "C" __attribute__((visibility("default"))) int poll(pollfd* asked, nfds_t count, int timeout_ms) {
    const int room = Orvex::Testing::decide_room(asked, count);
    if (room >= 0) {
        asked->revents = static_cast<short>(room != 0 ? POLLOUT : 0);
        return room;
    }
    static auto* const real = reinterpret_cast<decltype(::poll)*>(::dlsym(RTLD_NEXT, "poll"));
    return real(asked, count, timeout_ms);
}
