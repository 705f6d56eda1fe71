// CRecorder: on and off, and where it dumps.
#include <Reticor/Recorder.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "Core/count/DumpWriter.h"
#include "Core/count/Points.h"
#include "Core/count/TraceClock.h"

namespace Orvex::Reticor {

namespace {

/// What the recorder knows beside the rings.
struct RecorderState {
    std::atomic<uint64_t> begin_ticks{0};  ///< When it was switched on first; 0: never.
    std::atomic<uint64_t> begin_ns{0};
    std::atomic<int> crash_fd{-1};
    std::atomic<bool> crash_dumps{false};  ///< Somebody is in DumpInCrash.
};

RecorderState g_recorder;

/// The first moment is the one that counts; of two threads either.
void note_begin() {
    TraceClock::Choose();
    if (g_recorder.begin_ticks.load(std::memory_order_relaxed) == 0) {
        g_recorder.begin_ns.store(Timing::NowNs(), std::memory_order_relaxed);
        g_recorder.begin_ticks.store(TraceClock::Ticks(), std::memory_order_release);
    }
}

bool dump_to(int fd) {
    const uint64_t ticks = g_recorder.begin_ticks.load(std::memory_order_acquire);
    return DumpWriter(fd).Write({ticks, g_recorder.begin_ns.load(std::memory_order_relaxed)});
}

int open_dump(const char* path) {
    return ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
}

}  // namespace

void CRecorder::Start() {
    note_begin();
    EventRing::TryAgain();
    Points::SwitchRecorder(true);
}

void CRecorder::Stop() {
    Points::SwitchRecorder(false);
}

bool CRecorder::IsOn() {
    return Points::IsRecording();
}

int CRecorder::Dump(const char* path) {
    const int fd = open_dump(path);
    if (fd == -1) {
        return -1;
    }
    const bool written = dump_to(fd);
    const int error = errno;
    const bool closed = ::close(fd) == 0;
    if (!written) {
        errno = error;
    }
    return written && closed ? 0 : -1;
}

int CRecorder::OpenCrashFile(const char* path) {
    const int fd = path != nullptr ? open_dump(path) : -1;
    if (path != nullptr && fd == -1) {
        return -1;
    }
    const int former = g_recorder.crash_fd.exchange(fd);
    if (former != -1) {
        ::close(former);
    }
    return 0;
}

int CRecorder::DumpInCrash() {
    const int error = errno;
    const int fd = g_recorder.crash_fd.load();
    if (fd == -1 || g_recorder.crash_dumps.exchange(true)) {
        return -1;
    }
    const bool written = ::lseek(fd, 0, SEEK_SET) == 0 && ::ftruncate(fd, 0) == 0 && dump_to(fd);
    g_recorder.crash_dumps.store(false);
    errno = error;
    return written ? 0 : -1;
}

}  // namespace Orvex::Reticor
