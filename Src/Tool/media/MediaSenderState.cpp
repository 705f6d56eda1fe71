// MediaSenderState: how a sender comes to a buffer, and what it does when frames go away under it.
#include <cassert>
#include <cstring>
#include <utility>

#include "Tool/media/MediaStreamSender.h"

namespace Orvex::Reticor {

namespace {

/// A copy of the bytes of one packet, for a sender whose frame was let go while it was half-written.
class CRestPacket : public CMediaPacket {
public:
    explicit CRestPacket(const iovec& bytes) : m_bytes(new char[bytes.iov_len]) {
        if (bytes.iov_len != 0) {
            std::memcpy(m_bytes.get(), bytes.iov_base, bytes.iov_len);
        }
    }
    int Release() override {
        delete this;
        return 0;
    }
    char* GetBuffer() override { return m_bytes.get(); }

private:
    const std::unique_ptr<char[]> m_bytes;
};

}  // namespace

std::shared_ptr<MediaCore> MediaSenderState::core() {
    Infra::CGuard guard(m_other_mutex);
    return m_core;
}

std::shared_ptr<MediaCore> MediaSenderState::enter_core() INFRA_NO_THREAD_SAFETY_ANALYSIS {  // for the caller
    for (;;) {
        std::shared_ptr<MediaCore> mine = core();
        if (!mine) {
            return mine;
        }
        mine->m_mutex.enter();
        if (core() == mine) {
            return mine;
        }
        mine->m_mutex.leave();  // It has moved meanwhile.
    }
}

bool MediaSenderState::change_core(const std::shared_ptr<MediaCore>& before,
                                   const std::shared_ptr<MediaCore>& after) {
    Infra::CGuard guard(m_other_mutex);
    if (m_core != before) {
        return false;
    }
    m_core = after;
    return true;
}

void MediaSenderState::move_to(const std::shared_ptr<MediaCore>& core)
    INFRA_NO_THREAD_SAFETY_ANALYSIS {  // enters by enter_core
    const MediaSenderState& state = *this;
    for (bool moved = false; !moved;) {
        const std::shared_ptr<MediaCore> before = enter_core();
        if (!before) {
            moved = change_core(nullptr, core);
            continue;
        }
        if (before != core) {
            assert(state.m_list == nullptr && "a sender can be on the list of one buffer only");
            if (m_frame != nullptr && m_frame != m_tail) {
                rescue_frame();
            }
            forget_order();
            change_core(before, core);
        }
        before->m_mutex.leave();
        moved = true;
    }
}

// Coming.

bool MediaSenderState::Coming::note(const std::shared_ptr<MediaCore>& core) {
    Infra::CGuard guard(m_mutex);
    if (m_target == core) {
        return false;
    }
    m_target = core;
    if (!std::exchange(m_waits, true)) {
        m_state.m_owner.AddRef();
        TargetStepMark::await(*this);
    }
    return true;
}

bool MediaSenderState::Coming::take_back(const MediaCore& core) {
    std::shared_ptr<MediaCore> target;  // Outlives the lock.
    Infra::CGuard guard(m_mutex);
    if (m_target.get() != &core) {
        return false;
    }
    target.swap(m_target);
    return true;
}

// The note stands until the sender is on the list, so that whoever takes it off meanwhile finds it in one
// place.
void MediaSenderState::Coming::come() {
    for (;;) {
        std::shared_ptr<MediaCore> target;
        {
            Infra::CGuard guard(m_mutex);
            target = m_target;
            if (!target) {
                m_waits = false;
                break;
            }
        }
        m_state.move_to(target);
        const CoreGuard guard(*target);
        if (m_state.core() == target && take_back(*target) && target->m_end != nullptr) {
            target->m_end->come(m_state.m_owner);
        }
    }
    m_state.m_owner.DecRef();
}

void MediaSenderState::relink() {
    if (m_linked != nullptr) {
        *m_standing_link = m_standing_next;
        if (m_standing_next != nullptr) {
            m_standing_next->m_standing_link = m_standing_link;
        }
    }
    m_linked = m_frame;
    if (m_linked != nullptr) {
        m_standing_link = &m_linked->m_standing;
        m_standing_next = m_linked->m_standing;
        if (m_standing_next != nullptr) {
            m_standing_next->m_standing_link = &m_standing_next;
        }
        m_linked->m_standing = this;
    }
}

void MediaSenderState::drop_tail() {
    delete std::exchange(m_tail, nullptr);
}

void MediaSenderState::take_frame(CFrame* frame) {
    ++frame->m_sender_count;
    m_counted = true;
    m_frame = frame;
    m_iovec_index = 0;
    m_iovec_offset = 0;
    m_frame_left = static_cast<uint64_t>(frame->m_frame_len);
}

void MediaSenderState::uncount() {
    if (m_counted && has_policy()) {
        --m_frame->m_sender_count;
        m_counted = false;
    }
}

void MediaSenderState::leave_frame() {
    uncount();
    m_counted = false;
    m_frame = nullptr;
    m_iovec_index = 0;
    m_iovec_offset = 0;
    m_frame_left = 0;
    settle();
}

// A sender that failed has a connection that is over: of its frame at most the packet that is half on the
// wire is of use to anybody.
void MediaSenderState::rescue_frame() {
    const auto index = static_cast<uint32_t>(m_iovec_index);
    if (at_boundary() || (m_failed && m_iovec_offset == 0)) {
        leave_frame();
    } else {
        keep_rest(m_failed ? index + 1 : m_frame->m_packet_num);
    }
}

/// Puts a private frame in the place of m_frame. It holds copies of the packets from the cursor up to `end`,
/// the first one whole so that the cursor's offset stays, and an empty one before it if the cursor is between
/// two packets, since it must not look like the beginning of a frame.
void MediaSenderState::keep_rest(uint32_t end) {
    uncount();
    m_counted = false;
    CFrame* const rest = new CFrame;
    auto index = static_cast<uint32_t>(m_iovec_index);
    m_iovec_index = 0;
    if (m_iovec_offset == 0) {
        rest->Put(new CRestPacket(iovec{nullptr, 0}), 0, MEDIA_MARK_MORE, m_frame->m_level);
        m_iovec_index = 1;
    }
    uint64_t left = 0;
    for (; index < end; ++index) {
        const iovec& entry = m_frame->m_iovec[index];
        rest->Put(new CRestPacket(entry), static_cast<int>(entry.iov_len), m_frame->m_mark, m_frame->m_level);
        left += entry.iov_len;
    }
    m_frame_left = left - static_cast<uint64_t>(m_iovec_offset);
    rest->m_frame_len = m_frame->m_frame_len;  // what the send procedure is told
    rest->m_info_arg = m_frame->m_info_arg;
    m_tail = rest;
    m_frame = rest;
    settle();
}

void MediaSenderState::forget_order() {
    for (Course& course : m_course) {
        course = Course();
    }
}

}  // namespace Orvex::Reticor
