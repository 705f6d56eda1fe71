// WriteRing: each write of a batch comes to what sendmsg would have come to, and nothing stays behind.
#include "Tool/batch/WriteRing.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/media/RefusedCall.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

struct Ends {
    Ends() { EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds)); }
    ~Ends() {
        closeNear();
        closeFar();
    }
    Ends(const Ends&) = delete;
    Ends& operator=(const Ends&) = delete;

    void closeNear() { closeEnd(fds[0]); }
    void closeFar() { closeEnd(fds[1]); }
    static void closeEnd(int& fd) {
        if (fd >= 0) {
            ::close(fd);
            fd = -1;
        }
    }
    std::string arrived() const {
        std::string all(1 << 20, '\0');
        const ssize_t got = ::recv(fds[1], all.data(), all.size(), 0);
        return all.substr(0, got < 0 ? 0 : static_cast<size_t>(got));
    }

    int fds[2] = {-1, -1};
};

size_t openDescriptors() {
    DIR* const folder = ::opendir("/proc/self/fd");
    size_t count = 0;
    while (::readdir(folder) != nullptr) {
        ++count;
    }
    ::closedir(folder);
    return count;
}

class WriteRingOfAKernel : public ::testing::Test {
protected:
    // False where the kernel refuses rings, which the output then says.
    bool hasRing() {
        ring = WriteRing::make();
        if (ring == nullptr) {
            std::printf("left out: the kernel refuses io_uring: %s\n", std::strerror(errno));
        }
        return ring != nullptr;
    }
    static bool runRefused(unsigned call, const std::function<void()>& what) {
        const bool filtered = runWithRefusedCall(call, what);
        if (!filtered) {
            std::printf("left out: no filters of system calls here\n");
        }
        return filtered;
    }

    BatchedWrite& add(int fd, const std::string& bytes) {
        texts.push_back(bytes);
        return addPieces(fd, {{texts.back().data(), bytes.size()}});
    }
    BatchedWrite& addPieces(int fd, const std::vector<iovec>& pieces) {
        lists.push_back(pieces);
        BatchedWrite& write = writes.emplace_back();
        write.fd = fd;
        write.message.msg_iov = lists.back().data();
        write.message.msg_iovlen = pieces.size();
        return write;
    }
    void writeAll() {
        std::vector<BatchedWrite> together(writes.begin(), writes.end());
        ring->write(together.data(), together.size());
        std::copy(together.begin(), together.end(), writes.begin());
    }

    std::unique_ptr<WriteRing> ring;
    std::deque<std::string> texts;
    std::deque<std::vector<iovec>> lists;
    std::deque<BatchedWrite> writes;
};

TEST_F(WriteRingOfAKernel, EachSocketGetsItsOwn) {
    if (!hasRing()) {
        return;
    }
    std::array<Ends, 3> ends;
    add(ends[0].fds[0], "first");
    char one[] = "ab";
    char two[] = "cde";
    addPieces(ends[1].fds[0], {{one, 2}, {two, 3}});
    add(ends[2].fds[0], "third");
    writeAll();
    EXPECT_EQ(5, writes[0].result);
    EXPECT_EQ(5, writes[1].result);
    EXPECT_EQ(5, writes[2].result);
    EXPECT_EQ("first", ends[0].arrived());
    EXPECT_EQ("abcde", ends[1].arrived());
    EXPECT_EQ("third", ends[2].arrived());
}

TEST_F(WriteRingOfAKernel, AFullSocketAndABrokenOneAreToldAtOnce) {
    if (!hasRing()) {
        return;
    }
    std::array<Ends, 3> ends;
    const std::string much(4 << 20, 'x');
    add(ends[0].fds[0], much);
    add(ends[0].fds[0], much);
    ends[1].closeFar();
    add(ends[1].fds[0], "nobody reads");
    add(-1, "no number");
    add(ends[2].fds[0], "goes on");
    writeAll();
    EXPECT_GT(writes[0].result, 0);
    EXPECT_LT(writes[0].result, static_cast<int>(much.size()));
    EXPECT_EQ(-EAGAIN, writes[1].result);
    EXPECT_EQ(-EPIPE, writes[2].result);
    EXPECT_EQ(-EBADF, writes[3].result);
    EXPECT_EQ(7, writes[4].result);
}

TEST_F(WriteRingOfAKernel, MoreThanTheRingHoldsGoInTheirOrder) {
    if (!hasRing()) {
        return;
    }
    std::array<Ends, 4> ends;  // one takes no more than some 270 small writes
    std::array<std::string, 4> expected;
    const size_t most = 2 * WriteRing::ENTRIES + 10;
    for (size_t i = 0; i < most; ++i) {
        const std::string text = std::to_string(i) + ',';
        expected[i % 4] += text;
        add(ends[i % 4].fds[0], text);
    }
    for (int round = 0; round < 3; ++round) {
        writeAll();
        for (size_t i = 0; i < most; ++i) {
            ASSERT_EQ(static_cast<int>(texts[i].size()), writes[i].result) << i;
        }
        for (size_t i = 0; i < 4; ++i) {
            EXPECT_EQ(expected[i], ends[i].arrived());
        }
    }
}

TEST_F(WriteRingOfAKernel, AnyThreadMayCome) {
    if (!hasRing()) {
        return;
    }
    Ends ends;
    for (int i = 0; i < 4; ++i) {
        std::thread([&] {
            writes.clear();
            add(ends.fds[0], "from a thread");
            writeAll();
            EXPECT_EQ(13, writes[0].result);
        }).join();
        EXPECT_EQ("from a thread", ends.arrived());
    }
}

TEST_F(WriteRingOfAKernel, ASocketThatIsClosedHasGoneForItsPeer) {
    if (!hasRing()) {
        return;
    }
    Ends ends;
    add(ends.fds[0], "last words");
    writeAll();
    ends.closeNear();
    EXPECT_EQ("last words", ends.arrived());
    char byte = 0;
    EXPECT_EQ(0, ::recv(ends.fds[1], &byte, 1, 0)) << "the end, with no wait";
}

TEST_F(WriteRingOfAKernel, ItsDescriptorGoesWithIt) {
    if (!hasRing()) {
        return;
    }
    const size_t before = openDescriptors();
    ring.reset();
    EXPECT_EQ(before - 1, openDescriptors());
}

TEST_F(WriteRingOfAKernel, ThereIsNoneWhereACallIsRefused) {
    if (!hasRing()) {
        return;
    }
    for (const unsigned call : {unsigned{__NR_io_uring_setup}, unsigned{__NR_io_uring_enter}}) {
        const size_t before = openDescriptors();
        const auto refused = [] {
            EXPECT_EQ(nullptr, WriteRing::make());
            EXPECT_EQ(EPERM, errno);
        };
        if (!runRefused(call, refused)) {
            return;
        }
        EXPECT_EQ(before, openDescriptors());
    }
}

// A ring that was there before the filter: what it does not take is told, and is not taken later.
TEST_F(WriteRingOfAKernel, WhatIsRefusedLaterIsNotTried) {
    if (!hasRing()) {
        return;
    }
    Ends ends;
    add(ends.fds[0], "kept");
    if (!runRefused(__NR_io_uring_enter, [&] { writeAll(); })) {
        return;
    }
    EXPECT_EQ(BatchedWrite::NOT_TRIED, writes[0].result);
    writes.clear();
    add(ends.fds[0], "taken");
    writeAll();
    EXPECT_EQ(5, writes[0].result);
    EXPECT_EQ("taken", ends.arrived());
}

}  // namespace
}  // namespace Orvex::Testing
