// WriteRing: the rings that the kernel shares with us, and the two calls.
#include "Tool/batch/WriteRing.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#if __has_include(<linux/io_uring.h>)
#include <linux/io_uring.h>
#endif

namespace Orvex::Reticor {

#if __has_include(<linux/io_uring.h>) && defined(IORING_FEAT_SINGLE_MMAP) && defined(__NR_io_uring_setup)

namespace {

/// A mapping that a child of the process does not inherit: two processes would write one ring.
class Mapping {
public:
    Mapping(int fd, size_t size, off_t what)
        : m_begin(::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd, what)),
          m_size(size) {
        if (good()) {
            ::madvise(m_begin, m_size, MADV_DONTFORK);
        }
    }
    ~Mapping() {
        if (good()) {
            ::munmap(m_begin, m_size);
        }
    }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;

    bool good() const { return m_begin != MAP_FAILED; }
    template <typename What>
    What* at(uint32_t offset) const {
        return reinterpret_cast<What*>(static_cast<char*>(m_begin) + offset);
    }

private:
    void* const m_begin;
    const size_t m_size;
};

size_t ring_size(const io_uring_params& setup) {
    const size_t submissions = setup.sq_off.array + setup.sq_entries * sizeof(uint32_t);
    const size_t completions = setup.cq_off.cqes + setup.cq_entries * sizeof(io_uring_cqe);
    return std::max(submissions, completions);
}

}  // namespace

/// Heads and tails are shared with the kernel: what the other side writes is read with acquire, what we write
/// is released.
struct WriteRing::Maps {
    Maps(int fd, const io_uring_params& setup)
        : rings(fd, ring_size(setup), IORING_OFF_SQ_RING),
          entries(fd, setup.sq_entries * sizeof(io_uring_sqe), IORING_OFF_SQES),
          offsets(setup) {}

    bool good() const { return rings.good() && entries.good(); }
    uint32_t* submission_head() const { return rings.at<uint32_t>(offsets.sq_off.head); }
    uint32_t* submission_tail() const { return rings.at<uint32_t>(offsets.sq_off.tail); }
    uint32_t* submission_index(uint32_t at) const {
        return rings.at<uint32_t>(offsets.sq_off.array) + (at & (offsets.sq_entries - 1));
    }
    io_uring_sqe* submission(uint32_t at) const {
        return entries.at<io_uring_sqe>(0) + (at & (offsets.sq_entries - 1));
    }
    uint32_t* completion_head() const { return rings.at<uint32_t>(offsets.cq_off.head); }
    uint32_t* completion_tail() const { return rings.at<uint32_t>(offsets.cq_off.tail); }
    const io_uring_cqe& completion(uint32_t at) const {
        return rings.at<io_uring_cqe>(offsets.cq_off.cqes)[at & (offsets.cq_entries - 1)];
    }

    const Mapping rings;
    const Mapping entries;
    const io_uring_params offsets;
};

std::unique_ptr<WriteRing> WriteRing::make() {
    io_uring_params setup{};
    const auto fd = static_cast<int>(::syscall(__NR_io_uring_setup, ENTRIES, &setup));
    if (fd < 0) {
        return nullptr;
    }
    int error = ENOSYS;  // of a kernel before 5.4
    if (::syscall(__NR_io_uring_enter, fd, 0, 0, 0, nullptr, size_t{0}) < 0) {
        error = errno;  // a filter may refuse this call alone
    } else if ((setup.features & IORING_FEAT_SINGLE_MMAP) != 0) {
        error = ENOMEM;
        std::unique_ptr<Maps> maps(new (std::nothrow) Maps(fd, setup));
        if (maps != nullptr && maps->good()) {
            std::unique_ptr<WriteRing> ring(new (std::nothrow) WriteRing(fd, std::move(maps)));
            if (ring != nullptr) {
                return ring;
            }
        }
    }
    ::close(fd);
    errno = error;
    return nullptr;
}

WriteRing::WriteRing(int fd, std::unique_ptr<Maps> maps) : m_fd(fd), m_maps(std::move(maps)) {}

WriteRing::~WriteRing() {
    ::close(m_fd);
}

void WriteRing::write(BatchedWrite* writes, size_t count) {
    for (size_t begin = 0; begin < count;) {
        const uint32_t wanted =
            push(writes + begin, static_cast<uint32_t>(std::min<size_t>(count - begin, ENTRIES)));
        const uint32_t taken = enter(wanted);
        for (uint32_t done = collect(writes + begin); done < taken; done += collect(writes + begin)) {
            ::syscall(__NR_io_uring_enter, m_fd, 0, 1, IORING_ENTER_GETEVENTS, nullptr, size_t{0});
        }
        if (taken < wanted) {
            return;  // the rest is not tried
        }
        begin += taken;
    }
}

// The index of a write is what its result is known by.
uint32_t WriteRing::push(BatchedWrite* writes, uint32_t count) {
    const uint32_t tail = *m_maps->submission_tail();
    for (uint32_t i = 0; i < count; ++i) {
        io_uring_sqe& entry = *m_maps->submission(tail + i);
        std::memset(&entry, 0, sizeof entry);
        entry.opcode = IORING_OP_SENDMSG;
        entry.fd = writes[i].fd;
        entry.addr = reinterpret_cast<uintptr_t>(&writes[i].message);
        entry.len = 1;
        entry.msg_flags = MSG_NOSIGNAL | MSG_DONTWAIT;
        entry.user_data = i;
        *m_maps->submission_index(tail + i) = (tail + i) & (m_maps->offsets.sq_entries - 1);
    }
    __atomic_store_n(m_maps->submission_tail(), tail + count, __ATOMIC_RELEASE);
    return count;
}

// The kernel looks at the ring inside this call alone, so what it has not taken can be taken back.
uint32_t WriteRing::enter(uint32_t count) {
    uint32_t taken = 0;
    while (taken < count) {
        const uint32_t left = count - taken;
        const long done =
            ::syscall(__NR_io_uring_enter, m_fd, left, left, IORING_ENTER_GETEVENTS, nullptr, size_t{0});
        if (done < 0 && errno == EINTR) {
            continue;
        }
        if (done <= 0) {
            __atomic_store_n(m_maps->submission_tail(),
                             __atomic_load_n(m_maps->submission_head(), __ATOMIC_ACQUIRE), __ATOMIC_RELEASE);
            break;
        }
        taken += static_cast<uint32_t>(done);
    }
    return taken;
}

// How many were done.
uint32_t WriteRing::collect(BatchedWrite* writes) {
    const uint32_t tail = __atomic_load_n(m_maps->completion_tail(), __ATOMIC_ACQUIRE);
    const uint32_t head = *m_maps->completion_head();
    for (uint32_t at = head; at != tail; ++at) {
        const io_uring_cqe& done = m_maps->completion(at);
        writes[done.user_data].result = done.res;
    }
    __atomic_store_n(m_maps->completion_head(), tail, __ATOMIC_RELEASE);
    return tail - head;
}

#else

struct WriteRing::Maps {};

std::unique_ptr<WriteRing> WriteRing::make() {
    errno = ENOSYS;
    return nullptr;
}

WriteRing::WriteRing(int fd, std::unique_ptr<Maps> maps) : m_fd(fd), m_maps(std::move(maps)) {}

WriteRing::~WriteRing() = default;

void WriteRing::write(BatchedWrite* /*writes*/, size_t /*count*/) {}

#endif

}  // namespace Orvex::Reticor
