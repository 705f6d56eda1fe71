// CNFile: its buffers as the caller's side uses them. Nothing here waits for the device.
#include <algorithm>

#include "Tool/file/NFileState.h"
#include "Tool/task/FileTask.h"

namespace Orvex::Reticor {

// ---- writing -------------------------------------------------------------------------------------------

int CNFile::State::write_buffered(const char* data, unsigned len) {
    int total = 0;
    if (!hold_write_buffer()) {
        m_write_buf = nullptr;
    }
    while (len > 0) {
        if (m_write_buf == nullptr) {
            m_write_buf = m_offset <= LAST_WINDOW ? find_write_buffer() : nullptr;
            if (m_offset > LAST_WINDOW) {
                tell(FILE_MSG_ERROR);
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

/// Locks the buffer of the last Write if the position is still in it. Since then a Read may have had it
/// written out and freed, and another place of the file may be in it.
bool CNFile::State::hold_write_buffer() {
    if (m_write_buf == nullptr || m_write_mark != m_offset || !m_write_buf->TryLock()) {
        return false;
    }
    if (m_write_buf->covers(m_offset) && m_offset <= m_write_buf->end()) {
        return true;
    }
    m_write_buf->UnLock();
    return false;
}

/// Copies into the write buffer, which is held, and moves the position. A full buffer goes to the worker.
int CNFile::State::put_bytes(const char* data, unsigned len) {
    FileSlot& slot = *m_write_buf;
    if (slot.block() == nullptr) {
        if (!slot.m_dirty) {
            slot.Reset();
        }
        slot.UnLock();
        m_write_buf = nullptr;
        tell(FILE_MSG_ERROR);
        return 0;
    }
    bool full = false;
    const int n = slot.Write(data, len, full, m_offset);
    if (full) {
        m_slots.Submit(slot, CNFileBuf::SUBMIT_WRITE_FREE);
        post_write();
        m_write_buf = nullptr;
    }
    m_offset += n;
    m_write_mark = m_offset;
    return n;
}

/// A held buffer at the position, or null, and then message 6 is owed.
FileSlot* CNFile::State::find_write_buffer() {
    m_slots.OutdateReads(m_offset);
    bool pushed = false;
    FileSlot* found = writable_at_position(pushed);
    if (found == nullptr) {
        clean_overlap(m_buf_size + m_offset);
        found = take_unused_or_clean();
    }
    if (found == nullptr) {
        // All that is left is at the disk, or was changed and would never go there by itself.
        m_slots.SubmitDirty();
        need_write_message();
        post_flush();
    } else if (pushed) {
        post_flush();
    }
    return found;
}

/// The buffer whose valid bytes the position continues or lies in. One whose window the position lies in
/// behind a gap, which cannot be kept, is pushed out.
FileSlot* CNFile::State::writable_at_position(bool& pushed) {
    for (unsigned i = 0; i < m_slots.count(); ++i) {
        FileSlot& slot = m_slots.at(i);
        if (!slot.TryLock()) {
            continue;
        }
        if (!slot.covers(m_offset)) {
            slot.UnLock();
        } else if (m_offset <= slot.end()) {
            return &slot;
        } else {
            pushed = push_out(slot) || pushed;
        }
    }
    return nullptr;
}

FileSlot* CNFile::State::take_unused_or_clean() {
    FileSlot* slot = take_unused();
    for (unsigned i = 0; slot == nullptr && i < m_slots.count(); ++i) {
        if (!m_slots.at(i).TryLock()) {
            continue;
        }
        if (m_slots.at(i).m_dirty) {
            m_slots.at(i).UnLock();
        } else {
            slot = &m_slots.at(i);
            slot->Reset();
        }
    }
    if (slot != nullptr) {
        slot->m_file_offset = m_offset;
    }
    return slot;
}

FileSlot* CNFile::State::take_unused() {
    for (unsigned i = 0; i < m_slots.count(); ++i) {
        FileSlot& slot = m_slots.at(i);
        if (!slot.TryLock()) {
            continue;
        }
        if (slot.m_file_offset == -1) {
            return &slot;
        }
        slot.UnLock();
    }
    return nullptr;
}

/// Gives up a held buffer. True if it was dirty, and a write task is to be posted.
bool CNFile::State::push_out(FileSlot& slot) {
    if (slot.m_dirty) {
        m_slots.Submit(slot, CNFileBuf::SUBMIT_WRITE_FREE);
        return true;
    }
    slot.Reset();
    slot.UnLock();
    return false;
}

/// No free buffer may begin inside the window that ends at `end` and is about to be used: two windows over
/// the same bytes would differ.
void CNFile::State::clean_overlap(long long end) {
    for (unsigned i = 0; i < m_slots.count(); ++i) {
        FileSlot& slot = m_slots.at(i);
        if (!slot.TryLock()) {
            continue;
        }
        if (!slot.covers(end)) {
            slot.UnLock();
        } else if (push_out(slot)) {
            post_write();
        }
    }
}

// ---- reading -------------------------------------------------------------------------------------------

int CNFile::State::read_buffered(char* dst, unsigned len, bool& eof) {
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

/// A held buffer that has the position, or null: a load was started, or there is no buffer for one. Message 7
/// is owed then.
FileSlot* CNFile::State::find_read_buffer() {
    if (FileSlot* const found = readable_at_position()) {
        m_told_at_once = false;
        return found;
    }
    clean_overlap(m_buf_size + m_offset);
    FileSlot* slot = take_unused();
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
FileSlot* CNFile::State::readable_at_position() {
    for (unsigned i = 0; i < m_slots.count(); ++i) {
        FileSlot& slot = m_slots.at(i);
        if (!slot.TryLock()) {
            continue;
        }
        if (!slot.covers(m_offset)) {
            slot.UnLock();
        } else if (m_offset < slot.end() || m_offset == slot.m_file_offset) {
            return &slot;
        } else if (push_out(slot)) {
            post_write();
        }
    }
    return nullptr;
}

FileSlot* CNFile::State::take_victim() {
    const unsigned count = m_slots.count();
    const unsigned first = m_next_evict;
    for (unsigned i = 0; i < count; ++i) {
        FileSlot& slot = m_slots.at((first + i) % count);
        if (!slot.TryLock()) {
            continue;
        }
        if (!slot.m_dirty) {
            slot.Reset();
            m_next_evict = (first + 1) % count;
            return &slot;
        }
        slot.UnLock();
    }
    return nullptr;
}

void CNFile::State::start_load(FileSlot& slot) {
    m_told_at_once = false;
    read_start();
    need_read_message();
    slot.m_file_offset = m_offset;
    m_slots.Submit(slot, CNFileBuf::SUBMIT_READ);
    PostFileTask(&m_file, FILE_TASK_READ, 0);
}

/// Every buffer is at the disk, or dirty. The caller is told to try again: at once the first time, and with
/// the end of the next pass from then on, or the message and the call would chase each other.
void CNFile::State::stall_read() {
    m_slots.SubmitDirty();
    if (m_told_at_once) {
        need_read_message_from_pass();
        post_flush();
        return;
    }
    m_told_at_once = true;
    post_flush();
    need_read_message();
    notify_read_message();
}

// ---- both ----------------------------------------------------------------------------------------------

int CNFile::State::seek_buffered(long long offset, int whence) {
    long long position = offset;
    if (whence == 1 && __builtin_add_overflow(m_offset, offset, &position)) {
        return -1;
    }
    if (position < 0 || position > LAST_WINDOW) {
        return -1;
    }
    m_read_buf = nullptr;
    m_write_buf = nullptr;
    m_offset = position;
    submit_all_buffer();
    return 0;
}

void CNFile::State::submit_all_buffer() {
    m_slots.SubmitDirty();
    post_flush();
}

/// A running pass does it; waking a worker for a task that it would refuse is the dearest part of a call.
void CNFile::State::post_write() {
    {
        Infra::CGuard guard(m_write_mutex);
        if (m_writing) {
            m_again = true;
            return;
        }
    }
    PostFileTask(&m_file, FILE_TASK_WRITE, 0);
}

/// A write task that is tried until it succeeds, and pays message 6; or a running pass that does the same.
void CNFile::State::post_flush() {
    {
        Infra::CGuard guard(m_write_mutex);
        if (m_flush_tasks > 0) {
            return;
        }
        if (m_writing) {
            m_flush_wanted = true;
            return;
        }
        ++m_flush_tasks;
    }
    PostFileTask(&m_file, FILE_TASK_WRITE, 1);
}

}  // namespace Orvex::Reticor
