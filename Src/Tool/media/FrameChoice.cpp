// FrameChoice: senders with a resume policy, and what the rule for those that step ahead is asked.
#include "Tool/media/FrameChoice.h"

namespace Orvex::Reticor {

FrameDecision FrameChoice::by_policy(const SenderRecord& record, const CFrame& frame, uint64_t now_us) {
    if ((Infra::relaxedLoad(record.m_channel_mask) & frame.channel_bit()) == 0) {
        return plain(record, frame);
    }
    const bool steps_ahead = record.m_keeps && (record.wants_keep() || record.starts_with(frame));
    return steps_ahead ? ahead(record, frame, now_us) : ResumePolicy::decide(record, frame, now_us);
}

FrameDecision FrameChoice::ahead(const SenderRecord& record, const CFrame& frame, uint64_t now_us) {
    static const ChannelBook NOTHING_KNOWN;
    const ChannelBook& book = record.m_list != nullptr ? record.m_list->m_channels : NOTHING_KNOWN;
    const int channel = frame.channel();
    const AheadCourse& course = record.m_courses.ahead(channel);
    AheadQuestion question;
    question.age_us = now_us - frame.m_complete_us;
    question.key = frame.is_key();
    question.newer_key = book.has_newer_key(frame);
    question.follows = book.follows(channel, Infra::relaxedLoad(record.m_channel_mask));
    question.gap = record.m_courses.misses_needed(frame);
    question.waits = (record.m_lost_mask & frame.channel_bit()) != 0;
    if (frame.m_disposable) {
        question.disposable = true;
        const int lost_level = record.m_courses.misses_any(frame) ? book.disposable_level() : 0;
        question.refers =
            course.may_refer_to_left(frame.level()) || (lost_level != 0 && frame.level() > lost_level);
        question.key_took_us = course.key_took_us();
        question.since_key_us = frame.m_complete_us - course.key_made_us();
        question.group_us = book.group_us(channel);
    }
    const uint64_t hard_lag_us = record.starts_with(frame) ? 0 : record.hard_lag_us();
    return StepAhead::decide(question, {record.max_lag_us(), hard_lag_us});
}

}  // namespace Orvex::Reticor
