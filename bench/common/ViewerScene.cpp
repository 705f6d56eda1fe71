// ViewerScene: the streams, the links, and what is counted.
#include "common/ViewerScene.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace Bench {

namespace {

constexpr double SOUND_FPS = 48000.0 / 1024;
constexpr std::size_t SOUND_BYTES = 340;
constexpr double OUTAGE_EVERY_S = 27;
constexpr double FIRST_OUTAGE_S = 13.5;

std::int64_t us(double s) {
    return static_cast<std::int64_t>(std::llround(s * 1e6));
}
double seconds(std::int64_t us) {
    return static_cast<double>(us) / 1e6;
}

// The value that this share of them lies below.
double at(std::vector<double> values, double share) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const auto index = static_cast<std::size_t>(share * static_cast<double>(values.size()));
    return values[std::min(values.size() - 1, index)];
}

// Frames from this key frame to the next one.
int groupLength(const ViewerScene& scene, std::mt19937& random) {
    if (scene.group_s == ViewerScene::IRREGULAR) {
        return std::uniform_int_distribution<int>(scene.fps / 5, scene.fps * 10)(random);
    }
    return std::max(1, static_cast<int>(std::lround(scene.group_s * scene.fps)));
}

std::vector<StreamFrame> picturesOf(const ViewerScene& scene) {
    std::mt19937 random(7);
    std::vector<StreamFrame> pictures;
    int left = 0;
    int place = 0;
    for (int i = 0; i < scene.seconds * scene.fps; ++i, --left, ++place) {
        StreamFrame frame;
        if (left == 0) {
            left = groupLength(scene, random);
            place = 0;
        }
        frame.made_us = us(static_cast<double>(i) / scene.fps);
        frame.key = place == 0;
        frame.disposable = scene.layered && place % 2 == 1;
        frame.level = frame.key ? LEVEL_KEY : frame.disposable ? LEVEL_LAYER : LEVEL_OTHER;
        frame.bytes = frame.key ? scene.key_bytes : frame.disposable ? scene.layer_bytes : scene.other_bytes;
        if (scene.two_qualities) {
            StreamFrame low = frame;
            low.channel = LOW_PICTURES;
            low.bytes = frame.bytes / LOW_DIVISOR;
            pictures.push_back(low);
        }
        pictures.push_back(frame);
    }
    return pictures;
}

}  // namespace

std::vector<StreamFrame> streamOf(const ViewerScene& scene) {
    std::vector<StreamFrame> stream = picturesOf(scene);
    if (scene.sound) {
        for (int i = 0; i < static_cast<int>(scene.seconds * SOUND_FPS); ++i) {
            StreamFrame frame;
            frame.made_us = us(static_cast<double>(i) / SOUND_FPS);
            frame.channel = SOUND;
            frame.level = LEVEL_SOUND;
            frame.key = true;
            frame.bytes = SOUND_BYTES;
            stream.push_back(frame);
        }
        std::stable_sort(stream.begin(), stream.end(),
                         [](const StreamFrame& a, const StreamFrame& b) { return a.made_us < b.made_us; });
    }
    return stream;
}

double rateOf(const ViewerScene& scene, const std::vector<StreamFrame>& stream) {
    double bytes = 0;
    for (const StreamFrame& frame : stream) {
        bytes += frame.channel == LOW_PICTURES ? 0 : static_cast<double>(frame.bytes);
    }
    return bytes / scene.seconds;
}

ViewerLink::ViewerLink(const ViewerScene& scene, double rate) : m_scene(scene), m_rate(rate) {}

double ViewerLink::rate_at(double s) const {
    if (m_scene.outage_s > 0) {
        const double phase = std::fmod(s - FIRST_OUTAGE_S, OUTAGE_EVERY_S);
        if (phase >= 0 && phase < m_scene.outage_s) {
            return 0;
        }
    }
    double percent = m_scene.percent;
    for (const LinkChange& change : m_scene.changes) {
        percent = s >= change.at_s ? change.percent : percent;
    }
    return m_rate * percent / 100;
}

double ViewerLink::next_change(double s) const {
    double next = 1e9;
    if (m_scene.outage_s > 0) {
        const double round = std::floor((s - FIRST_OUTAGE_S) / OUTAGE_EVERY_S) * OUTAGE_EVERY_S;
        const double end = FIRST_OUTAGE_S + round + m_scene.outage_s;
        next = s < end ? end : FIRST_OUTAGE_S + round + OUTAGE_EVERY_S;
    }
    for (const LinkChange& change : m_scene.changes) {
        next = change.at_s > s ? std::min(next, change.at_s) : next;
    }
    return next;
}

void ViewerLink::advance(std::int64_t now_us) {
    const double now_s = seconds(now_us);
    while (m_now_s < now_s) {
        // A little after the change, so that rounding cannot keep it in front of it.
        const double until = std::min(now_s, next_change(m_now_s) + 1e-9);
        const double rate = rate_at(m_now_s);
        const double passed = std::min(m_taken, m_passed + rate * (until - m_now_s));
        while (!m_ends.empty() && m_ends.front().at <= passed + 1e-6) {
            const double s = rate > 0 ? m_now_s + std::max(0.0, m_ends.front().at - m_passed) / rate : until;
            arrivals.push_back({m_ends.front().frame, us(s)});
            m_ends.pop_front();
        }
        m_passed = passed;
        m_now_s = until;
    }
}

std::size_t ViewerLink::room() const {
    const double room = static_cast<double>(m_scene.kernel_bytes) - (m_taken - m_passed);
    return room < 1 ? 0 : static_cast<std::size_t>(room);
}

namespace {

// Which pictures can be shown, given those that came before.
class Decoder {
public:
    bool decodes(const StreamFrame& frame, std::size_t needed_before) {
        const bool whole = frame.key || (m_any && m_next == needed_before);
        if (whole && !frame.disposable) {
            m_next = needed_before + 1;
            m_any = true;
        }
        return whole;
    }

private:
    bool m_any = false;
    std::size_t m_next = 0;  // the number of the frame that the next one may need
};

// Of each frame, the number of frames of its channel before it that others need.
std::vector<std::size_t> neededBefore(const std::vector<StreamFrame>& stream) {
    std::size_t needed[SCENE_CHANNELS] = {};
    std::vector<std::size_t> before;
    for (const StreamFrame& frame : stream) {
        before.push_back(needed[frame.channel]);
        needed[frame.channel] += frame.disposable ? 0 : 1;
    }
    return before;
}

struct Tally {
    std::vector<double> lags;
    double shown = 0, in_time = 0, sounds = 0, bytes = 0, wasted = 0, high = 0, changes = 0;
    double freeze_s = 0, step_s = 0;
    std::int64_t last_at_us = -1, last_made_us = -1;
    int last_channel = -1;

    void show(const StreamFrame& frame, std::int64_t at_us, double limit_s, bool counts) {
        if (counts) {
            if (last_at_us >= 0) {
                freeze_s = std::max(freeze_s, seconds(at_us - last_at_us));
                step_s = std::max(step_s, seconds(frame.made_us - last_made_us));
            }
            lags.push_back(seconds(at_us - frame.made_us));
            ++shown;
            high += frame.channel == PICTURES ? 1 : 0;
            changes += last_channel >= 0 && frame.channel != last_channel ? 1 : 0;
            in_time += lags.back() <= limit_s ? 1 : 0;
        }
        last_at_us = at_us;
        last_made_us = frame.made_us;
        last_channel = frame.channel;
    }
};

}  // namespace

ViewerFigures figuresOf(const ViewerScene& scene, const std::vector<StreamFrame>& stream,
                        const std::vector<FrameArrival>& arrivals) {
    const std::int64_t from_us = us(scene.skip);
    // The last frames are still on their way when the time is over.
    const std::int64_t to_us = us(scene.seconds - 8);
    const std::vector<std::size_t> needed_before = neededBefore(stream);
    Decoder decoders[SCENE_CHANNELS];
    Tally tally;
    for (const FrameArrival& arrival : arrivals) {
        const StreamFrame& frame = stream[arrival.frame];
        const bool counts = frame.made_us >= from_us && frame.made_us < to_us;
        if (frame.channel == SOUND) {
            tally.sounds += counts ? 1 : 0;
            continue;
        }
        const bool decodes = decoders[frame.channel].decodes(frame, needed_before[arrival.frame]);
        if (decodes && frame.made_us > tally.last_made_us) {
            tally.show(frame, arrival.at_us, scene.max_lag_ms / 1000.0 + 0.5, counts);
        }
        tally.bytes += static_cast<double>(frame.bytes);
        tally.wasted += decodes ? 0 : static_cast<double>(frame.bytes);
    }
    if (tally.last_at_us >= 0) {
        tally.freeze_s = std::max(tally.freeze_s, seconds(to_us - tally.last_at_us));
    }
    double pictures = 0;
    double sounds = 0;
    for (const StreamFrame& frame : stream) {
        if (frame.made_us >= from_us && frame.made_us < to_us && frame.channel != LOW_PICTURES) {
            (frame.channel == SOUND ? sounds : pictures) += 1;
        }
    }
    ViewerFigures figures;
    figures.shown = tally.shown / pictures;
    figures.in_time = tally.in_time / pictures;
    figures.freeze_s = tally.freeze_s;
    figures.step_s = tally.step_s;
    figures.lag_p50_s = at(tally.lags, 0.5);
    figures.lag_p99_s = at(tally.lags, 0.99);
    figures.waste = tally.bytes > 0 ? tally.wasted / tally.bytes : 0;
    figures.sound = sounds > 0 ? tally.sounds / sounds : 1;
    figures.high = tally.shown > 0 ? tally.high / tally.shown : 0;
    figures.changes = tally.changes;
    return figures;
}

namespace {

// Makes scenes that differ from each other in a group and a link.
class SceneList {
public:
    std::vector<ViewerScene> scenes;

    template <class Change>
    void add(const char* kind, const std::vector<double>& groups, const std::vector<double>& percents,
             Change change) {
        for (const double group_s : groups) {
            for (const double percent : percents) {
                ViewerScene scene;
                scene.kind = kind;
                scene.group_s = group_s;
                scene.percent = percent;
                change(scene);
                scenes.push_back(scene);
            }
        }
    }
};

void layers(ViewerScene& scene) {
    scene.layered = true;
    scene.other_bytes = 24000;
    scene.layer_bytes = 10000;
}

void outages(ViewerScene& scene) {
    scene.outage_s = 1.5;
}

// For whole minutes from 30 s on.
void changes(ViewerScene& scene) {
    for (double at_s = 30; at_s < scene.seconds; at_s += 60) {
        scene.changes.push_back({at_s, 60});
        scene.changes.push_back({at_s + 20, 90});
        scene.changes.push_back({at_s + 40, 150});
    }
}

void add_groups(SceneList& list) {
    const std::vector<double> groups = {0.5, 1, 2, 5, 10, ViewerScene::IRREGULAR};
    const std::vector<double> percents = {25, 50, 75, 95, 150, 300};
    list.add("groups", groups, percents, [](ViewerScene&) {});
    list.add("outages", groups, {95, 150, 300}, outages);
    const auto all_keys = [](ViewerScene& scene) { scene.key_bytes = 40000; };
    list.add("all key frames", {0}, percents, all_keys);
    for (const std::size_t bytes : {400000U, 900000U}) {
        list.add("large key frames", {2, 10}, {50, 75, 95, 105, 150},
                 [bytes](ViewerScene& scene) { scene.key_bytes = bytes; });
    }
    for (const int fps : {50, 60}) {
        list.add("frame rates", {2, 10}, {50, 75, 95, 150}, [fps](ViewerScene& scene) { scene.fps = fps; });
    }
}

void add_sound(SceneList& list) {
    const std::vector<double> groups = {0.5, 1, 2, 5, 10, ViewerScene::IRREGULAR};
    list.add("sound", groups, {25, 50, 75, 95, 150}, [](ViewerScene& scene) { scene.sound = true; });
    list.add("sound, outages", groups, {150}, [](ViewerScene& scene) {
        scene.sound = true;
        outages(scene);
    });
}

void add_settings(SceneList& list) {
    for (const int ms : {20, 100}) {
        list.add("auto-send", {2, 10}, {50, 75, 95, 150},
                 [ms](ViewerScene& scene) { scene.auto_send_ms = ms; });
    }
    for (const std::size_t bytes : {16384U, 65536U, 524288U}) {
        list.add("kernel buffers", {2, 10}, {50, 75, 95},
                 [bytes](ViewerScene& scene) { scene.kernel_bytes = bytes; });
    }
    for (const unsigned ms : {250U, 500U, 2000U}) {
        list.add("limits", {1, 2, 10}, {50, 95}, [ms](ViewerScene& scene) { scene.max_lag_ms = ms; });
    }
    list.add("changing link", {1, 2, 10}, {150}, changes);
}

void add_qualities(SceneList& list) {
    const auto two = [](ViewerScene& scene) {
        scene.two_qualities = true;
        if (scene.group_s == 0) {
            scene.key_bytes = 40000;
            scene.prompt_keys = 50;
        }
    };
    list.add("two qualities", {0, 2, 10}, {95, 75, 50, 25}, two);
    const auto two_changing = [two](ViewerScene& scene) {
        two(scene);
        changes(scene);
    };
    list.add("two qualities, changing link", {0, 2, 10}, {150}, two_changing);
    for (const unsigned keys : {2U, 15U}) {
        list.add("two qualities, patience", {2}, {95, 75, 50, 25}, [two, keys](ViewerScene& scene) {
            two(scene);
            scene.prompt_keys = keys;
        });
        list.add("two qualities, patience", {2}, {150}, two_changing);
        list.scenes.back().prompt_keys = keys;
    }
}

void add_layers(SceneList& list) {
    list.add("layers", {0.5, 1, 2, 5, 10, ViewerScene::IRREGULAR}, {25, 50, 75, 85, 95, 150}, layers);
    list.add("layers, outages", {2, 10}, {95, 150, 300}, [](ViewerScene& scene) {
        layers(scene);
        outages(scene);
    });
    list.add("layers, large key frames", {2, 10}, {85, 95, 105}, [](ViewerScene& scene) {
        layers(scene);
        scene.key_bytes = 900000;
    });
    list.add("layers, sound", {2, 10}, {75, 85, 95}, [](ViewerScene& scene) {
        layers(scene);
        scene.sound = true;
    });
}

void add_hard_bounds(SceneList& list) {
    list.add("hard bound", {2, 10}, {50, 75, 95}, [](ViewerScene& scene) { scene.hard_lag_ms = 2000; });
    list.add("hard bound, layers, sound", {2, 10}, {50, 75, 95}, [](ViewerScene& scene) {
        layers(scene);
        scene.sound = true;
        scene.hard_lag_ms = 2000;
    });
}

}  // namespace

std::vector<ViewerScene> viewerScenes() {
    SceneList list;
    add_groups(list);
    add_sound(list);
    add_settings(list);
    add_qualities(list);
    add_layers(list);
    add_hard_bounds(list);
    return list.scenes;
}

}  // namespace Bench
