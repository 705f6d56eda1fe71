// SenderCourses: gaps, which are rare.
#include "Tool/frame/SenderCourses.h"

#include <utility>

namespace Orvex::Reticor {

SenderCourses::Missed SenderCourses::take_missed(const CFrame& frame) {
    Course& course = m_courses[frame.channel()];
    const Thinning::Sum left = m_ahead[frame.channel()].take_left_out();
    Missed missed;
    const Thinning::Sum stepped = std::exchange(course.stepped, {});
    if (course.last_ordinal == 0 || frame.m_ordinal <= course.last_ordinal) {
        return missed;
    }
    missed.stepped = stepped;
    missed.all.frames = frame.m_ordinal - course.last_ordinal - 1 - left.frames;
    missed.all.bytes = frame.m_channel_begin - course.end - left.bytes;
    if (missed.all.frames > stepped.frames) {
        missed.gone = {missed.all.frames - stepped.frames, missed.all.bytes - stepped.bytes};
    }
    return missed;
}

void SenderCourses::pass_unwanted(const CFrame& frame) {
    m_courses[frame.channel()].last_ordinal = 0;
    m_ahead[frame.channel()].pass_unwanted();
}

void SenderCourses::pass_needless(const CFrame& frame) {
    Course& course = m_courses[frame.channel()];
    if (course.last_ordinal != 0) {
        ++course.last_ordinal;
        course.end += static_cast<uint64_t>(frame.m_frame_len);
    }
    m_ahead[frame.channel()].pass_needless(frame);
}

void SenderCourses::forget_ahead() {
    for (AheadCourse& course : m_ahead) {
        course = AheadCourse();
    }
}

}  // namespace Orvex::Reticor
