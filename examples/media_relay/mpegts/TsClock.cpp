// TsClock: arithmetic on the 33 bits of time stamps and the 42 bits of the clock.

#include "media_relay/mpegts/TsClock.h"

#include <algorithm>

#include "media_relay/mpegts/PesUnit.h"

namespace relay {

namespace {

constexpr uint64_t kLongestStep = 2 * kTsClock;  // clock values stand at most 0.1 s apart; more is a jump
constexpr uint64_t kUsualStep = kTsClock / 25;   // between rounds of a stream without time stamps

}  // namespace

uint64_t PcrClock::at(uint64_t pcr, bool jump) {
    if (m_running) {
        const uint64_t step = (pcr + kTsClockWrap - m_last) % kTsClockWrap;
        if (jump || step > kLongestStep) {
            ++m_jumps;
        } else {
            m_step = step;
        }
        m_ticks += m_step;
    }
    m_running = true;
    m_last = pcr;
    return time_us();
}

/// By how much the stream must be shifted for the sake of this PID, in ticks of 27 MHz.
uint64_t TsLoop::shiftFor(unsigned pid) const {
    const Stamps& stamps = m_stamps.at(pid);
    uint64_t step = stamps.step;
    if (pid != m_clockPid && stamps.bytesBefore > 0) {
        step = std::min(step, step * stamps.bytes / stamps.bytesBefore);
    }
    return (stamps.last + step + kStampWrap - stamps.first) % kStampWrap * 300;
}

void TsLoop::again() {
    ++m_round;
    const uint64_t least = (m_last + 1 + kTsClockWrap - m_first) % kTsClockWrap;  // the clock runs on
    uint64_t more = m_stamps.count(m_clockPid) == 0 ? kUsualStep : 0;
    for (const auto& entry : m_stamps) {
        const uint64_t beyond = (shiftFor(entry.first) + kTsClockWrap - least) % kTsClockWrap;
        more = beyond < kLongestStep ? std::max(more, beyond) : more;
    }
    m_shift = (least + more) % kTsClockWrap;
}

void TsLoop::apply(uint8_t* bytes, bool isClock) {
    const TsPacket packet(bytes);
    if (isClock && !m_hasFirst) {
        m_hasFirst = true;
        m_clockPid = packet.pid();
        m_first = packet.pcr();
    }
    countOn(bytes, packet);
    if (packet.hasPcr()) {
        shiftClock(bytes, packet);
    }
    shiftStamps(bytes, packet);
    const auto stamps = m_stamps.find(packet.pid());
    if (stamps != m_stamps.end()) {
        stamps->second.bytes += packet.payloadSize();
    }
    if (isClock) {
        m_last = packet.pcr();
    }
}

void TsLoop::note(unsigned pid, uint64_t stamp) {
    const auto [entry, isNew] = m_stamps.try_emplace(pid);
    Stamps& stamps = entry->second;
    if (isNew) {
        stamps.first = stamp;
    } else {
        const uint64_t step = (stamp + kStampWrap - stamps.last) % kStampWrap;
        stamps.step = step < kLongestStep / 300 ? step : stamps.step;
    }
    stamps.last = stamp;
    stamps.bytesBefore = stamps.bytes;
    stamps.bytes = 0;
}

void TsLoop::countOn(uint8_t* bytes, const TsPacket& packet) {
    const unsigned pid = packet.pid();
    if (packet.hasPayload() && m_counterRound[pid] != m_round) {
        m_counterRound[pid] = m_round;
        m_counterShift[pid] =
            m_lastCounter[pid] == kNone
                ? uint8_t{0}
                : static_cast<uint8_t>((m_lastCounter[pid] + 17U - packet.counter()) & 0x0F);
    }
    const auto counter = static_cast<uint8_t>((packet.counter() + m_counterShift[pid]) & 0x0F);
    bytes[3] = static_cast<uint8_t>((bytes[3] & 0xF0) | counter);
    if (packet.hasPayload()) {
        m_lastCounter[pid] = counter;
    }
}

void TsLoop::shiftClock(uint8_t* bytes, const TsPacket& packet) const {
    const uint64_t clock = (packet.pcr() + m_shift) % kTsClockWrap;
    const uint64_t base = clock / 300;
    const uint64_t extension = clock % 300;
    bytes[6] = static_cast<uint8_t>(base >> 25);
    bytes[7] = static_cast<uint8_t>(base >> 17);
    bytes[8] = static_cast<uint8_t>(base >> 9);
    bytes[9] = static_cast<uint8_t>(base >> 1);
    bytes[10] = static_cast<uint8_t>((base & 1) << 7 | (bytes[10] & 0x7E) | extension >> 8);
    bytes[11] = static_cast<uint8_t>(extension);
}

void TsLoop::shiftStamps(uint8_t* bytes, const TsPacket& packet) {
    const size_t begin = packet.payloadOffset();
    if (!packet.startsUnit() || packet.payloadSize() < 19) {
        return;
    }
    uint8_t* const head = bytes + begin;
    const bool marked = head[0] == 0 && head[1] == 0 && head[2] == 1 && (head[6] & 0xC0) == 0x80;
    if (!marked || !hasStampHead(head[3]) || (head[7] & 0x80) == 0) {
        return;
    }
    const uint64_t presented = (readStamp(head + 9) + m_shift / 300) % kStampWrap;
    writeStamp(head + 9, presented);
    uint64_t decoded = presented;
    if ((head[7] & 0x40) != 0) {
        decoded = (readStamp(head + 14) + m_shift / 300) % kStampWrap;
        writeStamp(head + 14, decoded);
    }
    note(packet.pid(), decoded);
}

}  // namespace relay
