// KeptLine: a singly linked list, through the frames' second link.
#include "Tool/media/KeptLine.h"

#include "Tool/media/SenderRecord.h"

namespace Orvex::Reticor {

namespace {

/// Whether a sender of a buffer's list is in the middle of the frame.
bool is_begun(const CFrame& frame) INFRA_REQUIRES(CORE_MUTEX) {
    for (const SenderRecord* one = frame.m_standing; one != nullptr; one = one->m_standing_next) {
        if (one->m_keeps && one->m_list != nullptr && !one->at_boundary()) {
            return true;
        }
    }
    return false;
}

}  // namespace

void KeptLine::append(CFrame& frame) {
    frame.set_kept(true);
    frame.m_kept_next = nullptr;
    *m_end = &frame;
    m_end = &frame.m_kept_next;
    m_bytes += static_cast<uint64_t>(frame.m_frame_len);
}

CFrame* KeptLine::take(CFrame** link) {
    CFrame* const frame = *link;
    if (frame != nullptr) {
        *link = frame->m_kept_next;
        if (*link == nullptr) {
            m_end = link;
        }
        frame->set_kept(false);
        m_bytes -= static_cast<uint64_t>(frame->m_frame_len);
    }
    return frame;
}

CFrame* KeptLine::take_over(uint64_t now_us, const CFrame* stop) {
    for (CFrame** link = &m_head; *link != nullptr && *link != stop; link = &(*link)->m_kept_next) {
        if (m_bytes <= m_most_bytes && now_us <= (*link)->m_complete_us + m_keep_us) {
            break;
        }
        if (!is_begun(**link)) {
            return take(link);
        }
    }
    return nullptr;
}

}  // namespace Orvex::Reticor
