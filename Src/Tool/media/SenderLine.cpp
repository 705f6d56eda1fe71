// SenderLine: a singly linked list.
#include "Tool/media/SenderLine.h"

#include <algorithm>
#include <utility>

namespace Orvex::Reticor {

bool SenderLine::holds(const SenderRecord& record) const {
    const SenderRecord* entry = m_first;
    while (entry != nullptr && entry != &record) {
        entry = entry->m_next;
    }
    return entry != nullptr;
}

void SenderLine::add(SenderRecord& record, std::unique_ptr<GoneSender> reference) {
    record.come_to_list(m_core, m_first, std::move(reference));
    m_first = &record;
    m_has_sender = true;
}

void SenderLine::remove(SenderRecord& record) {
    if (m_first == &record) {
        m_first = record.m_next;
    } else {
        SenderRecord* before = m_first;
        while (before != nullptr && before->m_next != &record) {
            before = before->m_next;
        }
        if (before == nullptr) {
            return;
        }
        before->set_next(record.m_next);
    }
    record.leave_list();
}

bool SenderLine::ran_empty() {
    if (m_first != nullptr || !m_has_sender) {
        return false;
    }
    m_has_sender = false;
    return true;
}

void SenderLine::clear() {
    while (SenderRecord* const record = m_first) {
        m_first = record->m_next;
        record->leave_list();
    }
}

void SenderLine::add_stats(MediaBufferStats& stats, uint64_t byte_discard) const {
    uint64_t slowest = byte_discard;
    for (const SenderRecord* record = m_first; record != nullptr; record = record->m_next) {
        ++stats.senders;
        if (record->m_joined) {
            slowest = std::min(slowest, record->m_send_total);
        }
    }
    stats.debt_bytes = byte_discard - slowest;
}

}  // namespace Orvex::Reticor
