// TsInput: from bytes to packets, and from packets to units.

#include "media_relay/input/TsInput.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

#include "media_relay/LiveStream.h"
#include "media_relay/Mp4Output.h"
#include "media_relay/MulticastOutput.h"
#include "media_relay/rtsp/RtspOutput.h"

namespace relay {

namespace {

constexpr uint64_t kSearch = 8 << 20;  // bytes in which a programme with a clock must show
constexpr unsigned kLevelKey = 1;
constexpr unsigned kLevelSound = 3;
constexpr unsigned kLevelPicture = 5;

unsigned levelOf(const AccessUnit& unit) {
    if (unit.key) {
        return kLevelKey;
    }
    return unit.kind == StreamKind::Audio ? kLevelSound : kLevelPicture;
}

}  // namespace

TsInput::TsInput(const TsOutputs& outputs, unsigned program)
    : m_outputs(outputs), m_demuxer(*this, program) {}

void TsInput::put(const uint8_t* bytes, size_t size) {
    while (size > 0) {
        size_t most = 0;
        uint8_t* const to = room(most);
        const size_t part = std::min(most, size);
        std::memcpy(to, bytes, part);
        filled(part);
        bytes += part;
        size -= part;
        while (step() != Step::Nothing) {
        }
    }
}

void TsInput::filled(size_t size) {
    m_framer.filled(size);
    m_bytes += size;
}

TsInput::Step TsInput::step() {
    uint8_t* const bytes = m_framer.next();
    return bytes != nullptr ? take(bytes) : Step::Nothing;
}

TsInput::Step TsInput::take(uint8_t* bytes) {
    const TsPacket packet(bytes);
    if (!packet.isSound()) {
        ++m_damaged;
        return Step::Packet;
    }
    m_losses.put(packet);
    const bool isClock = m_demuxer.isClock(packet);
    m_looper.apply(bytes, isClock);
    if (isClock) {
        m_clock.at(packet.pcr(), packet.isDiscontinuity() || m_jump);
        m_jump = false;
    }
    if (m_outputs.multicast != nullptr) {
        m_outputs.multicast->put(bytes);
    }
    m_demuxer.put(packet, m_clock.time_us());
    return isClock ? Step::Clock : Step::Packet;
}

void TsInput::onProgram(const ProgramMap& map) {
    m_outputs.mp4.onProgram(map);
    if (m_outputs.rtsp != nullptr) {
        m_outputs.rtsp->onProgram(map);
    }
}

void TsInput::onUnit(AccessUnit&& unit) {
    ++m_units;
    m_outputs.mp4.put(unit);
    if (m_outputs.rtsp != nullptr) {
        m_outputs.rtsp->put(unit);
    }
    Frame frame;
    frame.channel = static_cast<unsigned>(unit.kind);
    frame.level = levelOf(unit);
    frame.entry = unit.key;
    frame.disposable = unit.disposable;
    if (!unit.tables.empty()) {
        frame.packets.push_back(std::make_unique<DataPacket>(std::move(unit.tables)));
    }
    frame.packets.push_back(std::make_unique<DataPacket>(std::move(unit.packets)));
    m_outputs.stream.put(std::move(frame));
}

void TsInput::again() {
    m_framer.reset();
    m_losses.restart();
    m_looper.again();
    ++m_rounds;
    m_roundUnits = m_units;
    m_bytes = 0;
}

void TsInput::restart() {
    m_framer.reset();
    m_losses.restart();
    m_demuxer.giveUpUnits();
    ++m_rounds;
    m_jump = m_clock.isRunning();
    m_roundUnits = m_units;
    m_bytes = 0;
}

void TsInput::end() {
    m_outputs.mp4.end();
    if (m_outputs.multicast != nullptr) {
        m_outputs.multicast->flush();
    }
}

bool TsInput::isHopeless() const {
    return m_bytes > kSearch && (!m_demuxer.hasProgram() || !m_clock.isRunning());
}

void TsInput::fill(SourceView& view) const {
    view.seconds = static_cast<double>(m_clock.time_us()) / 1e6;
    view.skipped = m_framer.skipped();
    view.damaged = m_damaged;
    view.lost = m_losses.lost();
    view.jumps = m_clock.jumps();
    view.rounds = m_rounds;
}

}  // namespace relay
