// ViewerModel: one buffer and one viewer, each step written out.
#include "common/ViewerModel.h"

#include <algorithm>
#include <cstdint>

namespace Bench {

namespace {

constexpr std::int64_t KEEP_US = 10000000;
constexpr std::size_t NONE = ~std::size_t{0};

struct Frame : StreamFrame {
    std::size_t number = 0;         // on its channel
    std::size_t needed_before = 0;  // frames of the channel before it that others need
    int age = -1;
    bool gone = false;
};

struct Channel {
    std::size_t last = NONE;    // number of the last frame begun
    std::size_t needed = NONE;  // frames that others need, up to and with the last one begun
    std::size_t newest_key = NONE;
    std::size_t frames = 0;
    std::size_t needed_frames = 0;
    bool waiting = false;
    int left_level = 0;     // the lowest level left out that may be missed by higher ones
    bool two_keys = false;  // the last two frames were key frames
    bool last_key = false;
    std::int64_t key_took_us = 0;    // to write the last key frame
    std::int64_t key_made_us = 0;    // when that was made
    std::int64_t newest_key_us = 0;  // when the newest one was
    std::int64_t group_us = 0;       // the time between the newest two
    bool filtered = false;           // waits for a key frame since the filter has said so
    bool misses = false;             // a frame was stepped over since the last one begun
};

class Model {
public:
    Model(const ViewerScene& scene, const ViewerPolicy& policy, ViewerFilter* filter)
        : m_scene(scene),
          m_policy(policy),
          m_filter(filter),
          m_stream(streamOf(scene)),
          m_link(scene, rateOf(scene, m_stream)) {}

    ViewerResult run();

private:
    enum class Choice { SEND, PASS };

    void complete(const StreamFrame& made);
    void turn();
    void write();
    Choice choose(const Frame& frame);
    bool passes_filter(const Frame& frame);
    void pass(const Frame& frame);
    Choice choose_strict(const Frame& frame, Channel& channel) const;
    Choice choose_ahead(const Frame& frame, Channel& channel) const;
    std::int64_t allowed_us(const Frame& frame, const Channel& channel) const;
    bool leaves_out(const Frame& frame, Channel& channel, std::int64_t age_us) const;
    bool follows(const Channel& channel) const {
        return m_policy.follow && channel.two_keys && other_predicts(channel);
    }
    bool other_predicts(const Channel& channel) const {
        return std::any_of(std::begin(m_channels), std::end(m_channels), [&channel](const Channel& other) {
            return &other != &channel && other.frames != 0 && !other.two_keys;
        });
    }
    void begin(const Frame& frame);
    void age();
    double held() const;

    const ViewerScene& m_scene;
    const ViewerPolicy m_policy;
    ViewerFilter* const m_filter;
    std::size_t m_asked = NONE;  // the frame that the filter was asked about last
    bool m_answer = true;        // what it said
    bool m_missed = false;       // a gap has ended in this step
    const std::vector<StreamFrame> m_stream;
    ViewerLink m_link;
    std::vector<Frame> m_frames;  // that are complete
    std::size_t m_place = 0;      // of the frame that it stands on
    std::size_t m_left = 0;       // bytes of it to write, if it was begun
    std::int64_t m_begun_us = 0;
    std::int64_t m_now_us = 0;
    Channel m_channels[SCENE_CHANNELS];
};

ViewerResult Model::run() {
    double most = 0;
    std::int64_t next_tick_us = m_scene.auto_send_ms * 1000;
    std::size_t next = 0;
    while (next < m_stream.size()) {
        const bool ticks = m_scene.auto_send_ms != 0 && next_tick_us < m_stream[next].made_us;
        m_now_us = ticks ? next_tick_us : m_stream[next].made_us;
        m_link.advance(m_now_us);
        if (ticks) {
            next_tick_us += m_scene.auto_send_ms * 1000;
        } else {
            complete(m_stream[next++]);
        }
        turn();
        if (m_missed && m_filter != nullptr) {
            m_filter->missed();
        }
        m_missed = false;
        age();
        most = std::max(most, held());
    }
    m_link.advance(m_now_us + 60000000);
    ViewerResult result;
    result.figures = figuresOf(m_scene, m_stream, m_link.arrivals);
    result.figures.held_bytes = most;
    result.arrivals = m_link.arrivals;
    return result;
}

void Model::complete(const StreamFrame& made) {
    Frame frame;
    static_cast<StreamFrame&>(frame) = made;
    frame.disposable = frame.disposable && m_policy.layers;
    Channel& channel = m_channels[frame.channel];
    frame.number = channel.frames++;
    frame.needed_before = channel.needed_frames;
    channel.needed_frames += frame.disposable ? 0 : 1;
    if (frame.key) {
        channel.newest_key = frame.number;
        channel.group_us = frame.made_us - channel.newest_key_us;
        channel.newest_key_us = frame.made_us;
    }
    channel.two_keys = frame.key && channel.last_key;
    channel.last_key = frame.key;
    m_frames.push_back(frame);
}

void Model::turn() {
    while (m_place < m_frames.size()) {
        if (m_left == 0) {
            const Frame& frame = m_frames[m_place];
            if (frame.gone || choose(frame) == Choice::PASS || !passes_filter(frame)) {
                pass(frame);
                ++m_place;
                continue;
            }
            if (m_link.room() == 0) {
                return;
            }
            begin(frame);
        }
        write();
        if (m_left != 0) {
            return;
        }
    }
}

void Model::begin(const Frame& frame) {
    m_left = frame.bytes;
    m_begun_us = m_now_us;
    Channel& channel = m_channels[frame.channel];
    m_missed = m_missed || (channel.misses && channel.last != NONE);
    channel.misses = false;
    channel.last = frame.number;
    channel.needed = frame.needed_before + (frame.disposable ? 0 : 1);
    channel.left_level = frame.level <= channel.left_level ? 0 : channel.left_level;
}

void Model::write() {
    const std::size_t bytes = std::min(m_left, m_link.room());
    m_link.take(bytes);
    m_left -= bytes;
    if (m_left == 0) {
        const Frame& frame = m_frames[m_place];
        if (frame.key) {
            m_channels[frame.channel].key_took_us = m_now_us - m_begun_us;
            m_channels[frame.channel].key_made_us = frame.made_us;
        }
        m_link.ends(m_place++);
    }
}

Model::Choice Model::choose(const Frame& frame) {
    Channel& channel = m_channels[frame.channel];
    switch (m_policy.rule) {
        case LateRule::STRICT:
            return choose_strict(frame, channel);
        case LateRule::AHEAD:
            return choose_ahead(frame, channel);
        default:
            return Choice::SEND;
    }
}

// It is asked once about a frame, and not about those of a channel that waits.
bool Model::passes_filter(const Frame& frame) {
    Channel& channel = m_channels[frame.channel];
    if (m_filter == nullptr || m_asked == m_place) {
        return m_answer;
    }
    if (channel.filtered && !frame.key) {
        return false;
    }
    m_asked = m_place;
    m_answer = m_filter->sends(frame, m_now_us - frame.made_us);
    channel.filtered = !m_answer;
    channel.waiting = channel.waiting || !m_answer;
    return m_answer;
}

// What the filter keeps back is not missing.
void Model::pass(const Frame& frame) {
    Channel& channel = m_channels[frame.channel];
    if (!channel.filtered) {
        channel.misses = true;
    } else if (channel.needed != NONE && !frame.disposable) {
        ++channel.needed;
    }
}

Model::Choice Model::choose_strict(const Frame& frame, Channel& channel) const {
    const bool late = m_now_us - frame.made_us > m_scene.max_lag_ms * std::int64_t{1000};
    const bool gap = channel.last == NONE ? frame.number != 0 : frame.number != channel.last + 1;
    channel.waiting = channel.waiting || late || gap;
    if (channel.waiting && (late || !frame.key)) {
        return Choice::PASS;
    }
    channel.waiting = false;
    return Choice::SEND;
}

// After a large key frame more is allowed, in a straight line down to half the limit at the next one.
std::int64_t Model::allowed_us(const Frame& frame, const Channel& channel) const {
    const std::int64_t half_us = m_scene.max_lag_ms * std::int64_t{500};
    const std::int64_t more_us = channel.key_took_us + channel.key_took_us / 4 - half_us;
    const std::int64_t left_us = channel.group_us - (frame.made_us - channel.key_made_us);
    if (more_us <= 0 || left_us <= 0) {
        return half_us;
    }
    return half_us + more_us * std::min(left_us, channel.group_us) / channel.group_us;
}

bool Model::leaves_out(const Frame& frame, Channel& channel, std::int64_t age_us) const {
    const std::int64_t limit_us = allowed_us(frame, channel);
    const bool refers = channel.left_level != 0 && frame.level > channel.left_level;
    if (!frame.disposable || (age_us <= limit_us && !refers)) {
        return false;
    }
    channel.left_level = channel.left_level == 0 ? frame.level : std::min(channel.left_level, frame.level);
    return true;
}

Model::Choice Model::choose_ahead(const Frame& frame, Channel& channel) const {
    const std::int64_t age_us = m_now_us - frame.made_us;
    const std::int64_t hard_us = m_scene.hard_lag_ms * std::int64_t{1000};
    const bool newer_key = channel.newest_key != NONE && channel.newest_key > frame.number;
    const bool above_hard = hard_us != 0 && age_us > hard_us;
    if (follows(channel)) {
        return above_hard ? Choice::PASS : Choice::SEND;
    }
    if (leaves_out(frame, channel, age_us)) {
        return Choice::PASS;
    }
    const bool gap = channel.needed == NONE || frame.needed_before != channel.needed;
    if (age_us > m_scene.max_lag_ms * std::int64_t{1000} && !gap && !channel.waiting && newer_key) {
        channel.waiting = true;
        return Choice::PASS;
    }
    if (above_hard && !frame.key) {
        channel.waiting = true;
        return Choice::PASS;
    }
    channel.waiting = channel.waiting || gap;
    if (channel.waiting && (!frame.key || newer_key)) {
        return Choice::PASS;
    }
    channel.waiting = false;
    return Choice::SEND;
}

// The frame that the viewer stands on stays.
void Model::age() {
    for (std::size_t i = m_place + 1; i < m_frames.size(); ++i) {
        Frame& frame = m_frames[i];
        if (frame.gone) {
            continue;
        }
        ++frame.age;
        const bool too_old = m_now_us - frame.made_us > KEEP_US;
        frame.gone = m_policy.keep ? too_old : frame.level > 10 - frame.age / 10;
    }
}

double Model::held() const {
    double bytes = 0;
    for (std::size_t i = m_place; i < m_frames.size(); ++i) {
        bytes += m_frames[i].gone ? 0 : static_cast<double>(m_frames[i].bytes);
    }
    return bytes;
}

}  // namespace

ViewerResult modelViewer(const ViewerScene& scene, const ViewerPolicy& policy, ViewerFilter* filter) {
    return Model(scene, policy, filter).run();
}

}  // namespace Bench
