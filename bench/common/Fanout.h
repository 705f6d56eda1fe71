// What the fan-out servers of the benchmark and their load share: options, the frames on the wire, their
// pace.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/EchoServer.h"

namespace Bench {

struct FanoutOptions {
    std::uint16_t port = 0;          // 0 lets the system choose
    unsigned fps = 25;               // 0: as fast as the slowest client goes
    std::size_t frameBytes = 20000;  // of payload; the header comes on top
    std::uint64_t gop = 50;          // every gop-th frame is a key frame
    unsigned threads = 1;            // delivery threads; clients are dealt to them in turn
    int sendBuffer = 131072;         // SO_SNDBUF of each client; 0: the system's own
    unsigned burst = 8;              // frames that are made in one turn at full speed
    bool gathers = true;             // Reticor: one write takes several frames
    unsigned batch = 0;              // Reticor: from so many writes of a step on they are one; 0: never
    unsigned maxLagMs = 1000;        // a slower client goes on at a later key frame; 0: never
};

// Ends the process with a message if the command line is wrong.
FanoutOptions parseFanoutOptions(int argc, char** argv, const char* description);

// How many frames a client may be late before it loses some, in servers that count frames.
std::uint64_t mostLag(const FanoutOptions& options);

// The part of the options that runHandOverLoops needs.
EchoOptions loopOptions(const FanoutOptions& options);

// The kernel's share of what waits for a client, as every server sets it on every client: SO_SNDBUF, unless
// it is the system's to choose, and, if there is a limit of lag, TCP_NOTSENT_LOWAT. What the kernel has taken
// can no longer be left out.
void limitKernelQueue(int fd, const FanoutOptions& options);

// Reads what a client says, if anything, and forgets it. False when the client has gone.
bool discardInput(int fd);

// With `fps` 0 the next frame is made as soon as no client has more than this many waiting, and this many a
// second while there is no client.
constexpr std::uint64_t kMostWaiting = 8;
constexpr unsigned kIdleFps = 25;

constexpr int kKeyLevel = 1;
constexpr int kOtherLevel = 5;

// The 32 bytes before each payload: "MFRM", u32 payload length, u64 sequence number from 0, u64
// CLOCK_MONOTONIC in ns when the frame was made, u8 level, 7 zero bytes; all little-endian.
struct FrameHeader {
    static constexpr std::size_t kSize = 32;

    std::uint32_t length = 0;
    std::uint64_t sequence = 0;
    std::uint64_t sentNs = 0;
    std::uint8_t level = kOtherLevel;

    void write(unsigned char* to) const;
    // False if the magic or the zero bytes are wrong.
    bool read(const unsigned char* from);
};

// 64 KiB of splitmix64 output, repeated until every window of a payload's length lies in one piece.
class PayloadTable {
public:
    static constexpr std::size_t kSize = 65536;

    explicit PayloadTable(std::size_t longest);

    // The bytes of payload `sequence` from its byte `offset` on, `longest` of them at least from offset 0.
    const char* window(std::uint64_t sequence, std::size_t offset = 0) const {
        return m_bytes.data() + (sequence * 40503 + offset) % kSize;
    }

private:
    std::vector<char> m_bytes;
};

// When frames are due. The threads of a process count from the same moment, so equal frames bear equal
// numbers.
class FramePace {
public:
    explicit FramePace(unsigned fps);

    std::uint64_t dueNs() const { return m_due; }
    bool isDue(std::uint64_t nowNs) const { return nowNs >= m_due; }
    // The frame was made. Whoever is late by more than a frame goes on from now.
    void advance(std::uint64_t nowNs);

private:
    std::uint64_t m_period;
    std::uint64_t m_due;
};

}  // namespace Bench
