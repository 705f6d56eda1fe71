// StepAhead: at which frames a sender goes on that steps ahead when it is late.
#pragma once

#include <algorithm>
#include <cstdint>

namespace Orvex::Reticor {

/// What a sender does with a frame that it comes to.
struct FrameDecision {
    bool send;                ///< It takes the frame.
    bool waits;               ///< After this its channel waits for a key frame.
    bool leaves_out = false;  ///< It does not take the frame, and misses nothing that others need.
};

/// What the rule looks at: a frame, and the sender's course on its channel. Times in microseconds.
struct AheadQuestion {
    uint64_t age_us = 0;
    bool key = false;
    bool newer_key = false;     ///< There is a younger key frame of the channel.
    bool disposable = false;    ///< No other frame needs this one, but those of higher levels.
    bool refers = false;        ///< It may refer to a disposable frame that is missing.
    bool follows = false;       ///< The channel is one of key frames that follows another one.
    bool gap = false;           ///< Before it a frame is missing that others need.
    bool waits = false;         ///< The channel waits for a key frame.
    uint64_t key_took_us = 0;   ///< What the last key frame took to send.
    uint64_t since_key_us = 0;  ///< From that key frame to this frame.
    uint64_t group_us = 0;      ///< From one key frame to the next; 0: not known.
};

struct AheadLimits {
    uint64_t max_lag_us = 0;
    uint64_t hard_lag_us = 0;  ///< 0: none.
};

/// The rule. What is late steps ahead to the newest key frame, late or not; without one it goes on, since a
/// late picture is better than none. Above the hard bound nothing but a key frame is begun.
class StepAhead {
public:
    static constexpr FrameDecision decide(const AheadQuestion& frame, const AheadLimits& limits) {
        const bool above_hard = limits.hard_lag_us != 0 && frame.age_us > limits.hard_lag_us;
        if (frame.follows) {
            return {!above_hard, false};
        }
        const bool waits = frame.waits || frame.gap;
        if (!waits && frame.disposable &&
            (frame.refers || frame.age_us > disposable_lag_us(frame, limits.max_lag_us))) {
            return {false, false, true};
        }
        const bool late = !waits && frame.age_us > limits.max_lag_us && frame.newer_key;
        const bool too_late = above_hard && !frame.key;
        if (late || too_late || (waits && (!frame.key || frame.newer_key))) {
            return {false, true};
        }
        return {true, false};
    }

    /// The age above which disposable frames are left out: half the limit. A key frame that took longer than
    /// that to send is no reason to leave out what the link can carry: up to the next one the lag may go down
    /// in a straight line, from a quarter above what the key frame took.
    static constexpr uint64_t disposable_lag_us(const AheadQuestion& frame, uint64_t max_lag_us) {
        const uint64_t half_us = max_lag_us / 2;
        const uint64_t key_us = frame.key_took_us + frame.key_took_us / 4;
        if (key_us <= half_us || frame.since_key_us >= frame.group_us) {
            return half_us;
        }
        const double left =
            static_cast<double>(frame.group_us - frame.since_key_us) / static_cast<double>(frame.group_us);
        return half_us + static_cast<uint64_t>(left * static_cast<double>(key_us - half_us));
    }
};

}  // namespace Orvex::Reticor
