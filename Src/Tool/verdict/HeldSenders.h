// HeldSenders: the senders of buffers, for a reader.
#pragma once

#include <vector>

#include "Tool/media/MediaBufferState.h"

namespace Orvex::Reticor {

/// Has a reference on each, so that they can be looked at one by one: the lock of a buffer is held for one of
/// them at a time. The last reference may be dropped with this, with no lock held.
class HeldSenders {
public:
    HeldSenders() = default;
    ~HeldSenders() {
        for (CMediaStreamSender* const sender : m_senders) {
            sender->DecRef();
        }
    }
    HeldSenders(const HeldSenders&) = delete;
    HeldSenders& operator=(const HeldSenders&) = delete;

    /// Those on the list of a buffer.
    void add_all(const MediaBufferState& state) INFRA_REQUIRES(CORE_MUTEX) {
        add(state.m_senders.first());
        add(state.m_senders.first_parked());
    }
    const std::vector<CMediaStreamSender*>& all() const { return m_senders; }

private:
    void add(const SenderRecord* first) INFRA_REQUIRES(CORE_MUTEX) {
        for (const SenderRecord* record = first; record != nullptr; record = record->m_next) {
            m_senders.push_back(record->m_owner);
            record->m_owner->AddRef();
        }
    }

    std::vector<CMediaStreamSender*> m_senders;
};

}  // namespace Orvex::Reticor
