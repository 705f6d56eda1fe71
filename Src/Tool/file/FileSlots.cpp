// CFileSlots: the buffers of one file, in the order in which they were submitted.
#include "Tool/file/FileSlots.h"

#include <cstdlib>
#include <new>

namespace Orvex::Reticor {

void* (*TEST_allocate_file_slots)(size_t size) = std::malloc;

char* FileSlot::block() {
    try {
        if (Malloc() == nullptr) {
            m_node = CNBufPool::NewNode();
            m_data = m_node->m_buf;
        }
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    return m_data;
}

bool CFileSlots::Allocate(unsigned count) {
    Clear();
    m_bufs = static_cast<FileSlot**>(TEST_allocate_file_slots(count * sizeof(FileSlot*)));
    m_sort_nodes = static_cast<SortNode*>(TEST_allocate_file_slots(count * sizeof(SortNode)));
    while (m_bufs != nullptr && m_sort_nodes != nullptr && m_buf_count < count) {
        auto* const slot = new (std::nothrow) FileSlot;
        if (slot == nullptr) {
            break;
        }
        m_bufs[m_buf_count++] = slot;
    }
    if (m_buf_count == count) {
        return true;
    }
    Clear();
    return false;
}

void CFileSlots::Clear() {
    while (m_buf_count > 0) {
        delete m_bufs[--m_buf_count];
    }
    std::free(m_bufs);
    std::free(m_sort_nodes);
    m_bufs = nullptr;
    m_sort_nodes = nullptr;
}

void CFileSlots::Submit(FileSlot& slot, CNFileBuf::SUBMIT_EVENT event) {
    Infra::CGuard guard(m_order_mutex);
    slot.m_stamp = ++m_last_stamp;
    slot.m_stale = false;
    slot.m_outgrown = false;
    slot.CNFileBuf::Submit(event);
}

bool CFileSlots::SubmitDirty() {
    bool any = false;
    for (unsigned i = 0; i < m_buf_count; ++i) {
        FileSlot& slot = at(i);
        if (!slot.TryLock()) {
            continue;
        }
        if (slot.m_dirty) {
            Submit(slot, CNFileBuf::SUBMIT_WRITE_FREE);
            any = true;
        } else {
            slot.UnLock();
        }
    }
    return any;
}

bool CFileSlots::submitted_to_write(FileSlot& slot) {
    const int type = slot.GetSubmitType();
    return type == CNFileBuf::SUBMIT_WRITE || type == CNFileBuf::SUBMIT_WRITE_FREE;
}

// Behind all that are lower; in front of those of the same offset.
void CFileSlots::insert(SortNode* node, SortNode** list, bool by_stamp) {
    SortNode** place = list;
    while (*place != nullptr && (by_stamp ? (*place)->m_slot->m_stamp < node->m_slot->m_stamp
                                          : (*place)->m_slot->m_file_offset < node->m_slot->m_file_offset)) {
        place = &(*place)->m_next;
    }
    node->m_next = *place;
    *place = node;
}

SortNode* CFileSlots::CollectWrites() {
    Infra::CGuard guard(m_order_mutex);
    SortNode* list = nullptr;
    unsigned used = 0;
    for (unsigned i = 0; i < m_buf_count; ++i) {
        if (submitted_to_write(at(i))) {
            SortNode* const node = new (&m_sort_nodes[used++]) SortNode;
            node->m_slot = &at(i);
            insert(node, &list, false);
        }
    }
    bool overlap = false;
    for (SortNode* node = list; node != nullptr && node->m_next != nullptr; node = node->m_next) {
        overlap = overlap || node->m_slot->end() > node->m_next->m_slot->m_file_offset;
    }
    if (overlap) {
        list = nullptr;
        for (unsigned i = 0; i < used; ++i) {
            insert(&m_sort_nodes[i], &list, true);
        }
    }
    return list;
}

void CFileSlots::OutdateReads(long long offset) {
    Infra::CGuard guard(m_order_mutex);
    for (unsigned i = 0; i < m_buf_count; ++i) {
        FileSlot& slot = at(i);
        if (slot.TryLock()) {
            if (slot.m_eof && !slot.m_dirty && slot.m_file_offset + slot.m_buf_size <= offset) {
                slot.Reset();
            }
            slot.UnLock();
        } else if (slot.GetSubmitType() == CNFileBuf::SUBMIT_READ) {
            const long long from = slot.m_file_offset;
            slot.m_stale =
                slot.m_stale || (from < offset + slot.m_buf_size && offset < from + slot.m_buf_size);
            slot.m_outgrown = slot.m_outgrown || from < offset;
        }
    }
}

void CFileSlots::EndLoad(FileSlot& slot, unsigned bytes, bool eof) {
    Infra::CGuard guard(m_order_mutex);
    if (slot.m_stale || (slot.m_outgrown && eof)) {
        slot.Reset();
        slot.Free();
    } else {
        slot.m_buf_offset = bytes;
        slot.m_eof = eof;
        slot.m_dirty = false;
    }
    slot.UnLock();
}

}  // namespace Orvex::Reticor
