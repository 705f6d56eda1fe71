// SenderNotices: messages in the sender's name.
#include "Tool/step/SenderNotices.h"

#include <algorithm>

#include "Core/service/Message.h"

namespace Orvex::Reticor {

namespace {

long pack_skip(uint64_t frames, uint64_t bytes, bool thinned) {
    static_assert(sizeof(long) == 8, "an attachment holds both numbers");
    constexpr uint64_t FRAMES_LIMIT = (1ULL << 23) - 1;
    constexpr uint64_t BYTES_LIMIT = (1ULL << 40) - 1;
    constexpr uint64_t THINNED = 1ULL << 63;
    return static_cast<long>((thinned ? THINNED : 0) | std::min(frames, FRAMES_LIMIT) << 40 |
                             std::min(bytes, BYTES_LIMIT));
}

}  // namespace

void SenderNotices::tell_skip(uint64_t frames, uint64_t bytes, bool thinned) {
    if (const long id = Infra::relaxedLoad(m_skip_id)) {
        tell(id, Infra::relaxedLoad(m_skip_msg), pack_skip(frames, bytes, thinned));
    }
}

void SenderNotices::tell(long id, unsigned msg, long attach) {
    CMessage::Tell(m_sender.GetID(), id, msg, attach);
}

}  // namespace Orvex::Reticor
