// Lane: from the inbox to the buffer.
#include "Tool/lane/Lane.h"

#include <Reticor/MediaStreamSender.h>

#include <new>
#include <utility>

#include "Core/service/Message.h"
#include "Tool/media/MediaBufferState.h"

namespace Orvex::Reticor {

namespace {

/// A sender that leaves a lane once the thread is out of all call-backs.
class LeavingSender final : public StepGuest_IF {
public:
    LeavingSender(std::shared_ptr<Lane> lane, CMediaStreamSender& sender)
        : m_lane(std::move(lane)), m_sender(sender), m_notes(MediaBufferState::notes_of(sender)) {
        m_sender.AddRef();
    }
    LeavingSender(const LeavingSender&) = delete;
    LeavingSender& operator=(const LeavingSender&) = delete;

    void come() override {
        {
            // What was noted after this, as that it comes again, still stands. That can be done already: a
            // sender keeps the place among the guests that its first note has got.
            const MediaStep step(m_lane->state().m_core);
            m_lane->state().go_unless_new(m_sender, m_notes);
        }
        m_sender.DecRef();
        delete this;
    }

private:
    ~LeavingSender() = default;

    const std::shared_ptr<Lane> m_lane;
    CMediaStreamSender& m_sender;
    const uint64_t m_notes;  ///< There were, by then, that it comes.
};

/// Gives the turn back in the end.
class Turn {
public:
    explicit Turn(Infra::CSemaphore& turn) : m_turn(turn) { m_turn.pend(); }
    ~Turn() { m_turn.post(); }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

private:
    Infra::CSemaphore& m_turn;
};

}  // namespace

bool Lane::find_state() {
    m_state = MediaBufferState::find(m_buffer);
    return m_state != nullptr;
}

// What was posted and is dropped rings no more; the next frame tries again where it was not posted.
void Lane::ring() {
    const long handler = m_handler.load(std::memory_order_relaxed);
    if (handler != 0 && m_inbox.ring() && !CMessage::Notify(handler, handler, 0, 0, false)) {
        m_inbox.ring_failed();
    }
}

void Lane::put(LanePacket& frame) {
    while (LanePacket* const lost = m_inbox.put(frame)) {
        const bool same = lost == &frame;
        lost->release_frame();
        if (same) {
            break;
        }
    }
    ring();
}

void Lane::put_lost(int level_word, uint64_t bytes) {
    m_inbox.put_lost(level_word, bytes);
    ring();
}

void Lane::put_tick() {
    m_inbox.put_tick();
    ring();
}

bool Lane::serve(uint32_t most) {
    const Turn turn(m_turn);
    LaneInbox::Taken taken;
    for (uint32_t i = 0; i < most; ++i) {
        if (!m_inbox.take(taken)) {
            return false;
        }
        hand_over(taken);
    }
    return true;
}

void Lane::hand_over(const LaneInbox::Taken& taken) {
    if (taken.any_sums) {
        for (size_t channel = 0; channel < LaneInbox::CHANNELS; ++channel) {
            const LaneInbox::Sum& sum = taken.sums[channel];
            lose(mediaLevel(static_cast<int>(channel), sum.level), sum.bytes, sum.frames);
        }
    }
    send(taken.ticks);
    if (!taken.has_entry) {
        return;
    }
    const LaneInbox::Entry& entry = taken.entry;
    if (entry.frame != nullptr) {
        hand_over(*entry.frame, entry.level_word, entry.bytes);
    } else {
        lose(entry.level_word, entry.bytes, 1);
    }
    send(entry.ticks);
}

// Memory for the whole frame is taken first, so that it is put whole or not at all. A packet that was put can
// have been let go: the links are read before.
void Lane::hand_over(LanePacket& frame, int level_word, uint64_t bytes) {
    LanePacket* const info = frame.info();
    {
        const MediaStep step(m_state->m_core);
        if (!m_state->m_frames.make_room_for(frame.packets())) {
            m_state->lose(level_word, bytes);
            m_failures.fetch_add(1, std::memory_order_relaxed);
            frame.release_frame();
            return;
        }
        if (info != nullptr) {
            m_state->m_frames.put_info(info, frame.info_arg(), info->packet());
        }
        m_state->m_frames.set_complete_us(frame.complete_us());
    }
    for (LanePacket* packet = &frame; packet != nullptr;) {
        LanePacket* const next = packet->next();
        m_buffer.Put(packet, packet->len(), packet->mark(), packet->level());
        packet = next;
    }
}

void Lane::lose(int level_word, uint64_t bytes, uint64_t frames) {
    if (frames == 0) {
        return;
    }
    const MediaStep step(m_state->m_core);
    for (uint64_t i = 0; i < frames; ++i) {
        m_state->lose(level_word, bytes / frames + (i == 0 ? bytes % frames : 0));
    }
}

void Lane::send(uint32_t ticks) {
    for (uint32_t i = 0; i < ticks; ++i) {
        m_buffer.do_send();
    }
}

void Lane::clear() {
    const Turn turn(m_turn);
    while (LanePacket* const frame = m_inbox.empty()) {
        frame->release_frame();
    }
    m_buffer.Clear();
}

Lane::Left Lane::leave(const std::shared_ptr<Lane>& lane, CMediaStreamSender& sender) {
    if (!TargetStepMark::inside() || lane->m_state->m_core->steps_on_this_thread()) {
        lane->m_buffer.DelSender(&sender);
        return Left::NOW;
    }
    auto* const guest = new (std::nothrow) LeavingSender(lane, sender);
    if (guest == nullptr) {
        return Left::NO_MEMORY;
    }
    TargetStepMark::await(*guest);
    return Left::LATER;
}

}  // namespace Orvex::Reticor
