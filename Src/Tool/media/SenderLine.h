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
    /// Takes all off.
    void clear() INFRA_REQUIRES(CORE_MUTEX);

    void add_stats(MediaBufferStats& stats, uint64_t byte_discard) const INFRA_REQUIRES(CORE_MUTEX);

private:
    MediaCore& m_core;
    SenderRecord* m_first INFRA_GUARDED_BY(CORE_MUTEX) = nullptr;
    bool m_has_sender INFRA_GUARDED_BY(CORE_MUTEX) = false;
};

}  // namespace Orvex::Reticor
