// TsSource: reading without blocking, the pace, the end and the loop.

#include "media_relay/input/TsSource.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

namespace relay {

namespace {

constexpr int kPacketsPerCall = 2000;           // then it is time to look at the clock, even without a value
constexpr int kReadsPerCall = 16;               // the same, where no packet is found at all
constexpr uint64_t kClockSpan_us = 1800000000;  // the receiver's clock is begun anew after half an hour

}  // namespace

int TsSource::open(const std::string& name) {
    if (name == "-") {
        return fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
    }
    return ::open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);  // a pipe without a writer must not block
}

TsSource* TsSource::Create(Roster& roster, const TsOutputs& outputs, SourceListener& listener,
                           const Setup& setup) {
    return new TsSource(roster, outputs, listener, setup);
}

TsSource::TsSource(Roster& roster, const TsOutputs& outputs, SourceListener& listener, const Setup& setup)
    : Source(roster, listener), m_fd(setup.fd), m_loop(setup.loop), m_input(outputs, setup.program) {
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
        const Found found = next();
        if (found == Found::Nothing) {
            report();
            return m_input.isHopeless() ? onEnd() : 0;
        }
        if (found == Found::End) {
            return onEnd();
        }
        if (found == Found::Clock) {
            break;
        }
    }
    report();
    return m_input.isHopeless() ? onEnd() : mediaTime();
}

TsSource::Found TsSource::next() {
    for (int i = 0; i < kReadsPerCall; ++i) {
        const TsInput::Step step = m_input.step();
        if (step != TsInput::Step::Nothing) {
            return step == TsInput::Step::Clock ? Found::Clock : Found::Packet;
        }
        if (m_inputEnded) {
            return Found::End;
        }
        if (!read()) {
            return Found::Nothing;
        }
    }
    return Found::Nothing;
}

/// False if there is nothing now. The receiver's thread may serve others, and must be able to end: it never
/// waits here.
bool TsSource::read() {
    pollfd ready{m_fd, POLLIN, 0};
    if (poll(&ready, 1, 0) <= 0) {
        return false;
    }
    size_t size = 0;
    uint8_t* const room = m_input.room(size);
    const ssize_t got = ::read(m_fd, room, size);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return false;
    }
    if (got > 0) {
        m_input.filled(static_cast<size_t>(got));
        return true;
    }
    m_error = got < 0 ? errno : 0;
    m_inputEnded = true;
    m_input.finish();
    return true;
}

/// What the receiver is to be told, counted from where its clock began.
long long TsSource::mediaTime() {
    if (!m_input.isRunning()) {
        return 0;
    }
    const uint64_t time_us = m_input.time_us();
    if (time_us - m_base_us > kClockSpan_us) {
        m_base_us = time_us - 1;
        restartClock();
    }
    return static_cast<long long>(time_us - m_base_us);
}

/// The end of the input, or of our patience with it.
long long TsSource::onEnd() {
    m_input.flush();
    if (m_loop && m_error == 0 && m_input.hasUnits() && lseek(m_fd, 0, SEEK_SET) == 0) {
        m_input.again();
        m_inputEnded = false;
        report();
        return mediaTime();
    }
    m_over = true;
    m_input.end();
    report();
    if (m_error != 0) {
        end("cannot read the input: " + std::string(std::strerror(m_error)));
    } else if (!m_input.hasUnits() || !m_input.isRunning()) {
        end("the input holds no transport stream with a programme and a clock");
    } else {
        end("");
    }
    return 0;
}

void TsSource::report() {
    m_input.fill(m_now);
    tell();
}

}  // namespace relay
