// SenderLine: the senders of a buffer, the newest first.
#pragma once

#include <memory>

#include <Reticor/MediaBuffer.h>

#include "Tool/media/SenderRecord.h"

namespace Orvex::Reticor {

/// Links the records of senders. The list holds a reference on each; it is dropped at the end of the
/// operation that takes the sender off.
class SenderLine {
public:
    explicit SenderLine(MediaCore& core) : m_core(core) {}
    SenderLine(const SenderLine&) = delete;
    SenderLine& operator=(const SenderLine&) = delete;

    SenderRecord* first() const INFRA_REQUIRES(CORE_MUTEX) { return m_first; }
    /// From the first sender that comes until the last one is taken off. Not the same as a list that is not
    /// empty: clear() leaves it.
    bool has_sender() const INFRA_REQUIRES(CORE_MUTEX) { return m_has_sender; }
    bool holds(const SenderRecord& record) const INFRA_REQUIRES(CORE_MUTEX);

    /// The record must be on no list.
    /// `reference` is the list's, for the time when it is dropped.
    void add(SenderRecord& record, std::unique_ptr<GoneSender> reference) INFRA_REQUIRES(CORE_MUTEX);
    /// One that is not on the list is ignored.
    void remove(SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX);
    /// True once, when the last sender was taken off.
    bool ran_empty() INFRA_REQUIRES(CORE_MUTEX);
    // Senders that wait for room, and stand at a frame, have no turns: they are apart from the others, in the
    // order in which nobody looks.

    SenderRecord* first_parked() const INFRA_REQUIRES(CORE_MUTEX) { return m_first_parked; }
    /// Any sender; null if there is none.
    SenderRecord* any() const INFRA_REQUIRES(CORE_MUTEX) {
        return m_first != nullptr ? m_first : m_first_parked;
    }
    /// Whether one was parked without a resume policy.
    bool has_plain_parked() const INFRA_REQUIRES(CORE_MUTEX) { return m_plain_parked != 0; }
    /// `before` is the one before it, null for the first one.
    void park(SenderRecord* before, SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX);
    /// Back to the others, ahead of them.
    void unpark(SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX);

    /// Takes all off.
    void clear() INFRA_REQUIRES(CORE_MUTEX);

    void add_stats(MediaBufferStats& stats, uint64_t byte_discard) const INFRA_REQUIRES(CORE_MUTEX);

private:
    void unlink_parked(SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX);

    MediaCore& m_core;
    SenderRecord* m_first INFRA_GUARDED_BY(CORE_MUTEX) = nullptr;
    SenderRecord* m_first_parked INFRA_GUARDED_BY(CORE_MUTEX) = nullptr;
    uint32_t m_plain_parked INFRA_GUARDED_BY(CORE_MUTEX) = 0;
    bool m_has_sender INFRA_GUARDED_BY(CORE_MUTEX) = false;
};

}  // namespace Orvex::Reticor
