// FrameRing: the newest frames; see the header.
#include "FrameRing.h"

#include "common/Usage.h"

namespace Bench {

Frame* FrameRing::take() {
    if (m_free.empty()) {
        m_frames.push_back(std::make_unique<Frame>());
        m_frames.back()->ring = this;
        return m_frames.back().get();
    }
    Frame* frame = m_free.back();
    m_free.pop_back();
    return frame;
}

Frame& FrameRing::make() {
    Frame*& slot = m_slots[m_end % m_slots.size()];
    if (slot != nullptr) {
        drop(*slot);
    }
    slot = take();
    Frame& frame = *slot;
    frame.holders = 1;
    frame.sequence = m_end++;
    frame.key = frame.sequence % m_options.gop == 0;
    frame.payload = m_table.window(frame.sequence);
    FrameHeader header;
    header.length = static_cast<std::uint32_t>(m_options.frameBytes);
    header.sequence = frame.sequence;
    header.sentNs = nowNs();
    header.level = static_cast<std::uint8_t>(frame.key ? kKeyLevel : kOtherLevel);
    header.write(frame.header);
    return frame;
}

void FrameRing::drop(Frame& frame) {
    if (--frame.holders == 0) {
        m_free.push_back(&frame);
    }
}

}  // namespace Bench
