// MediaSending: what a sender writes each time that its buffer lets it go on.
#pragma once

#include "Tool/media/SenderRecord.h"

namespace Orvex::Reticor {

class FrameGather;

/// How a turn ended. Other data is told apart from frames, since lines tell it apart.
enum class TurnEnd {
    DONE,           ///< All written, or the socket took a part.
    BLOCKED,        ///< The socket took nothing.
    FAILED,         ///< The socket failed.
    OTHER_BLOCKED,  ///< It took none of the other data.
    OTHER_FAILED,   ///< It failed over other data.
};

constexpr bool is_failure(TurnEnd end) {
    return end == TurnEnd::FAILED || end == TurnEnd::OTHER_FAILED;
}

/// One turn, and how the frames follow each other for a sender. A gap that the resume policy made is told
/// before the frame after it goes on; how the turn ended is told by report, when whoever gave the turn wants
/// it.
class MediaSending {
public:
    explicit MediaSending(SenderRecord& record) : m_record(record) {}

    /// Writes what the socket takes, `frame` being the frame on offer. The sender must have a socket.
    TurnEnd run(CFrame* frame) INFRA_REQUIRES(CORE_MUTEX);

    /// The same for one that has caught up, and to whose socket the frame on offer was written already;
    /// `answer` is what became of that: bytes, 0 if it took nothing, negative if it failed.
    TurnEnd run_written(CFrame& frame, int answer) INFRA_REQUIRES(CORE_MUTEX);

    /// Says how the turn ended, if it did not end well: in the log as the sender, and once to whoever waits
    /// for it. Here, since the lines name this file, and the sender as their object.
    void report() INFRA_REQUIRES(CORE_MUTEX);

    /// A sender that is not to write now, and has caught up, takes the frame on offer without a write: it
    /// would be lost to it otherwise. `loses` says whether other data that waits has it lose the frame, as
    /// it does when such data blocks.
    void take_offer(CFrame* offered, bool loses) INFRA_REQUIRES(CORE_MUTEX);
    /// Stands at the beginning of a frame, and steps ahead of what is not for it any more, without a write.
    /// True if it has moved.
    bool step_ahead() INFRA_REQUIRES(CORE_MUTEX);
    /// Tells once whoever waits for it that the sender has stalled.
    void report_stall() INFRA_REQUIRES(CORE_MUTEX);

    /// Counts the rest of a half-written packet as written, and copies it. Results as
    /// CMediaStreamSender::GetTailPacket.
    int take_tail(char* buffer, int len) INFRA_REQUIRES(CORE_MUTEX);

private:
    /// What a part of a turn came to, besides its end.
    enum class Progress { OVER, MORE };

    TurnEnd finish(CSock& stream, Progress progress) INFRA_REQUIRES(CORE_MUTEX);
    Progress choose_frame(CSock& stream, CFrame* frame) INFRA_REQUIRES(CORE_MUTEX);
    Progress write_frame(CSock& stream) INFRA_REQUIRES(CORE_MUTEX);
    // Apart from what senders whose frames go out one by one, each in one write, go through.
    __attribute__((noinline)) Progress write_datagrams(CSock& stream) INFRA_REQUIRES(CORE_MUTEX);
    __attribute__((noinline)) Progress write_gathered(CSock& stream, FrameGather& gather)
        INFRA_REQUIRES(CORE_MUTEX);
    __attribute__((noinline)) bool gathers(CSock& stream, FrameGather& gather) INFRA_REQUIRES(CORE_MUTEX);
    CFrame* after_gathered(FrameGather& gather, CFrame* after) INFRA_REQUIRES(CORE_MUTEX);
    Progress note_answer(CSock& stream, int written) INFRA_REQUIRES(CORE_MUTEX);
    Progress note_failed() INFRA_REQUIRES(CORE_MUTEX);
    Progress note_nothing_written() INFRA_REQUIRES(CORE_MUTEX);
    Progress go_on_after_frames(CSock& stream) INFRA_REQUIRES(CORE_MUTEX);
    Progress finish_frame(CSock& stream) INFRA_REQUIRES(CORE_MUTEX);
    /// The usual case, nothing waits, costs no call and no lock.
    bool other_data_waits(CSock& stream) INFRA_REQUIRES(CORE_MUTEX) {
        return m_record.m_other.waits() && send_other_data(stream);
    }
    /// True if some is left.
    __attribute__((noinline)) bool send_other_data(CSock& stream) INFRA_REQUIRES(CORE_MUTEX);
    Progress over(TurnEnd end) {
        m_end = end;
        return Progress::OVER;
    }
    void tell(const char* name, const char* format, const char* where) INFRA_REQUIRES(CORE_MUTEX);
    CFrame* next_frame(CFrame* frame) INFRA_REQUIRES(CORE_MUTEX);
    // Apart from what senders that do not keep frames go through.
    __attribute__((noinline)) CFrame* next_kept(CFrame* frame) INFRA_REQUIRES(CORE_MUTEX);
    bool is_for_it(const CFrame& frame) INFRA_REQUIRES(CORE_MUTEX);
    bool passes(const CFrame& frame) INFRA_REQUIRES(CORE_MUTEX) {
        return !m_record.wishes(SenderRecord::WISH_FILTER) || passes_filter(frame);
    }
    // Apart from what senders without a filter go through.
    __attribute__((noinline)) bool passes_filter(const CFrame& frame) INFRA_REQUIRES(CORE_MUTEX);

    SenderRecord& m_record;
    TurnEnd m_end = TurnEnd::DONE;
    uint64_t m_bytes_before = 0;  ///< What it had sent before this turn.
};

}  // namespace Orvex::Reticor
