// Window: what is listed, and what goes.

#include "media_relay/hls/Window.h"

#include <utility>

namespace relay {

namespace {

constexpr uint64_t LISTED_TARGETS = 6;  // target durations that are listed, at most; half of it must be
constexpr uint64_t HELD_TARGETS = 2 * LISTED_TARGETS;
constexpr size_t LEAST_SEGMENTS = 3;  // that are held whatever their size

size_t bytes_of(const Segment& segment) {
    size_t bytes = 0;
    for (const Part& part : segment.parts) {
        bytes += part.bytes->size();
    }
    return bytes;
}

}  // namespace

void Window::begin(Segment&& segment) {
    m_open = std::move(segment);
    m_has_open = true;
}

void Window::add(Part&& part) {
    m_bytes += part.bytes->size();
    m_open.duration += part.duration;
    m_open.parts.push_back(std::move(part));
}

void Window::finish(uint64_t duration) {
    m_open.duration = duration;
    m_next_number = m_open.number + 1;
    m_segments.push_back(std::move(m_open));
    m_has_open = false;
    drop();
    list();
}

/// Segments that were listed once and are not any more never come back: time after them only grows.
void Window::list() {
    const uint64_t most = LISTED_TARGETS * m_target_s * kVideoScale;
    uint64_t listed = 0;
    for (size_t i = m_first_listed; i < m_segments.size(); ++i) {
        listed += m_segments[i].duration;
    }
    while (listed > most && m_first_listed + 1 < m_segments.size()) {
        listed -= m_segments[m_first_listed].duration;
        m_jumps_before += m_segments[m_first_listed].jump ? 1 : 0;
        ++m_first_listed;
    }
}

void Window::drop() {
    const uint64_t most = HELD_TARGETS * m_target_s * kVideoScale;
    uint64_t held = 0;
    for (const Segment& segment : m_segments) {
        held += segment.duration;
    }
    while (m_segments.size() > LEAST_SEGMENTS && (held > most || m_bytes > m_most_bytes)) {
        const Segment& oldest = m_segments.front();
        held -= oldest.duration;
        m_bytes -= bytes_of(oldest);
        if (m_first_listed > 0) {
            --m_first_listed;
        } else {
            m_jumps_before += oldest.jump ? 1 : 0;
        }
        m_segments.pop_front();
    }
}

const Segment* Window::find(uint64_t number) const {
    if (m_has_open && m_open.number == number) {
        return &m_open;
    }
    if (m_segments.empty() || number < m_segments.front().number || number > m_segments.back().number) {
        return nullptr;
    }
    return &m_segments[static_cast<size_t>(number - m_segments.front().number)];
}

SharedBytes Window::findInit(uint64_t number) const {
    if (m_has_open && m_open.initNumber == number) {
        return m_open.init;
    }
    for (const Segment& segment : m_segments) {
        if (segment.initNumber == number) {
            return segment.init;
        }
    }
    return nullptr;
}

}  // namespace relay
