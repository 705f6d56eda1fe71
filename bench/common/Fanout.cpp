// What the fan-out servers of the benchmark and their load share; see the header.
#include "Fanout.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/Usage.h"
#include "kit/Process.h"

namespace Bench {

namespace {

constexpr int kMostUnsent = 65536;
constexpr unsigned char kMagic[4] = {'M', 'F', 'R', 'M'};

template <typename T>
void putLittle(unsigned char* to, T value) {
    for (std::size_t i = 0; i < sizeof value; ++i) {
        to[i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

template <typename T>
T getLittle(const unsigned char* from) {
    T value = 0;
    for (std::size_t i = 0; i < sizeof value; ++i) {
        value |= static_cast<T>(from[i]) << (8 * i);
    }
    return value;
}

std::uint64_t splitmix64(std::uint64_t* state) {
    std::uint64_t mixed = (*state += 0x9E3779B97F4A7C15U);
    mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9U;
    mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBU;
    return mixed ^ (mixed >> 31);
}

std::uint64_t startOfProcess() {
    static const std::uint64_t start = nowNs();
    return start;
}

}  // namespace

FanoutOptions parseFanoutOptions(int argc, char** argv, const char* description) {
    FanoutOptions options;
    CLI::App app(description);
    app.add_option("--port", options.port, "TCP port on 127.0.0.1, 0 for any");
    app.add_option("--fps", options.fps,
                   "frames a second; 0: the next one when no client has more than 8 waiting")
        ->check(CLI::Range(0U, 100000U));
    app.add_option("--frame-bytes", options.frameBytes, "bytes of a payload")
        ->check(CLI::Range(std::size_t{1}, std::size_t{64} << 20));
    app.add_option("--gop", options.gop, "every so many frames one is a key frame")
        ->check(CLI::PositiveNumber);
    app.add_option("--threads", options.threads, "delivery threads")->check(CLI::Range(1U, 64U));
    app.add_option("--sndbuf", options.sendBuffer, "SO_SNDBUF of each client, 0: what the system gives")
        ->check(CLI::NonNegativeNumber);
    app.add_option("--burst", options.burst, "frames of one turn at full speed")->check(CLI::Range(1U, 32U));
    app.add_option("--gather", options.gathers,
                   "whether one write may take several frames, where that is a choice");
    app.add_option("--batch", options.batch,
                   "from so many clients on their writes are one, where that is a choice; 0: never");
    app.add_option("--max-lag", options.maxLagMs,
                   "a client that lags so many ms goes on at a key frame; 0: never");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::exit(app.exit(error));
    }
    LoadKit::raiseDescriptorLimit();
    startOfProcess();
    return options;
}

std::uint64_t mostLag(const FanoutOptions& options) {
    constexpr std::uint64_t kMost = 60;
    constexpr std::uint64_t kLeast = 10;  // more than are waiting for a client that sets the pace
    if (options.fps == 0 || options.maxLagMs == 0) {
        return kMost;
    }
    return std::max<std::uint64_t>(kLeast, std::uint64_t{options.fps} * options.maxLagMs / 1000);
}

EchoOptions loopOptions(const FanoutOptions& options) {
    EchoOptions result;
    result.port = options.port;
    result.threads = options.threads;
    return result;
}

void limitKernelQueue(int fd, const FanoutOptions& options) {
    const int mostUnsent = options.maxLagMs != 0 ? kMostUnsent : 0;  // 0: what the system has
    const bool sized = options.sendBuffer != 0;
    if ((sized &&
         setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &options.sendBuffer, sizeof options.sendBuffer) != 0) ||
        setsockopt(fd, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &mostUnsent, sizeof mostUnsent) != 0) {
        std::perror("setsockopt");
        std::exit(1);
    }
}

bool discardInput(int fd) {
    char room[512];
    for (;;) {
        const ssize_t got = recv(fd, room, sizeof room, MSG_DONTWAIT);
        if (got <= 0) {
            return got < 0 && (errno == EAGAIN || errno == EINTR);
        }
    }
}

void FrameHeader::write(unsigned char* to) const {
    std::memset(to, 0, kSize);
    std::memcpy(to, kMagic, sizeof kMagic);
    putLittle(to + 4, length);
    putLittle(to + 8, sequence);
    putLittle(to + 16, sentNs);
    to[24] = level;
}

bool FrameHeader::read(const unsigned char* from) {
    static constexpr unsigned char kZeros[7] = {};
    length = getLittle<std::uint32_t>(from + 4);
    sequence = getLittle<std::uint64_t>(from + 8);
    sentNs = getLittle<std::uint64_t>(from + 16);
    level = from[24];
    return std::memcmp(from, kMagic, sizeof kMagic) == 0 &&
           std::memcmp(from + 25, kZeros, sizeof kZeros) == 0;
}

PayloadTable::PayloadTable(std::size_t longest) : m_bytes(kSize + longest) {
    std::uint64_t state = 0x4D46524DU;
    for (std::size_t i = 0; i < kSize; i += sizeof state) {
        unsigned char word[sizeof state];
        putLittle(word, splitmix64(&state));
        std::memcpy(m_bytes.data() + i, word, std::min(sizeof word, m_bytes.size() - i));
    }
    for (std::size_t i = kSize; i < m_bytes.size(); ++i) {
        m_bytes[i] = m_bytes[i - kSize];
    }
}

FramePace::FramePace(unsigned fps)
    : m_period(1000000000U / (fps != 0 ? fps : kIdleFps)), m_due(startOfProcess()) {}

void FramePace::advance(std::uint64_t nowNs) {
    m_due = std::min(m_due, nowNs) + m_period;  // frames at full speed come before they are due
    if (m_due + m_period < nowNs) {
        m_due = nowNs;
    }
}

}  // namespace Bench
