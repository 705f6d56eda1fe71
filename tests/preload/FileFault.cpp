// Loaded into a program by LD_PRELOAD: makes calls on one file fail. FILE_FAULT_PATH names it; closing it
// gives EIO where FILE_FAULT_CLOSE is set, and reading it ends after FILE_FAULT_END bytes where that is.
#include <dlfcn.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

bool is_the_file(int fd) {
    const char* const path = std::getenv("FILE_FAULT_PATH");
    char found[4096] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    return path != nullptr && ::readlink(link.c_str(), found, sizeof(found) - 1) > 0 &&
           std::strcmp(path, found) == 0;
}

template <typename Call>
Call next(const char* name) {
    void* const symbol = ::dlsym(RTLD_NEXT, name);
    Call call = nullptr;
    std::memcpy(&call, &symbol, sizeof(call));
    return call;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int close(int fd) {
    const bool fails = std::getenv("FILE_FAULT_CLOSE") != nullptr && is_the_file(fd);
    const int result = next<int (*)(int)>("close")(fd);
    if (!fails) {
        return result;
    }
    errno = EIO;
    return -1;
}

extern "C" __attribute__((visibility("default"))) ssize_t pread(int fd, void* bytes, size_t count,
                                                                off_t offset) {
    const char* const end = std::getenv("FILE_FAULT_END");
    if (end != nullptr && is_the_file(fd)) {
        const off_t left = std::max<off_t>(0, std::atol(end) - offset);
        count = std::min(count, static_cast<size_t>(left));
    }
    return next<ssize_t (*)(int, void*, size_t, off_t)>("pread")(fd, bytes, count, offset);
}
