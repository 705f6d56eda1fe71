// Drives the parsers of examples/media_relay: the first byte chooses one. Any byte read or written outside of
// what they were given ends the run.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "media_relay/hls/HlsOutput.h"
#include "media_relay/http/BodyReader.h"
#include "media_relay/http/Credentials.h"
#include "media_relay/http/HttpRequest.h"
#include "media_relay/input/HttpAnswer.h"
#include "media_relay/input/InputUrl.h"
#include "media_relay/input/RtpReader.h"
#include "media_relay/mp4/Remuxer.h"
#include "media_relay/mpegts/TsClock.h"
#include "media_relay/mpegts/TsDemuxer.h"
#include "media_relay/mpegts/TsFramer.h"
#include "media_relay/mpegts/TsSections.h"
#include "media_relay/rtsp/RtpMuxer.h"
#include "media_relay/rtsp/Transport.h"
#include "rtsp_options/Request.h"

using namespace relay;

namespace {

constexpr unsigned kMapPid = 0x20;
constexpr size_t kShortPacket = 40;  // bytes of input that become a packet

/// As the relay does when a browser watches; what it makes must be a whole box each time.
struct Mp4Sink : Remuxer::Sink {
    void onInit(const Mp4Init& init) override { check(*init.bytes); }
    void onFragment(Mp4Fragment&& fragment) override { check(*fragment.bytes); }
    static void check(const std::vector<uint8_t>& bytes) {
        size_t at = 0;
        while (at + 8 <= bytes.size()) {
            at += size_t{bytes[at]} << 24 | size_t{bytes[at + 1]} << 16 | size_t{bytes[at + 2]} << 8 |
                  bytes[at + 3];
        }
        if (at != bytes.size() || bytes.empty()) {
            std::abort();
        }
    }
};

struct Sink : TsDemuxer::Sink {
    void onProgram(const ProgramMap& map) override { remuxer.begin(map); }
    void onUnit(AccessUnit&& unit) override {
        remuxer.put(unit);
        if (unit.packets.empty() || unit.packets.size() % kTsPacketSize != 0 ||
            unit.tables.size() % kTsPacketSize != 0) {
            std::abort();
        }
    }
    Mp4Sink mp4;
    Remuxer remuxer{mp4};
};

void take(TsDemuxer& demuxer, TsLoop& loop, PcrClock& clock, uint8_t* bytes) {
    const TsPacket packet(bytes);
    if (!packet.isSound()) {
        return;
    }
    const bool isClock = demuxer.isClock(packet);
    loop.apply(bytes, isClock);
    if (isClock) {
        clock.at(packet.pcr(), packet.isDiscontinuity());
    }
    demuxer.put(packet, clock.time_us());
}

/// The bytes as they are, in pieces.
void driveBytes(const uint8_t* data, size_t size) {
    Sink sink;
    TsDemuxer demuxer(sink);
    TsLoop loop;
    PcrClock clock;
    TsFramer framer;
    while (size > 0) {
        size_t room = 0;
        uint8_t* const to = framer.room(room);
        const size_t part = std::min({room, size, size_t{1} + data[0] * 4});
        std::copy_n(data, part, to);
        framer.filled(part);
        data += part;
        size -= part;
        if (size == 0) {
            framer.finish();
        }
        while (uint8_t* packet = framer.next()) {
            take(demuxer, loop, clock, packet);
        }
    }
    demuxer.flush();
}

/// As the relay does when a client of RTSP watches; each packet must say how long it is.
struct RtpSink : RtpMuxer::Sink {
    void onPackets(RtpUnit&& unit) override {
        for (const RtpPacket& packet : unit.packets) {
            if (packet.size() < 16 || packet.size() > 16 + RtpTrack::MOST_PAYLOAD ||
                (packet[2] * 256U + packet[3]) + RtpTrack::FRAMING != packet.size()) {
                std::abort();
            }
        }
    }
};

/// Packets of a programme with pictures and sound, whose heads and first bytes are those of the input.
void drivePackets(const uint8_t* data, size_t size) {
    std::vector<uint8_t> map{2,    0xB0, 0,    0,    7,    0xC1, 0,    0,    0xE1, 0x00, 0xF0,
                             0,    0x1B, 0xE1, 0x00, 0xF0, 0,    0x24, 0xE1, 0x01, 0xF0, 0,
                             0x02, 0xE1, 0x02, 0xF0, 0,    0x0F, 0xE1, 0x03, 0xF0, 0};
    map[2] = static_cast<uint8_t>(map.size() + 1);
    const uint32_t sum = sectionChecksum(map.data(), map.size());
    for (int shift = 24; shift >= 0; shift -= 8) {
        map.push_back(static_cast<uint8_t>(sum >> shift));
    }
    std::vector<uint8_t> tables;
    unsigned counter = 0;
    appendSection(tables, 0, counter, makeAssociation(7, kMapPid));
    appendSection(tables, kMapPid, counter, map);

    Sink sink;
    TsDemuxer demuxer(sink);
    if (size % 2 == 0) {
        demuxer.endByLength();
    }
    TsLoop loop;
    PcrClock clock;
    for (size_t at = 0; at < tables.size(); at += kTsPacketSize) {
        take(demuxer, loop, clock, tables.data() + at);
    }
    for (; size >= kShortPacket; data += kShortPacket, size -= kShortPacket) {
        std::vector<uint8_t> packet(data, data + kShortPacket);
        packet.resize(kTsPacketSize, data[1]);
        const unsigned pid = data[0] < 4 ? 0U : data[0] < 8 ? kMapPid : 0x100U + data[0] % 4;
        packet[0] = kTsSync;
        packet[1] = static_cast<uint8_t>((data[1] & 0x40U) | pid >> 8);
        packet[2] = static_cast<uint8_t>(pid);
        if (data[2] == 0) {
            loop.again();
        }
        take(demuxer, loop, clock, packet.data());
    }
    demuxer.flush();
}

/// The input as one picture after the other, or one piece of sound, whose lengths and stamps it says itself.
void driveUnits(const uint8_t* data, size_t size) {
    constexpr Codec kVideos[] = {Codec::H264, Codec::H265, Codec::Other};
    if (size < 4) {
        return;
    }
    Mp4Sink mp4;
    Remuxer remuxer(mp4);
    RtpSink rtp;
    RtpMuxer muxer(rtp);
    ProgramMap map;
    map.streams.push_back({1, StreamKind::Video, kVideos[data[0] % 3], 0});
    map.streams.push_back({2, StreamKind::Audio, data[0] % 2 == 0 ? Codec::Aac : Codec::Opus, data[1] % 4U});
    if (data[0] % 3 == 2) {
        map.streams.erase(map.streams.begin());
    }
    remuxer.begin(map);
    muxer.begin(map);
    data += 2;
    size -= 2;
    while (size >= 4) {
        const size_t part = std::min<size_t>(size - 4, data[1] % 170);
        AccessUnit unit;
        unit.pid = 1U + data[0] % 2;
        unit.key = (data[0] & 4) != 0;
        unit.packets = {kTsSync, 0x40, 1,    0x10, 0,    0,       1, 0xE0,    0,
                        0,       0x80, 0x80, 5,    0x21, data[2], 1, data[3], 1};
        unit.packets.insert(unit.packets.end(), data + 4, data + 4 + part);
        unit.packets.resize(kTsPacketSize, 0);
        remuxer.put(unit);
        muxer.put(unit);
        muxer.makeReports(size, "name");
        data += 4 + part;
        size -= 4 + part;
    }
    remuxer.flush();
    makeSdp("name", "rtsp://host/name", false, muxer.describe());
}

void driveTables(const uint8_t* data, size_t size) {
    const std::vector<uint8_t> section(data, data + size);
    unsigned program = 0;
    unsigned pid = 0;
    ProgramMap map;
    parseAssociation(section, program, pid);
    parseProgramMap(section, size > 4 ? section[3] * 256U + section[4] : 0U, map);
}

void driveRequest(const uint8_t* data, size_t size) {
    HttpReader reader;
    HttpRequest request;
    int status = 0;
    while (size > 0 && status == 0) {
        const size_t part = std::min(size, size_t{1} + data[0] % 64);
        status = reader.put(reinterpret_cast<const char*>(data), part, request);
        data += part;
        size -= part;
    }
    if (status == 200 && (request.path.empty() || request.path[0] != '/')) {
        std::abort();
    }
}

/// Reads `text` as the body of the request, in pieces of at most that many bytes. What came of it, in words.
std::string readBody(const HttpRequest& request, const std::string& text, size_t piece) {
    BodyReader reader;
    std::string body = std::to_string(reader.begin(request)) + ":";
    size_t at = 0;
    while (at < text.size() && !reader.hasEnded() && !reader.isBroken()) {
        const std::string part = text.substr(at, piece);
        std::string_view left = part;
        for (std::string_view data = reader.take(left); !data.empty(); data = reader.take(left)) {
            if (data.data() < part.data() || data.data() + data.size() > part.data() + part.size()) {
                std::abort();
            }
            body += data;
        }
        at += part.size() - left.size();
    }
    return body + ":" + (reader.finish() ? std::to_string(at) : "broken");
}

/// A request with its body, which is the same in one piece and in many; and what the head shows to be let in.
void driveBody(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    HttpReader reader;
    HttpRequest request;
    if (reader.put(text.data(), text.size(), request) != 200) {
        return;
    }
    Credentials credentials;
    if (parseCredentials(request.field("authorization"), credentials) && credentials.scheme.empty()) {
        std::abort();
    }
    if (findArgument(request.query, "token").size() > request.query.size()) {
        std::abort();
    }
    const std::string rest = reader.takeRest();
    if (readBody(request, rest, 1 + rest.size()) != readBody(request, rest, 1 + size % 7)) {
        std::abort();
    }
}

/// A request of RTSP, and the same bytes as reports of receivers.
void driveRtsp(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const size_t length = rtsp::headLength(text);
    if (length > text.size()) {
        std::abort();
    }
    const std::string head = text.substr(0, length);
    if (length != 0 && rtsp::parse(head).good && head.find("RTSP/") == std::string::npos) {
        std::abort();
    }
    const Transport transport = chooseTransport(length != 0 ? rtsp::header(head, "Transport") : text);
    if (transport.kind == Transport::UDP && (transport.port == 0 || transport.reportPort == 0)) {
        std::abort();
    }
    readReceptions(data, size);
}

/// Fragments whose times the input says, and after each a request for what comes of them.
void driveHls(const uint8_t* data, size_t size) {
    HlsOutput output;
    output.setWake([](long) {});
    uint64_t time = 0;
    int64_t now_us = 1000000000000000;
    while (size >= 4) {
        if (data[0] % 16 == 0) {
            output.setInit(std::make_shared<const std::vector<uint8_t>>(1));
        }
        Mp4Fragment fragment;
        fragment.bytes = std::make_shared<const std::vector<uint8_t>>(data, data + 4);
        fragment.key = data[0] % 4 < 2;
        fragment.duration = data[1] * 256U + data[2];
        time += fragment.duration;
        fragment.time = time;
        now_us += fragment.duration * 11;
        output.put(fragment, now_us);
        const size_t part = std::min<size_t>(size - 4, data[3] % 64);
        const std::string text(data + 4, data + 4 + part);
        const size_t mark = std::min(text.find('?'), text.size());
        HlsRequest request;
        if (parseHls("/hls/" + text.substr(0, mark), text.substr(std::min(mark + 1, text.size())), request) ==
            200) {
            const HlsAnswer answer = output.answer(request, data[3]);
            if ((answer.status == 200) == answer.body.empty()) {
                std::abort();
            }
        }
        data += 4 + part;
        size -= 4 + part;
    }
    output.end();
}

/// Packets of RTP, each as long as its first byte says. What comes out must lie within what went in.
void driveRtp(const uint8_t* data, size_t size) {
    RtpReader reader;
    uint64_t now_us = 1;
    size_t in = 0;
    size_t out = 0;
    while (size > 1) {
        const size_t part = std::min<size_t>(size - 1, data[0] % 64);
        const std::vector<uint8_t> datagram(data + 1, data + 1 + part);
        now_us += data[0] * 100U;
        in += part;
        reader.put(datagram.data(), part, now_us, [&](const uint8_t* bytes, size_t length) {
            const std::vector<uint8_t> payload(bytes, bytes + length);
            out += payload.size();
        });
        data += 1 + part;
        size -= 1 + part;
    }
    if (out > in) {
        std::abort();
    }
}

/// The answer of a server in pieces; the same bytes as the name of an input, where a redirect leads.
void driveAnswer(const uint8_t* data, size_t size) {
    HttpAnswer answer;
    size_t out = 0;
    for (size_t at = 0; at < size;) {
        const size_t part = std::min(size - at, size_t{1} + data[at] % 64);
        const std::string piece(reinterpret_cast<const char*>(data) + at, part);
        answer.put(piece.data(), part, [&](const uint8_t* bytes, size_t length) {
            const std::vector<uint8_t> body(bytes, bytes + length);
            out += body.size();
        });
        at += part;
    }
    if (out > size || (out > 0 && answer.status() != 200)) {
        std::abort();
    }
    InputUrl url;
    parseInputUrl(answer.location(), url);
    const bool good = parseInputUrl(std::string(reinterpret_cast<const char*>(data), size), url).empty();
    if (good && url.kind == InputUrl::Kind::Http &&
        (url.host.empty() || url.port == 0 || url.path.find('\r') != std::string::npos)) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    constexpr void (*kDrivers[])(const uint8_t*, size_t) = {
        driveBytes, drivePackets, driveTables, driveRequest, driveUnits,
        driveHls,   driveRtsp,    driveRtp,    driveAnswer,  driveBody};
    kDrivers[data[0] % 10](data + 1, size - 1);
    return 0;
}
