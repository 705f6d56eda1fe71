// MediaSenderState, MediaStep: what a sender does when frames go away under it, and the frame of an operation
// on a buffer. The sending itself is in MediaStreamSender.cpp.
#include "Tool/media/MediaStreamSender.h"

#include <cstring>
#include <utility>

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

bool enter(MediaCore& core) INFRA_NO_THREAD_SAFETY_ANALYSIS {  // MediaStep's destructor leaves the mutex
    core.m_mutex.enter();
    if (core.m_stepping) {
        return false;
    }
    core.m_stepping = true;
    core.m_now_us = 0;
    return true;
}

}  // namespace

MediaStep::MediaStep(std::shared_ptr<MediaCore> core)
    : m_core(std::move(core)), m_outermost(enter(*m_core)) {}

// Dropping a reference can end a sender, so it is done with the mutex left.
MediaStep::~MediaStep() INFRA_NO_THREAD_SAFETY_ANALYSIS {
    std::vector<CMediaStreamSender*> gone;
    if (m_outermost) {
        apply_noted();
        gone.swap(m_core->m_gone);
        m_core->m_stepping = false;
    }
    m_core->m_mutex.leave();
    for (CMediaStreamSender* sender : gone) {
        sender->DecRef();
    }
}

// Doing one thing can run call-backs that ask for more.
void MediaStep::apply_noted() {
    MediaCore& core = *m_core;
    while (!core.m_noted.empty()) {
        std::vector<NotedChange> noted;
        noted.swap(core.m_noted);
        for (const NotedChange& change : noted) {
            if (core.m_end != nullptr) {
                core.m_end->apply(change);
            }
            core.m_gone.push_back(change.sender);
        }
    }
}

std::shared_ptr<MediaCore> MediaSenderState::core() {
    Infra::CGuard guard(m_other_mutex);
    return m_core;
}

void MediaSenderState::set_core(const std::shared_ptr<MediaCore>& core) {
    Infra::CGuard guard(m_other_mutex);
    m_core = core;
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
