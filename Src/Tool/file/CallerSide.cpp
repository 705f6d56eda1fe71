// CallerSide: a file's position, and its buffers as the calls use them. Nothing here waits for the device but
// the change of buffers and the end.
#include "Tool/file/CallerSide.h"

#include <Reticor/NFile.h>

namespace Orvex::Reticor {

// ---- writing -------------------------------------------------------------------------------------------

int CallerSide::write_buffered(const char* data, unsigned len) {
    int total = 0;
    if (!hold_write_buffer()) {
        m_write_buf = nullptr;
    }
    while (len > 0) {
        if (m_write_buf == nullptr) {
            m_write_buf = m_offset <= LAST_WINDOW ? find_write_buffer() : nullptr;
            if (m_offset > LAST_WINDOW) {
                m_exchange.m_owed.tell(FILE_MSG_ERROR);
            }
        }
        if (m_write_buf == nullptr) {
            return total;
        }
        const int n = put_bytes(data, len);
        if (n == 0) {
            return total;
        }
        total += n;
        data += n;
        len -= static_cast<unsigned>(n);
    }
    if (m_write_buf != nullptr) {
        m_write_buf->UnLock();
    }
    return total;
}

/// Takes the buffer of the last Write if the position is still in it. Since then a Read may have had it
/// written out and freed, and another place of the file may be in it.
bool CallerSide::hold_write_buffer() {
    if (m_write_buf == nullptr || m_write_mark != m_offset || !m_write_buf->TryLock()) {
        return false;
    }
    if (m_write_buf->covers(m_offset) && m_offset <= m_write_buf->end()) {
        return true;
    }
    m_write_buf->UnLock();
    return false;
}

/// Copies into the write buffer, which is taken, and moves the position. A full buffer goes to the worker.
int CallerSide::put_bytes(const char* data, unsigned len) {
    FileSlot& slot = *m_write_buf;
    const bool changed = slot.m_dirty;
    if (slot.block() == nullptr) {
        if (!changed) {
            m_exchange.m_slots.Forget(slot);
        }
        slot.UnLock();
        m_write_buf = nullptr;
        m_exchange.m_owed.tell(FILE_MSG_ERROR);
        return 0;
    }
    bool full = false;
    const int n = slot.Write(data, len, full, m_offset);
    if (full) {
        m_exchange.m_slots.Submit(slot, CNFileBuf::SUBMIT_WRITE_FREE);
        m_exchange.post_write();
        m_write_buf = nullptr;
    } else if (!changed) {
        m_exchange.m_slots.Changed(slot);
    }
    m_offset += n;
    m_write_mark = m_offset;
    return n;
}

/// A taken buffer at the position, or null, and then message 6 is owed.
FileSlot* CallerSide::find_write_buffer() {
    stop_ahead();
    m_exchange.m_slots.OutdateReads(m_offset);
    bool pushed = false;
    FileSlot* found = writable_at_position(pushed);
    if (found == nullptr) {
        clean_overlap(m_buf_size + m_offset);
        found = take_unused_or_clean();
    }
    if (found == nullptr) {
        // All that is left is at the disk, or was changed and would never go there by itself.
        m_exchange.m_slots.SubmitDirty();
        m_exchange.m_owed.need_write_message();
        m_exchange.post_flush();
    } else if (pushed) {
        m_exchange.post_flush();
    }
    return found;
}

/// The buffer whose valid bytes the position continues or lies in. One whose window the position lies in
/// beyond a gap, which cannot be kept, is pushed out.
FileSlot* CallerSide::writable_at_position(bool& pushed) {
    while (FileSlot* const slot = m_exchange.m_slots.TakeAt(m_offset)) {
        if (m_offset <= slot->end()) {
            return slot;
        }
        pushed = push_out(*slot) || pushed;
    }
    return nullptr;
}

FileSlot* CallerSide::take_unused_or_clean() {
    CFileSlots& slots = m_exchange.m_slots;
    FileSlot* slot = slots.TakeUnused();
    if (slot == nullptr) {
        slot = slots.TakeClean(0);
        if (slot == nullptr) {
            return nullptr;
        }
        slots.Forget(*slot);
    }
    slots.Occupy(*slot, m_offset);
    return slot;
}

/// Gives up a taken buffer. True if it was dirty, and a write task is to be posted.
bool CallerSide::push_out(FileSlot& slot) {
    if (slot.m_dirty) {
        m_exchange.m_slots.Submit(slot, CNFileBuf::SUBMIT_WRITE_FREE);
        return true;
    }
    m_exchange.m_slots.Forget(slot);
    slot.UnLock();
    return false;
}

/// No buffer may begin inside the window that ends at `end` and is about to be used: two windows over the
/// same bytes would differ.
void CallerSide::clean_overlap(long long end) {
    while (FileSlot* const slot = m_exchange.m_slots.TakeAt(end)) {
        if (push_out(*slot)) {
            m_exchange.post_write();
        }
    }
}

// ---- reading -------------------------------------------------------------------------------------------

int CallerSide::read_buffered(char* dst, unsigned len, bool& eof) {
    int total = 0;
    bool drained = false;
    eof = false;
    if (m_read_mark != m_offset) {
        m_read_buf = nullptr;
    }
    while (len > 0) {
        if (m_offset > LAST_WINDOW) {
            eof = true;
            break;
        }
        if (m_read_buf == nullptr) {
            m_read_buf = find_read_buffer();
        }
        if (m_read_buf == nullptr) {
            break;
        }
        // A buffer that was left half read is used without a TryLock: nobody takes it as long as the position
        // has not moved.
        const int n = m_read_buf->Read(dst, len, drained, eof, m_offset);
        m_read_buf->UnLock();
        if (drained) {
            m_read_buf = nullptr;
        }
        m_offset += n;
        m_read_mark = m_offset;
        total += n;
        dst += n;
        len -= static_cast<unsigned>(n);
        if (n == 0 || eof) {
            break;
        }
    }
    return total;
}

/// A taken buffer that has the position, or null: a load was started, or there is no buffer for one. Message
/// 7 is owed then.
FileSlot* CallerSide::find_read_buffer() {
    if (FileSlot* const found = readable_at_position()) {
        m_told_at_once = false;
        if (submit_ahead(found->m_file_offset)) {
            m_exchange.post_ahead();
        }
        return found;
    }
    if (m_read_ahead && m_exchange.m_slots.HasLoad(m_offset)) {
        await_load();
        return nullptr;
    }
    clean_overlap(m_buf_size + m_offset);
    FileSlot* slot = m_exchange.m_slots.TakeUnused();
    if (slot == nullptr) {
        slot = take_victim();
    }
    if (slot != nullptr) {
        start_load(*slot);
    } else {
        stall_read();
    }
    return nullptr;
}

/// An empty window that begins at the position counts: it is the end of the file.
FileSlot* CallerSide::readable_at_position() {
    while (FileSlot* const slot = m_exchange.m_slots.TakeAt(m_offset)) {
        if (m_offset < slot->end() || m_offset == slot->m_file_offset) {
            return slot;
        }
        if (push_out(*slot)) {
            m_exchange.post_write();
        }
    }
    return nullptr;
}

FileSlot* CallerSide::take_victim() {
    FileSlot* const slot = m_exchange.m_slots.TakeClean(m_next_evict);
    if (slot != nullptr) {
        m_exchange.m_slots.Forget(*slot);
        m_next_evict = (m_next_evict + 1) % m_exchange.m_slots.count();
    }
    return slot;
}

void CallerSide::start_load(FileSlot& slot) {
    m_told_at_once = false;
    m_exchange.m_load.read_start();
    m_exchange.m_owed.need_read_message();
    m_exchange.m_slots.SubmitLoad(slot, m_offset);
    submit_ahead(m_offset);
    m_exchange.post_load();
}

/// The position is in a load that is under way: its end pays message 7. If it has ended since it was looked
/// for, the message is paid here.
void CallerSide::await_load() {
    m_told_at_once = false;
    m_exchange.m_load.read_start();
    m_exchange.m_owed.need_read_message();
    if (!m_exchange.m_slots.AwaitLoad(m_offset)) {
        m_exchange.m_load.read_end();
        m_exchange.m_owed.notify_read_message();
    }
}

/// A Read that goes on where the last one ended has come to the window that begins at `from`: those after it
/// are submitted to be loaded, in all other buffers. Not before half of them are used up, since waking a
/// worker costs more than all else in a call. True if any were.
bool CallerSide::submit_ahead(long long from) {
    if (!m_read_ahead || m_read_mark != m_offset || from > LAST_WINDOW / 2) {
        return false;
    }
    const unsigned most = m_buf_count.load() - 1;
    const long long next = from + m_buf_size;
    const long long end = next + static_cast<long long>(most) * m_buf_size;
    if (m_ahead_end < next || m_ahead_end > end) {
        m_ahead_end = next;
    }
    if ((m_ahead_end - next) / m_buf_size > most / 2) {
        return false;
    }
    bool any = false;
    AheadPlace place = AheadPlace::there;
    while (m_ahead_end < end && place != AheadPlace::none) {
        place = m_exchange.m_slots.LoadAhead(m_ahead_end, from);
        any = any || place == AheadPlace::submitted;
        m_ahead_end += place != AheadPlace::none ? m_buf_size : 0;
    }
    return any;
}

void CallerSide::stop_ahead() {
    if (m_read_ahead) {
        m_ahead_end = 0;
        m_exchange.m_slots.DropLoads(false);
    }
}

void CallerSide::set_read_ahead(bool on) {
    Infra::CGuard guard(m_api_mutex);
    stop_ahead();
    m_read_ahead = on;
}

/// Every buffer is at the disk, or dirty. The caller is told to try again: at once the first time, and with
/// the end of the next pass from then on, or the message and the call would chase each other.
void CallerSide::stall_read() {
    m_exchange.m_slots.SubmitDirty();
    if (m_told_at_once) {
        m_exchange.m_owed.need_read_message_from_pass();
        m_exchange.post_flush();
        return;
    }
    m_told_at_once = true;
    m_exchange.post_flush();
    m_exchange.m_owed.need_read_message();
    m_exchange.m_owed.notify_read_message();
}

// ---- both ----------------------------------------------------------------------------------------------

int CallerSide::Seek(long long offset, int whence) {
    Infra::CGuard guard(m_api_mutex);
    long long position = offset;
    if (m_exchange.over() || (whence == 1 && __builtin_add_overflow(m_offset, offset, &position))) {
        return -1;
    }
    if (position < 0 || position > LAST_WINDOW) {
        return -1;
    }
    m_read_buf = nullptr;
    m_write_buf = nullptr;
    m_offset = position;
    stop_ahead();
    submit_all_buffer();
    return 0;
}

void CallerSide::submit_all_buffer() {
    m_exchange.m_slots.SubmitDirty();
    m_exchange.post_flush();
}

// ---- its life ------------------------------------------------------------------------------------------

void CallerSide::replace_buffers(unsigned count) {
    m_device.cut_passes_short();
    Infra::CGuard api(m_api_mutex);
    Infra::CGuard pass(m_device.m_pass_mutex);
    m_device.allow_passes();
    if (m_exchange.over()) {
        return;
    }
    CFileSlots& slots = m_exchange.m_slots;
    if (count == 0) {
        slots.Clear();
    } else if (!slots.Allocate(count)) {
        slots.Allocate(CFileSlots::DEFAULT_COUNT);
    }
    m_buf_count.store(slots.count());
    m_buf_size = slots.count() > 0 ? CNBufPool::BLOCK_BYTES : 0;
    m_read_buf = nullptr;
    m_write_buf = nullptr;
    m_next_evict = 0;
    m_ahead_end = 0;
    m_exchange.m_turn.forget_load();
    m_exchange.m_load.read_end();
    m_exchange.m_owed.notify_read_message();
    m_exchange.m_owed.notify_write_message();
}

CallerSide::Closing CallerSide::close() {
    Infra::CGuard guard(m_api_mutex);
    if (!m_exchange.close()) {
        return Closing::nothing;
    }
    const bool buffered = m_buf_count.load() > 0;
    if (!buffered) {
        m_device.close();
    }
    if (m_orphan) {
        return Closing::reference;
    }
    if (buffered) {
        stop_ahead();
        submit_all_buffer();
    }
    return buffered ? Closing::by_task : Closing::handler;
}

bool CallerSide::detach() {
    Infra::CGuard guard(m_api_mutex);
    m_exchange.m_owed.be_silent();
    if (m_buf_count.load() > 0) {
        m_exchange.end();
    }
    m_orphan = !m_exchange.closed();
    return m_orphan;
}

bool CallerSide::end() {
    Infra::CGuard guard(m_api_mutex);
    if (m_buf_count.load() == 0 || m_device.closed()) {
        return true;
    }
    const bool written = m_device.write_out_at_end();
    m_device.close();
    return written;
}

}  // namespace Orvex::Reticor
