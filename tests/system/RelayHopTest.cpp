// What a relay in between costs: a chain of three, and the same picture at each of them.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "media_relay/mpegts/TsSections.h"
#include "support/Eventually.h"
#include "support/TsBuilder.h"
#include "support/program/RelayProgram.h"

using namespace Orvex::Testing;

namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr unsigned kHopProgram = 1;
constexpr unsigned kHopMapPid = 0x20;
constexpr unsigned kHopPid = 0x100;
constexpr int kPicture_ms = 40;
constexpr size_t kPictureBytes = 12000;
constexpr char kMark[] = "PICTURE=";  // followed by a number of eight digits, in the picture's first packet

/// A live stream of 25 pictures a second, whose bytes are those of H.264 as far as a relay looks at them.
class PictureStream {
public:
    /// The packets of the next picture, with tables and a clock value before it.
    std::string next() {
        const uint64_t stamp = uint64_t{90} * kPicture_ms * (m_number + 25);
        Bytes bytes = m_number % 25 == 0 ? tables() : Bytes();
        bytes = bytes + clockValue((stamp - 9000) * 300);
        char mark[32];
        std::snprintf(mark, sizeof mark, "%s%08u", kMark, m_number);
        const bool key = m_number % 25 == 0;
        Bytes picture = key ? bytesOf("00000109f00000000167640000000165") : bytesOf("00000109f00000000141");
        picture.insert(picture.end(), mark, mark + 16);
        picture.resize(kPictureBytes, 0xAA);
        const Bytes packets = packetsOf(kHopPid, pesOf(0xE0, stamp, stamp, picture), m_counter);
        m_counter += static_cast<unsigned>(packets.size() / relay::kTsPacketSize);
        bytes = bytes + packets;
        ++m_number;
        return {bytes.begin(), bytes.end()};
    }

private:
    Bytes tables() {
        Bytes map{2, 0xB0, 18, 0, kHopProgram, 0xC1, 0, 0, 0xE1, 0x00, 0xF0, 0, 0x1B, 0xE1, 0x00, 0xF0, 0};
        const uint32_t sum = relay::sectionChecksum(map.data(), map.size());
        for (int shift = 24; shift >= 0; shift -= 8) {
            map.push_back(static_cast<uint8_t>(sum >> shift));
        }
        Bytes packets;
        relay::appendSection(packets, 0, m_associationCounter,
                             relay::makeAssociation(kHopProgram, kHopMapPid));
        relay::appendSection(packets, kHopMapPid, m_mapCounter, map);
        return packets;
    }

    Bytes clockValue(uint64_t ticks) const {
        const uint64_t base = ticks / 300;
        Bytes bytes{0x47, kHopPid >> 8, kHopPid & 0xFF, static_cast<uint8_t>(0x20 | ((m_counter - 1) & 15)),
                    183,  0x10};
        for (const int shift : {25, 17, 9, 1}) {
            bytes.push_back(static_cast<uint8_t>(base >> shift));
        }
        bytes.push_back(static_cast<uint8_t>((base & 1) << 7 | 0x7E));
        bytes.resize(relay::kTsPacketSize, 0xFF);
        bytes[11] = 0;
        return bytes;
    }

    unsigned m_number = 0;
    unsigned m_counter = 0;
    unsigned m_associationCounter = 0;
    unsigned m_mapCounter = 0;
};

/// A viewer that notes when each picture has begun to come, until the connection ends.
class PictureClock {
public:
    explicit PictureClock(const RelayProgram& relay)
        : m_viewer(relay, "/live.ts"), m_thread([this] { read(); }) {}
    ~PictureClock() { join(); }
    PictureClock(const PictureClock&) = delete;
    PictureClock& operator=(const PictureClock&) = delete;

    /// By number; when the relay has ended.
    const std::map<int, SteadyClock::time_point>& times() {
        join();
        return m_times;
    }

private:
    void join() {
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }
    void read() {
        while (m_viewer.receiveLine() != "\r" && !m_viewer.wasClosed()) {
        }
        for (;;) {
            const std::string packet = m_viewer.receive(relay::kTsPacketSize);
            if (packet.size() < relay::kTsPacketSize) {
                return;
            }
            const size_t at = packet.find(kMark);
            if (at != std::string::npos) {
                m_times.emplace(std::atoi(packet.c_str() + at + sizeof kMark - 1), SteadyClock::now());
            }
        }
    }

    Viewer m_viewer;
    std::map<int, SteadyClock::time_point> m_times;
    std::thread m_thread;
};

/// From one viewer to the other, in ms, for each picture that both have; in order.
std::vector<double> delays(const std::map<int, SteadyClock::time_point>& from,
                           const std::map<int, SteadyClock::time_point>& to) {
    std::vector<double> found;
    for (const auto& [number, time] : to) {
        const auto before = from.find(number);
        if (before != from.end()) {
            found.push_back(std::chrono::duration<double, std::milli>(time - before->second).count());
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

double percentile(const std::vector<double>& sorted, unsigned percent) {
    return sorted.empty() ? 1e9 : sorted[(sorted.size() - 1) * percent / 100];
}

/// Sends pictures through three relays, of which each pulls from the one before. The delays are: from the
/// input to the first, and then by hop.
std::vector<std::vector<double>> measureChain(int pictures) {
    RelayProgram first({"--input", "-", "--max-lag", "0"});
    RelayProgram second({"--input", first.url("/live.ts"), "--max-lag", "0"});
    RelayProgram third({"--input", second.url("/live.ts"), "--max-lag", "0"});
    std::map<int, SteadyClock::time_point> sent;
    std::vector<std::vector<double>> found;
    {
        PictureClock one(first);
        PictureClock two(second);
        PictureClock three(third);
        PictureStream stream;
        auto due = SteadyClock::now();
        for (int number = 0; number < pictures; ++number) {
            due += std::chrono::milliseconds(kPicture_ms);
            std::this_thread::sleep_until(due);
            const std::string bytes = stream.next();
            sent.emplace(number, SteadyClock::now());
            first.write(bytes);
        }
        EXPECT_EQ(0, third.end());
        EXPECT_EQ(0, second.end());
        EXPECT_EQ(0, first.end());
        found.push_back(delays(sent, one.times()));
        found.push_back(delays(one.times(), two.times()));
        found.push_back(delays(two.times(), three.times()));
    }
    for (size_t hop = 0; hop < found.size(); ++hop) {
        std::printf("%s: %zu pictures, p50 %.1f ms, p99 %.1f ms\n", hop == 0 ? "input to first relay" : "hop",
                    found[hop].size(), percentile(found[hop], 50), percentile(found[hop], 99));
    }
    return found;
}

}  // namespace

// Whatever the machine does meanwhile: each picture comes through, and none before its time.
TEST(RelayHop, HandsEachPictureOnThroughAChain) {
    const std::vector<std::vector<double>> found = measureChain(100);
    for (const std::vector<double>& hop : found) {
        EXPECT_GT(hop.size(), 30U);
        EXPECT_GT(hop.empty() ? 0 : hop.front(), 0);
    }
}

// For a machine that has nothing else to do: script/measure_hops says how long.
TEST(RelayHopMeasured, CostsAtMostAPictureAndALittle) {
    const char* const seconds = std::getenv("RETICOR_HOP_SECONDS");
    if (seconds == nullptr) {
        std::printf("left out: it takes half a minute; script/measure_hops runs it\n");
        return;
    }
    const std::vector<std::vector<double>> found = measureChain(25 * std::atoi(seconds));
    for (const std::vector<double>& hop : found) {
        EXPECT_LE(percentile(hop, 50), kPicture_ms + 5);
        EXPECT_LE(percentile(hop, 99), kPicture_ms + 25);
    }
}
