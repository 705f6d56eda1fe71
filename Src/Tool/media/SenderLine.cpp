// SenderLine: a singly linked list.
#include "Tool/media/SenderLine.h"

#include <algorithm>
#include <utility>

namespace Orvex::Reticor {

bool SenderLine::holds(const SenderRecord& record) const {
    if (record.m_room.m_parked) {
        return record.m_list == &m_core;
    }
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
    if (record.m_room.m_parked) {
        if (record.m_list != &m_core) {
            return;
        }
        unlink_parked(record);
    } else if (m_first == &record) {
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

void SenderLine::park(SenderRecord* before, SenderRecord& record) {
    if (before == nullptr) {
        m_first = record.m_next;
    } else {
        before->set_next(record.m_next);
    }
    RoomWait& room = record.m_room;
    record.set_next(m_first_parked);
    if (m_first_parked != nullptr) {
        m_first_parked->m_room.m_parked_link = &record.m_next;
    }
    room.m_parked_link = &m_first_parked;
    m_first_parked = &record;
    room.m_parked = true;
    room.m_counted_plain = !record.has_policy();
    m_plain_parked += room.m_counted_plain ? 1 : 0;
}

void SenderLine::unlink_parked(SenderRecord& record) {
    RoomWait& room = record.m_room;
    *room.m_parked_link = record.m_next;
    if (record.m_next != nullptr) {
        record.m_next->m_room.m_parked_link = room.m_parked_link;
    }
    room.m_parked = false;
    m_plain_parked -= room.m_counted_plain ? 1 : 0;
}

void SenderLine::unpark(SenderRecord& record) {
    unlink_parked(record);
    record.set_next(m_first);
    m_first = &record;
}

bool SenderLine::ran_empty() {
    if (any() != nullptr || !m_has_sender) {
        return false;
    }
    m_has_sender = false;
    return true;
}

void SenderLine::clear() {
    while (SenderRecord* const record = any()) {
        if (record->m_room.m_parked) {
            unlink_parked(*record);
        } else {
            m_first = record->m_next;
        }
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
    for (const SenderRecord* record = m_first_parked; record != nullptr; record = record->m_next) {
        ++stats.senders;
    }
    stats.debt_bytes = byte_discard - slowest;
}

}  // namespace Orvex::Reticor
