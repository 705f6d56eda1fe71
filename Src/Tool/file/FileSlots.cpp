// CFileSlots: the buffers of one file, each in one place, and in the order in which they were submitted.
#include "Tool/file/FileSlots.h"

#include <algorithm>
#include <new>

namespace Orvex::Reticor {

// ---- making them ---------------------------------------------------------------------------------------

bool CFileSlots::Allocate(unsigned count) {
    Clear();
    count = std::min(count, MOST);
    try {
        if (make_room(count)) {
            return true;
        }
    } catch (const std::bad_alloc&) {
        // as make_room's false
    }
    Clear();
    return false;
}

/// All the memory that the file's buffers will take, but for their blocks.
bool CFileSlots::make_room(unsigned count) {
    Infra::CGuard guard(m_order_mutex);
    m_bufs.reset(new (std::nothrow) FileSlot[count]);
    if (m_bufs == nullptr) {
        return false;
    }
    for (SlotSet& set : m_in) {
        set.Resize(count);
    }
    m_at_end.Resize(count);
    m_windows.reserve(count);
    m_to_write.reserve(count);
    m_buf_count = count;
    for (unsigned i = 0; i < count; ++i) {
        m_bufs[i].m_index = i;
        in(SlotPlace::unused).Add(i);
    }
    return true;
}

void CFileSlots::Clear() {
    Infra::CGuard guard(m_order_mutex);
    m_buf_count = 0;
    m_windows.clear();
    m_to_write.clear();
    m_bufs.reset();
}

// ---- places --------------------------------------------------------------------------------------------

/// The first window that begins beyond `offset`.
CFileSlots::Windows::iterator CFileSlots::after(long long offset) {
    return std::upper_bound(
        m_windows.begin(), m_windows.end(), offset,
        [](long long value, const FileSlot* slot) { return value < slot->m_file_offset; });
}

/// To be called while the slot still has the offset by which it is found, or has it already.
void CFileSlots::move(FileSlot& slot, SlotPlace place) {
    in(slot.m_place).Remove(slot.m_index);
    in(place).Add(slot.m_index);
    const bool window = place == SlotPlace::clean || place == SlotPlace::dirty;
    if (window && !slot.m_in_windows) {
        m_windows.insert(after(slot.m_file_offset), &slot);
    } else if (!window && slot.m_in_windows) {
        auto found = after(slot.m_file_offset);
        do {
            --found;
        } while (*found != &slot);
        m_windows.erase(found);
    }
    slot.m_in_windows = window;
    slot.m_place = place;
    if (place == SlotPlace::clean && slot.m_eof) {
        m_at_end.Add(slot.m_index);
    } else {
        m_at_end.Remove(slot.m_index);
    }
}

void CFileSlots::reset(FileSlot& slot) {
    move(slot, SlotPlace::unused);
    slot.Reset();
}

FileSlot* CFileSlots::take_next(SlotPlace place, unsigned from) {
    const unsigned index = in(place).Next(from);
    return index != SlotSet::NONE && at(index).TryLock() ? &at(index) : nullptr;
}

// ---- the caller's side ---------------------------------------------------------------------------------

FileSlot* CFileSlots::TakeAt(long long offset) {
    Infra::CGuard guard(m_order_mutex);
    const auto beyond = after(offset);
    if (beyond == m_windows.begin()) {
        return nullptr;
    }
    FileSlot* const slot = *(beyond - 1);
    return slot->covers(offset) && slot->TryLock() ? slot : nullptr;
}

FileSlot* CFileSlots::TakeUnused() {
    Infra::CGuard guard(m_order_mutex);
    return take_next(SlotPlace::unused, 0);
}

FileSlot* CFileSlots::TakeClean(unsigned from) {
    Infra::CGuard guard(m_order_mutex);
    FileSlot* const slot = take_next(SlotPlace::clean, from);
    return slot != nullptr ? slot : take_next(SlotPlace::clean, 0);
}

void CFileSlots::Occupy(FileSlot& slot, long long offset) {
    Infra::CGuard guard(m_order_mutex);
    slot.m_file_offset = offset;
    move(slot, SlotPlace::clean);
}

void CFileSlots::Changed(FileSlot& slot) {
    Infra::CGuard guard(m_order_mutex);
    move(slot, SlotPlace::dirty);
}

void CFileSlots::Forget(FileSlot& slot) {
    Infra::CGuard guard(m_order_mutex);
    reset(slot);
}

void CFileSlots::submit(FileSlot& slot, CNFileBuf::SUBMIT_EVENT event) {
    move(slot, event == CNFileBuf::SUBMIT_READ ? SlotPlace::to_load : SlotPlace::to_write);
    slot.m_stamp = ++m_last_stamp;
    slot.m_stale = false;
    slot.m_outgrown = false;
    slot.m_begun = false;
    slot.CNFileBuf::Submit(event);
}

void CFileSlots::Submit(FileSlot& slot, CNFileBuf::SUBMIT_EVENT event) {
    Infra::CGuard guard(m_order_mutex);
    submit(slot, event);
}

void CFileSlots::SubmitLoad(FileSlot& slot, long long offset) {
    Infra::CGuard guard(m_order_mutex);
    const SlotSet& loads = in(SlotPlace::to_load);
    for (unsigned i = loads.Next(0); i != SlotSet::NONE; i = loads.Next(i + 1)) {
        if (!at(i).m_ahead || !at(i).overlaps(offset)) {
            continue;
        }
        if (at(i).m_begun) {
            at(i).m_stale = true;
        } else {
            drop_load(at(i));
        }
    }
    slot.m_file_offset = offset;
    slot.m_ahead = false;
    submit(slot, CNFileBuf::SUBMIT_READ);
}

bool CFileSlots::SubmitDirty() {
    Infra::CGuard guard(m_order_mutex);
    bool any = false;
    const SlotSet& dirty = in(SlotPlace::dirty);
    for (unsigned i = dirty.Next(0); i != SlotSet::NONE; i = dirty.Next(i + 1)) {
        if (at(i).TryLock()) {
            submit(at(i), CNFileBuf::SUBMIT_WRITE_FREE);
            any = true;
        }
    }
    return any;
}

void CFileSlots::OutdateReads(long long offset) {
    Infra::CGuard guard(m_order_mutex);
    for (unsigned i = m_at_end.Next(0); i != SlotSet::NONE; i = m_at_end.Next(i + 1)) {
        FileSlot& slot = at(i);
        if (slot.m_file_offset + slot.m_buf_size <= offset && slot.TryLock()) {
            reset(slot);
            slot.UnLock();
        }
    }
    const SlotSet& loads = in(SlotPlace::to_load);
    for (unsigned i = loads.Next(0); i != SlotSet::NONE; i = loads.Next(i + 1)) {
        FileSlot& slot = at(i);
        slot.m_stale = slot.m_stale || slot.overlaps(offset);
        slot.m_outgrown = slot.m_outgrown || slot.m_file_offset < offset;
    }
}

// ---- reading ahead -------------------------------------------------------------------------------------

/// The load that has `offset`, unless its bytes will be forgotten.
FileSlot* CFileSlots::load_at(long long offset) {
    const SlotSet& loads = in(SlotPlace::to_load);
    for (unsigned i = loads.Next(0); i != SlotSet::NONE; i = loads.Next(i + 1)) {
        if (at(i).covers(offset) && !at(i).m_stale) {
            return &at(i);
        }
    }
    return nullptr;
}

/// What is at the place already; `submitted` if nothing is.
AheadPlace CFileSlots::look_ahead(long long offset) {
    const SlotSet& loads = in(SlotPlace::to_load);
    for (unsigned i = loads.Next(0); i != SlotSet::NONE; i = loads.Next(i + 1)) {
        if (at(i).overlaps(offset)) {
            return at(i).m_file_offset == offset && !at(i).m_stale ? AheadPlace::there : AheadPlace::none;
        }
    }
    const auto beyond = after(offset + CNBufPool::BLOCK_BYTES - 1);
    if (beyond == m_windows.begin()) {
        return AheadPlace::submitted;
    }
    const FileSlot& last = **(beyond - 1);
    if (last.m_file_offset == offset) {
        return AheadPlace::there;
    }
    const bool ends_before = last.m_eof && last.m_file_offset + last.m_buf_size == offset;
    return last.overlaps(offset) || ends_before ? AheadPlace::none : AheadPlace::submitted;
}

/// A taken, empty buffer. What lies within [from, to) stays.
FileSlot* CFileSlots::take_for_ahead(long long from, long long to) {
    if (FileSlot* const unused = take_next(SlotPlace::unused, 0)) {
        return unused;
    }
    for (FileSlot* const slot : m_windows) {
        const bool keep = slot->m_file_offset >= from && slot->m_file_offset < to;
        if (!keep && slot->m_place == SlotPlace::clean && slot->TryLock()) {
            reset(*slot);
            return slot;
        }
    }
    return nullptr;
}

AheadPlace CFileSlots::LoadAhead(long long offset, long long keep_from) {
    Infra::CGuard guard(m_order_mutex);
    const AheadPlace place = look_ahead(offset);
    if (place != AheadPlace::submitted) {
        return place;
    }
    FileSlot* const slot = take_for_ahead(keep_from, offset);
    if (slot == nullptr) {
        return AheadPlace::none;
    }
    slot->m_file_offset = offset;
    slot->m_ahead = true;
    submit(*slot, CNFileBuf::SUBMIT_READ);
    return AheadPlace::submitted;
}

bool CFileSlots::HasLoad(long long offset) {
    Infra::CGuard guard(m_order_mutex);
    return load_at(offset) != nullptr;
}

bool CFileSlots::AwaitLoad(long long offset) {
    Infra::CGuard guard(m_order_mutex);
    FileSlot* const slot = load_at(offset);
    if (slot != nullptr) {
        slot->m_ahead = false;
    }
    return slot != nullptr;
}

void CFileSlots::drop_load(FileSlot& slot) {
    reset(slot);
    slot.Free();
    slot.UnLock();
}

/// Gives up what is to be read ahead from `from` on, and has not been begun.
void CFileSlots::drop_ahead(long long from) {
    const SlotSet& loads = in(SlotPlace::to_load);
    for (unsigned i = loads.Next(0); i != SlotSet::NONE; i = loads.Next(i + 1)) {
        if (at(i).m_ahead && !at(i).m_begun && at(i).m_file_offset >= from) {
            drop_load(at(i));
        }
    }
}

void CFileSlots::DropLoads(bool awaited_too) {
    Infra::CGuard guard(m_order_mutex);
    drop_ahead(0);
    const SlotSet& loads = in(SlotPlace::to_load);
    for (unsigned i = loads.Next(0); awaited_too && i != SlotSet::NONE; i = loads.Next(i + 1)) {
        if (!at(i).m_begun) {
            drop_load(at(i));
        }
    }
}

// ---- the pass ------------------------------------------------------------------------------------------

const std::vector<FileSlot*>& CFileSlots::CollectWrites() {
    Infra::CGuard guard(m_order_mutex);
    m_collected = m_last_stamp;
    m_to_write.clear();
    const SlotSet& writes = in(SlotPlace::to_write);
    for (unsigned i = writes.Next(0); i != SlotSet::NONE; i = writes.Next(i + 1)) {
        m_to_write.push_back(&at(i));
    }
    std::sort(m_to_write.begin(), m_to_write.end(), [](const FileSlot* one, const FileSlot* other) {
        return one->m_file_offset < other->m_file_offset;
    });
    const auto overlap = std::adjacent_find(
        m_to_write.begin(), m_to_write.end(),
        [](const FileSlot* one, const FileSlot* next) { return one->end() > next->m_file_offset; });
    if (overlap != m_to_write.end()) {
        std::sort(m_to_write.begin(), m_to_write.end(),
                  [](const FileSlot* one, const FileSlot* other) { return one->m_stamp < other->m_stamp; });
    }
    return m_to_write;
}

bool CFileSlots::HasWrites() {
    Infra::CGuard guard(m_order_mutex);
    return in(SlotPlace::to_write).Next(0) != SlotSet::NONE;
}

FileSlot* CFileSlots::BeginLoad() {
    Infra::CGuard guard(m_order_mutex);
    FileSlot* oldest = nullptr;
    const SlotSet& loads = in(SlotPlace::to_load);
    for (unsigned i = loads.Next(0); i != SlotSet::NONE; i = loads.Next(i + 1)) {
        FileSlot& slot = at(i);
        if (!slot.m_begun && slot.m_stamp <= m_collected &&
            (oldest == nullptr || slot.m_stamp < oldest->m_stamp)) {
            oldest = &slot;
        }
    }
    if (oldest != nullptr) {
        oldest->m_begun = true;
    }
    return oldest;
}

void CFileSlots::EndWrite(FileSlot& slot) {
    Infra::CGuard guard(m_order_mutex);
    slot.m_written = 0;
    if (slot.GetSubmitType() == CNFileBuf::SUBMIT_WRITE_FREE) {
        reset(slot);
        slot.Free();
    } else {
        slot.m_dirty = false;
        move(slot, SlotPlace::clean);
    }
    slot.UnLock();
}

bool CFileSlots::EndLoad(FileSlot& slot, unsigned bytes, bool eof) {
    Infra::CGuard guard(m_order_mutex);
    const bool awaited = !slot.m_ahead;
    if (slot.m_stale || (slot.m_outgrown && eof)) {
        reset(slot);
        slot.Free();
    } else {
        slot.m_buf_offset = bytes;
        slot.m_eof = eof;
        slot.m_dirty = false;
        move(slot, SlotPlace::clean);
        if (eof) {
            drop_ahead(slot.m_file_offset);
        }
    }
    slot.UnLock();
    return awaited;
}

bool CFileSlots::FailAhead(FileSlot& slot) {
    Infra::CGuard guard(m_order_mutex);
    drop_ahead(0);
    if (!slot.m_ahead) {
        return false;
    }
    drop_load(slot);
    return true;
}

}  // namespace Orvex::Reticor
