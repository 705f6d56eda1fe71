// PeerSeam: the definition of getpeername that comes before the C library's.
#include "support/debug/PeerSeam.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

std::atomic<uint32_t> s_address{0};  // In network byte order.
std::atomic<bool> s_active{false};

}  // namespace

namespace Orvex::Testing {

PeerSeam::PeerSeam(const char* address) {
    s_address = ::inet_addr(address);
    s_active = true;
}

PeerSeam::~PeerSeam() {
    s_active = false;
}

}  // namespace Orvex::Testing

extern "C" int getpeername(int fd, struct sockaddr* address, socklen_t* length) noexcept {
    using Function = int (*)(int, struct sockaddr*, socklen_t*);
    static const auto real = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "getpeername"));
    const int result = real(fd, address, length);
    if (result == 0 && s_active && address->sa_family == AF_INET) {
        reinterpret_cast<sockaddr_in*>(address)->sin_addr.s_addr = s_address;
    }
    return result;
}
