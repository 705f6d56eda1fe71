// CPosixStorDev: a storage device over pread(2) and pwrite(2).
#include <Reticor/PosixStorDev.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

#include <Infra/LockClasses.h>
#include <Infra/Log.h>
#include <Infra/Mutex.h>

#include "Socket/address/SockError.h"
#include "Tool/device/StorDev.h"
#include "Tool/task/FileTask.h"

namespace Orvex::Reticor {

namespace {

constexpr int NEW_FILE_MODE = 0666;

/// The flags of open(2) for a mode of fopen(3); -1 for what is none.
int open_flags(const char* mode) {
    if (mode == nullptr || std::strchr("rwa", mode[0]) == nullptr || mode[0] == '\0') {
        return -1;
    }
    const bool both = std::strchr(mode, '+') != nullptr;
    int flags = both ? O_RDWR : (mode[0] == 'r' ? O_RDONLY : O_WRONLY);
    if (mode[0] != 'r') {
        flags |= O_CREAT | (mode[0] == 'w' ? O_TRUNC : O_APPEND);
    }
    return flags | (std::strchr(mode, 'x') != nullptr ? O_EXCL : 0) | O_CLOEXEC;
}

/// Opens the file, but no directory: that would only fail later, at the first read.
int open_file(const char* path, const char* mode) {
    const int flags = open_flags(mode);
    if (path == nullptr || flags == -1) {
        errno = EINVAL;
        return -1;
    }
    const int fd = ::open(path, flags, NEW_FILE_MODE);
    struct stat found;
    if (fd != -1 && ::fstat(fd, &found) == 0 && S_ISDIR(found.st_mode)) {
        ::close(fd);
        errno = EISDIR;
        return -1;
    }
    return fd;
}

/// Where a file worker stands in the device that it sought last. Devices have numbers because their addresses
/// come again.
struct WorkerPlace {
    uint64_t device;
    long long position;
};
thread_local WorkerPlace t_place = {0, 0};

std::atomic<uint64_t> g_last_device{0};

}  // namespace

struct __attribute__((visibility("hidden"))) CPosixStorDev::State {
    const uint64_t m_number = ++g_last_device;
    int m_fd = -1;
    bool m_has_positions = true;
    char m_path[256] = {};
    /// Guards `m_position`, and is held over the transfer that moves it.
    Infra::CMutex m_mutex{Infra::LockClass::FILE_DEVICE};
    long long m_position INFRA_GUARDED_BY(m_mutex) = 0;

    /// The kernel has let go of the descriptor whatever it says, so a failure is told and never tried again.
    int close() {
        const int fd = std::exchange(m_fd, -1);
        if (fd == -1 || ::close(fd) == 0 || errno == EINTR) {
            return 0;
        }
        const int error = errno;
        INFRA_LOG_STATIC(2, "close file failed! %s\n", GetSockErrorText(error).c_str());
        return -1;
    }

    bool own_place() const { return t_place.device == m_number && OnFileWorker(); }

    /// Moves `position` by a transfer of up to `len` bytes, read or written by `transfer(position, len)`.
    template <typename Transfer>
    static int move(long long& position, unsigned len, Transfer transfer) {
        const size_t most = std::min<size_t>(len, INT_MAX);
        ssize_t done = -1;
        do {
            done = transfer(static_cast<off_t>(position), most);
        } while (done == -1 && errno == EINTR);
        if (done > 0) {
            position += done;
        }
        return static_cast<int>(done);
    }

    template <typename Transfer>
    int transfer_at_position(unsigned len, Transfer transfer) {
        if (own_place()) {
            return move(t_place.position, len, transfer);
        }
        Infra::CGuard guard(m_mutex);
        return move(m_position, len, transfer);
    }
};

// Without memory for its state a device is one that does not open; what comes after that is refused as for a
// closed one.
CPosixStorDev::CPosixStorDev() : m_state(new (std::nothrow) State) {}

CPosixStorDev::~CPosixStorDev() {
    if (m_state != nullptr) {
        m_state->close();
        delete m_state;
    }
}

int CPosixStorDev::Open(const char* path, const char* mode) {
    if (m_state == nullptr) {
        INFRA_LOG_STATIC(2, "open file failed! %s\n", GetSockErrorText(ENOMEM).c_str());
        return -1;
    }
    m_state->close();
    m_state->m_fd = open_file(path, mode);
    if (m_state->m_fd == -1) {
        const int error = errno;
        INFRA_LOG_STATIC(2, "open file failed! %s\n", GetSockErrorText(error).c_str());
        return -1;
    }
    m_state->m_has_positions = ::lseek(m_state->m_fd, 0, SEEK_CUR) != -1;
    copy_file_name(m_state->m_path, path);
    Infra::CGuard guard(m_state->m_mutex);
    m_state->m_position = 0;
    return 0;
}

void CPosixStorDev::Close() {
    delete this;
}

int CPosixStorDev::Finish(bool sync) {
    if (m_state == nullptr) {
        return 0;
    }
    const int synced = sync && m_state->m_fd != -1 ? sync_file(m_state->m_fd) : 0;
    const int closed = m_state->close();
    return synced == 0 ? closed : synced;
}

int CPosixStorDev::Write(const char* data, unsigned len) {
    if (m_state == nullptr) {
        errno = EBADF;
        return -1;
    }
    const State& state = *m_state;
    return m_state->transfer_at_position(len, [&state, data](off_t position, size_t bytes) {
        return state.m_has_positions ? ::pwrite(state.m_fd, data, bytes, position)
                                     : ::write(state.m_fd, data, bytes);
    });
}

int CPosixStorDev::Read(char* dst, unsigned len) {
    if (m_state == nullptr) {
        errno = EBADF;
        return -1;
    }
    const State& state = *m_state;
    return m_state->transfer_at_position(len, [&state, dst](off_t position, size_t bytes) {
        return state.m_has_positions ? ::pread(state.m_fd, dst, bytes, position)
                                     : ::read(state.m_fd, dst, bytes);
    });
}

int CPosixStorDev::Seek(long long offset, int whence) {
    if (m_state == nullptr || m_state->m_fd == -1 || !m_state->m_has_positions ||
        (whence != 0 && whence != 1)) {
        return -1;
    }
    Infra::CGuard guard(m_state->m_mutex);
    const bool worker = OnFileWorker();
    const long long from = m_state->own_place() ? t_place.position : m_state->m_position;
    long long position = offset;
    if ((whence == 1 && __builtin_add_overflow(from, offset, &position)) || position < 0) {
        return -1;
    }
    if (worker) {
        t_place = {m_state->m_number, position};
    } else {
        m_state->m_position = position;
    }
    return 0;
}

int CPosixStorDev::Stat(NFile_Info* info) {
    struct stat found;
    if (::fstat(m_state != nullptr ? m_state->m_fd : -1, &found) < 0) {
        const int error = errno;
        INFRA_LOG_STATIC(2, "get fstat failed! %s\n", GetSockErrorText(error).c_str());
        return -1;
    }
    fill_file_info(found, m_state->m_path, info);
    return 0;
}

}  // namespace Orvex::Reticor
