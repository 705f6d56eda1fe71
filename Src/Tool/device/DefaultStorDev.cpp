// CDefaultStorDev: a storage device over the C library's stream files.
#include <Reticor/DefaultStorDev.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include <Infra/Log.h>

#include "Socket/address/SockError.h"
#include "Tool/device/StorDev.h"

namespace Orvex::Reticor {

namespace {

enum class Turn { none, reading, writing };

void keep_from_children(FILE* file) {
    const int fd = ::fileno(file);
    const int flags = ::fcntl(fd, F_GETFD);
    if (flags != -1) {
        ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
    }
}

/// An open stream, with its end. Shared by the devices that are copies of each other.
struct Stream {
    explicit Stream(FILE* file) : m_file(file) {}
    ~Stream() { close(); }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    /// Between reading and writing a stream wants to be positioned. False if that is not possible.
    bool begin(Turn turn) {
        const Turn before = m_turn;
        m_turn = turn;
        return before == turn || before == Turn::none || ::fseeko(m_file, 0, SEEK_CUR) == 0;
    }

    /// 0, or -1 with a line in the log.
    int close() {
        FILE* const file = std::exchange(m_file, nullptr);
        if (file == nullptr || std::fclose(file) == 0) {
            return 0;
        }
        const int error = errno;
        INFRA_LOG_STATIC(2, "close file failed! %s\n", GetSockErrorText(error).c_str());
        return -1;
    }

    FILE* m_file;
    Turn m_turn = Turn::none;
};

}  // namespace

struct __attribute__((visibility("hidden"))) CDefaultStorDev::State {
    std::shared_ptr<Stream> m_stream;
    char m_path[256] = {};

    /// The open stream of a state that may be missing, or null.
    static Stream* stream_of(const State* state) {
        return state != nullptr ? state->m_stream.get() : nullptr;
    }
};

// Without memory for its state a device is one that does not open.
CDefaultStorDev::CDefaultStorDev() : m_state(new (std::nothrow) State) {}

CDefaultStorDev::CDefaultStorDev(const CDefaultStorDev& other)
    : CNStorDev_IF(other),
      m_state(other.m_state != nullptr ? new (std::nothrow) State(*other.m_state) : nullptr) {}

CDefaultStorDev& CDefaultStorDev::operator=(const CDefaultStorDev& other) {
    if (this != &other) {
        CNStorDev_IF::operator=(other);
        if (m_state == nullptr) {
            m_state = new (std::nothrow) State;
        }
        if (m_state != nullptr) {
            *m_state = other.m_state != nullptr ? *other.m_state : State();
        }
    }
    return *this;
}

CDefaultStorDev::~CDefaultStorDev() {
    delete m_state;
}

int CDefaultStorDev::Open(const char* path, const char* mode) {
    if (m_state == nullptr) {
        INFRA_LOG_STATIC(2, "open file failed! %s\n", GetSockErrorText(ENOMEM).c_str());
        return -1;
    }
    m_state->m_stream.reset();
    std::strncpy(m_state->m_path, path != nullptr ? path : "", sizeof(m_state->m_path) - 1);
    FILE* const file = std::fopen(m_state->m_path, mode != nullptr ? mode : "");
    if (file == nullptr) {
        const int error = errno;
        INFRA_LOG_STATIC(2, "open file failed! %s\n", GetSockErrorText(error).c_str());
        return -1;
    }
    keep_from_children(file);
    // Bytes that wait in a buffer are counted as written, and dropped if the disk is full when they are to
    // leave it: without one, what the calls say is what the descriptor took.
    std::setvbuf(file, nullptr, _IONBF, 0);
    try {
        m_state->m_stream = std::make_shared<Stream>(file);
    } catch (const std::bad_alloc&) {
        std::fclose(file);
        INFRA_LOG_STATIC(2, "open file failed! %s\n", GetSockErrorText(ENOMEM).c_str());
        return -1;
    }
    return 0;
}

void CDefaultStorDev::Close() {
    delete this;
}

int CDefaultStorDev::Finish(bool sync) {
    if (State::stream_of(m_state) == nullptr) {
        return 0;
    }
    const std::shared_ptr<Stream> stream = std::move(m_state->m_stream);
    const int synced = sync ? sync_file(::fileno(stream->m_file)) : 0;
    const int closed = stream.use_count() == 1 ? stream->close() : 0;
    return synced == 0 ? closed : synced;
}

int CDefaultStorDev::Write(const char* data, unsigned len) {
    Stream* const stream = State::stream_of(m_state);
    if (stream == nullptr || !stream->begin(Turn::writing)) {
        return 0;
    }
    return static_cast<int>(std::fwrite(data, 1, len, stream->m_file));
}

int CDefaultStorDev::Read(char* dst, unsigned len) {
    Stream* const stream = State::stream_of(m_state);
    if (stream == nullptr || !stream->begin(Turn::reading)) {
        return 0;
    }
    return static_cast<int>(std::fread(dst, 1, len, stream->m_file));
}

int CDefaultStorDev::Seek(long long offset, int whence) {
    Stream* const stream = State::stream_of(m_state);
    if (stream == nullptr || (whence != 0 && whence != 1)) {
        return -1;
    }
    const int result = ::fseeko(stream->m_file, offset, whence == 0 ? SEEK_SET : SEEK_CUR);
    if (result == 0) {
        stream->m_turn = Turn::none;
    }
    return result;
}

int CDefaultStorDev::Stat(NFile_Info* info) {
    struct stat found;
    if (::stat(m_state != nullptr ? m_state->m_path : "", &found) < 0) {
        const int error = errno;
        INFRA_LOG_STATIC(2, "get fstat failed! %s\n", GetSockErrorText(error).c_str());
        return -1;
    }
    fill_file_info(found, m_state->m_path, info);
    return 0;
}

}  // namespace Orvex::Reticor
