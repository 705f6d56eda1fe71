// TsSource: reading without blocking, the pace, the end and the loop.

#include "media_relay/TsSource.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <utility>

namespace relay {

namespace {

constexpr int kPacketsPerCall = 2000;           // then it is time to look at the clock, even without a value
constexpr int kReadsPerCall = 16;               // the same, where no packet is found at all
constexpr uint64_t kSearch = 8 << 20;           // bytes in which a programme with a clock must show
constexpr uint64_t kClockSpan_us = 1800000000;  // the receiver's clock is begun anew after half an hour
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

int TsSource::open(const std::string& name) {
    if (name == "-") {
        return fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
    }
    return ::open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);  // a pipe without a writer must not block
}

TsSource* TsSource::Create(Roster& roster, LiveStream& stream, Mp4Output& mp4, SourceListener& listener,
                           const Setup& setup) {
    return new TsSource(roster, stream, mp4, listener, setup);
}

TsSource::TsSource(Roster& roster, LiveStream& stream, Mp4Output& mp4, SourceListener& listener,
                   const Setup& setup)
    : Source(roster, stream, listener),
      m_fd(setup.fd),
      m_loop(setup.loop),
      m_multicast(setup.multicast),
      m_rtsp(setup.rtsp),
      m_mp4(mp4),
      m_demuxer(*this, setup.program) {
    m_now.kind = "MPEG transport stream";
}

TsSource::~TsSource() {
    close(m_fd);
}

long long TsSource::handle_passive_input() {
    if (m_over) {
        return 0;
    }
    for (int i = 0; i < kPacketsPerCall; ++i) {
        uint8_t* bytes = nullptr;
        const Input input = next(bytes);
        if (input == Input::Nothing) {
            report();
            return isHopeless() ? onEnd() : 0;
        }
        if (input == Input::End) {
            return onEnd();
        }
        if (take(bytes)) {
            break;
        }
    }
    report();
    return isHopeless() ? onEnd() : mediaTime();
}

TsSource::Input TsSource::next(uint8_t*& bytes) {
    for (int i = 0; i < kReadsPerCall; ++i) {
        bytes = m_framer.next();
        if (bytes != nullptr) {
            return Input::Packet;
        }
        if (m_inputEnded) {
            return Input::End;
        }
        if (!read()) {
            return Input::Nothing;
        }
    }
    return Input::Nothing;
}

/// False if there is nothing now. The receiver's thread may serve others, and must be able to end: it never
/// waits here.
bool TsSource::read() {
    pollfd ready{m_fd, POLLIN, 0};
    if (poll(&ready, 1, 0) <= 0) {
        return false;
    }
    size_t size = 0;
    uint8_t* const room = m_framer.room(size);
    const ssize_t got = ::read(m_fd, room, size);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return false;
    }
    if (got > 0) {
        m_framer.filled(static_cast<size_t>(got));
        m_read += static_cast<uint64_t>(got);
        return true;
    }
    m_error = got < 0 ? errno : 0;
    m_inputEnded = true;
    m_framer.finish();
    return true;
}

/// True if the packet is a clock value.
bool TsSource::take(uint8_t* bytes) {
    const TsPacket packet(bytes);
    if (!packet.isSound()) {
        ++m_now.damaged;
        return false;
    }
    const bool isClock = m_demuxer.isClock(packet);
    m_looper.apply(bytes, isClock);
    if (isClock) {
        m_clock.at(packet.pcr(), packet.isDiscontinuity() || m_jumpAhead);
        m_jumpAhead = false;
    }
    if (m_multicast != nullptr) {
        m_multicast->put(bytes);
    }
    m_demuxer.put(packet, m_clock.time_us());
    return isClock;
}

void TsSource::onProgram(const ProgramMap& map) {
    m_mp4.onProgram(map);
    if (m_rtsp != nullptr) {
        m_rtsp->onProgram(map);
    }
}

void TsSource::onUnit(AccessUnit&& unit) {
    ++m_units;
    m_mp4.put(unit);
    if (m_rtsp != nullptr) {
        m_rtsp->put(unit);
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
    m_stream.put(std::move(frame));
}

/// What the receiver is to be told, counted from where its clock began.
long long TsSource::mediaTime() {
    if (!m_clock.isRunning()) {
        return 0;
    }
    const uint64_t time_us = m_clock.time_us();
    if (time_us - m_base_us > kClockSpan_us) {
        m_base_us = time_us - 1;
        restartClock();
    }
    return static_cast<long long>(time_us - m_base_us);
}

bool TsSource::isHopeless() {
    return m_read > kSearch && (!m_demuxer.hasProgram() || !m_clock.isRunning());
}

/// The end of the input, or of our patience with it.
long long TsSource::onEnd() {
    m_demuxer.flush();
    if (m_loop && m_error == 0 && m_units > m_roundUnits && lseek(m_fd, 0, SEEK_SET) == 0) {
        m_framer.reset();
        m_looper.again();
        ++m_now.rounds;
        m_roundUnits = m_units;
        m_inputEnded = false;
        m_read = 0;
        report();
        return mediaTime();
    }
    m_over = true;
    m_mp4.end();
    if (m_multicast != nullptr) {
        m_multicast->flush();
    }
    report();
    if (m_error != 0) {
        end("cannot read the input: " + std::string(std::strerror(m_error)));
    } else if (m_units == m_roundUnits || !m_clock.isRunning()) {
        end("the input holds no transport stream with a programme and a clock");
    } else {
        end("");
    }
    return 0;
}

void TsSource::report() {
    m_now.seconds = static_cast<double>(m_clock.time_us()) / 1e6;
    m_now.skipped = m_framer.skipped();
    m_now.jumps = m_clock.jumps();
    tell();
}

}  // namespace relay
