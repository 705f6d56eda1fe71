// TestSource: one picture a call.

#include "media_relay/input/TestSource.h"

#include <time.h>
#include <cinttypes>
#include <cstdio>
#include <utility>

#include "media_relay/Ladder.h"

namespace relay {

namespace {

constexpr uint64_t kClockSpan_s = 1800;  // the receiver's clock is begun anew after half an hour
constexpr uint64_t kSecond_us = 1000000;

uint64_t timeOfDay_us() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    const auto seconds = static_cast<uint64_t>(local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec);
    return seconds * kSecond_us + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

/// FNV-1a, 64 bits.
uint64_t checksum(const std::vector<uint8_t>& bytes) {
    uint64_t sum = 0xCBF29CE484222325;
    for (const uint8_t byte : bytes) {
        sum = (sum ^ byte) * 0x100000001B3;
    }
    return sum;
}

std::unique_ptr<DataPacket> packetOf(const std::string& text) {
    return std::make_unique<DataPacket>(std::vector<uint8_t>(text.begin(), text.end()));
}

std::string partHead(uint64_t number, const std::vector<uint8_t>& picture) {
    char head[256];
    std::snprintf(head, sizeof head,
                  "Content-Type: image/jpeg\r\nContent-Length: %zu\r\nX-Frame: %" PRIu64
                  "\r\nX-Sum: %016" PRIx64 "\r\n\r\n",
                  picture.size(), number, checksum(picture));
    return head;
}

}  // namespace

TestSource* TestSource::Create(Roster& roster, LiveStream& stream, SourceListener& listener,
                               const Options& options) {
    return new TestSource(roster, stream, listener, options);
}

TestSource::TestSource(Roster& roster, LiveStream& stream, SourceListener& listener, const Options& options)
    : Source(roster, listener),
      m_stream(stream),
      m_picture(options.width, options.height),
      m_fps(options.fps),
      m_twoQualities(options.twoQualities) {
    m_now.kind = "test picture " + std::to_string(options.width) + "x" + std::to_string(options.height);
}

long long TestSource::handle_passive_input() {
    std::vector<uint8_t> picture = m_picture.jpeg(m_number, timeOfDay_us(), m_fps);
    if (picture.empty()) {
        end("the test picture cannot be compressed");
        return 0;
    }
    if (m_twoQualities) {
        put(m_picture.lowJpeg(), true);
    }
    put(std::move(picture), false);
    ++m_number;
    m_now.seconds = static_cast<double>(m_number) / m_fps;
    tell();
    if (m_number - m_base > kClockSpan_s * m_fps) {
        m_base = m_number - 1;
        restartClock();
    }
    return static_cast<long long>((m_number - m_base) * kSecond_us / m_fps);
}

void TestSource::put(std::vector<uint8_t>&& picture, bool low) {
    Frame frame;
    frame.channel = low ? Ladder::kLowChannel : Ladder::kHighChannel;
    frame.entry = !low;  // every picture stands for itself
    frame.packets.push_back(packetOf(partHead(m_number, picture)));
    frame.packets.push_back(std::make_unique<DataPacket>(std::move(picture)));
    frame.packets.push_back(packetOf("\r\n--" + std::string(kPictureBoundary) + "\r\n"));
    m_stream.put(std::move(frame));
}

}  // namespace relay
