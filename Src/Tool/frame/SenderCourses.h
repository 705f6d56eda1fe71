// SenderCourses: what a sender has had of each channel, and what is missing there.
#pragma once

#include <cstdint>

#include "Tool/frame/AheadCourse.h"
#include "Tool/frame/MediaFrame.h"
#include "Tool/frame/Thinning.h"

namespace Orvex::Reticor {

/// Frames of a channel are numbered, so a gap is a difference: of what lies between the last frame begun and
/// the next one, the sender itself has stepped over or left out a part; the rest was gone when it came.
///
/// Thread safety: none of its own; the lock of the sender's buffer guards it.
class SenderCourses {
public:
    static constexpr int CHANNELS = 8;

    /// What lies before a frame that is begun.
    struct Missed {
        Thinning::Sum all;      ///< But for what was left out.
        Thinning::Sum stepped;  ///< Of that, what the sender has stepped over;
        Thinning::Sum gone;     ///< and what it never saw.
    };

    // What became of a frame.

    /// Whether the frame comes right after the last one begun.
    bool follows(const CFrame& frame) const { return frame.m_ordinal == last_ordinal(frame.channel()) + 1; }
    /// Its first bytes have gone out. What lay before it must have been taken.
    void begin(const CFrame& frame) {
        Course& course = m_courses[frame.channel()];
        course.last_ordinal = frame.m_ordinal;
        course.end = frame.m_channel_begin + static_cast<uint64_t>(frame.m_frame_len);
    }
    /// What lies before this frame, which is about to be begun and does not follow. Nothing, if it is the
    /// first one of its channel: what came before was never meant for the sender.
    Missed take_missed(const CFrame& frame);
    /// The sender has not chosen the channel.
    void pass_unwanted(const CFrame& frame);
    /// It goes without the frame.
    void step_over(const CFrame& frame) {
        Thinning::Sum& stepped = m_courses[frame.channel()].stepped;
        ++stepped.frames;
        stepped.bytes += static_cast<uint64_t>(frame.m_frame_len);
    }
    /// It leaves out a disposable frame, which is no gap.
    void leave_out(const CFrame& frame) { m_ahead[frame.channel()].leave_out(frame); }
    /// The frame counts as if it had not been: the numbers of those before it move on by one, so that a gap
    /// among them stays a gap.
    void pass_needless(const CFrame& frame);

    // What is missing.

    /// Of the last frame begun; 0: none since the sender chose the channel.
    uint64_t last_ordinal(int channel) const { return m_courses[channel].last_ordinal; }
    /// Whether a frame of its channel is missing before this one that others need; or any other one, but for
    /// those that the sender has passed itself.
    bool misses_needed(const CFrame& frame) const {
        const AheadCourse& ahead = m_ahead[frame.channel()];
        return ahead.knows_needed() ? ahead.misses_needed(frame) : misses_any(frame);
    }
    bool misses_any(const CFrame& frame) const {
        const int channel = frame.channel();
        return frame.m_ordinal != last_ordinal(channel) + 1 + m_courses[channel].stepped.frames +
                                      m_ahead[channel].left_out().frames;
    }

    /// What frames need of each other, for a sender that keeps frames.
    AheadCourse& ahead(int channel) { return m_ahead[channel]; }
    const AheadCourse& ahead(int channel) const { return m_ahead[channel]; }

    /// Nothing is known any more: what comes next is neither missing nor does it follow.
    void forget() { *this = SenderCourses(); }
    /// The same of what frames need of each other.
    void forget_ahead();

private:
    struct Course {
        uint64_t last_ordinal = 0;
        uint64_t end = 0;       ///< Where that frame ended in the bytes of its channel.
        Thinning::Sum stepped;  ///< Over, since then.
    };

    alignas(sizeof(Course)) Course m_courses[CHANNELS];  // One lies in one cache line.
    AheadCourse m_ahead[CHANNELS];
};

}  // namespace Orvex::Reticor
