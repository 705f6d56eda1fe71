// ViewerScene: a live stream, the link of a viewer, and what the viewer makes of what arrives.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace Bench {

// From this second on the link has this share of the stream's rate.
struct LinkChange {
    double at_s;
    double percent;
};

struct ViewerScene {
    static constexpr double IRREGULAR = -1;

    std::string kind;    // what this scene is about
    double group_s = 2;  // from key frame to key frame; 0: all are key frames; IRREGULAR: 0.2 to 10 s
    int fps = 25;
    std::size_t key_bytes = 170000;
    std::size_t other_bytes = 17000;
    bool layered = false;  // every second frame can be left out, of this size
    std::size_t layer_bytes = 17000;
    bool sound = false;  // 47 frames/s of 340 bytes, in a second channel
    // Before each picture it is there in a low quality, of a fifth of the bytes, in a channel of its own.
    bool two_qualities = false;
    unsigned prompt_keys = 5;  // key frames at which it is not late before it gets the high one again
    double percent = 100;      // the link's rate, of that of the stream
    double outage_s = 0;       // nothing gets through for so long, every 27 s
    std::vector<LinkChange> changes;
    std::size_t kernel_bytes = 131072;  // that the kernel takes before the socket blocks
    int auto_send_ms = 0;
    unsigned max_lag_ms = 1000;
    unsigned hard_lag_ms = 0;
    double comes_s = 0;  // the viewer comes so long after the stream has begun
    bool start_cache = false;
    int seconds = 300;
    int skip = 20;  // seconds at the beginning that do not count
};

constexpr int PICTURES = 0;
constexpr int SOUND = 1;
constexpr int LOW_PICTURES = 3;
constexpr int SCENE_CHANNELS = 4;
constexpr std::size_t LOW_DIVISOR = 5;
constexpr int LEVEL_KEY = 1;
constexpr int LEVEL_SOUND = 3;
constexpr int LEVEL_OTHER = 5;
constexpr int LEVEL_LAYER = 8;

struct StreamFrame {
    std::int64_t made_us = 0;
    int channel = PICTURES;
    int level = LEVEL_OTHER;
    bool key = false;
    bool disposable = false;
    std::size_t bytes = 0;
};

// All frames of the scene, in the order of time.
std::vector<StreamFrame> streamOf(const ViewerScene& scene);
// Bytes in a second; a low quality does not count.
double rateOf(const ViewerScene& scene, const std::vector<StreamFrame>& stream);

struct FrameArrival {
    std::size_t frame;
    std::int64_t at_us;
};

// What lies between the sender and the viewer: a buffer of the kernel that empties at the rate of the link.
class ViewerLink {
public:
    ViewerLink(const ViewerScene& scene, double rate);

    void advance(std::int64_t now_us);
    // What it would take now.
    std::size_t room() const;
    // Takes bytes; there must be room.
    void take(std::size_t bytes) { m_taken += static_cast<double>(bytes); }
    // What was taken last is the end of this frame.
    void ends(std::size_t frame) { m_ends.push_back({m_taken, frame}); }

    std::vector<FrameArrival> arrivals;

private:
    struct End {
        double at;
        std::size_t frame;
    };

    double rate_at(double s) const;
    double next_change(double s) const;

    const ViewerScene& m_scene;
    const double m_rate;
    double m_now_s = 0;
    double m_taken = 0;
    double m_passed = 0;
    std::deque<End> m_ends;
};

// Times in seconds, shares of 1.
struct ViewerFigures {
    double shown = 0;      // pictures that arrive and can be decoded
    double freeze_s = 0;   // the longest time between two of them
    double lag_p50_s = 0;  // from the making to the arrival
    double lag_p99_s = 0;
    double step_s = 0;      // the longest step in picture time
    double in_time = 0;     // shown within the limit and half a second
    double waste = 0;       // bytes of pictures that arrive and cannot be decoded
    double sound = 1;       // sound that arrives
    double high = 1;        // of the pictures shown, those in high quality
    double changes = 0;     // from one quality to the other
    double held_bytes = 0;  // the most that the buffer holds for the viewer
};

ViewerFigures figuresOf(const ViewerScene& scene, const std::vector<StreamFrame>& stream,
                        const std::vector<FrameArrival>& arrivals);

// The scenes that the rule is to stand.
std::vector<ViewerScene> viewerScenes();

}  // namespace Bench
