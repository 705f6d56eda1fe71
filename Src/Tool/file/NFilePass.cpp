// CNFile: the passes, the worker's side. This is the one place where bytes go between buffers and the device.
#include "Tool/file/NFileState.h"
#include "Tool/task/FileTask.h"

namespace Orvex::Reticor {

namespace {

/// A pass that is asked to go on and on gives the others of the queue a turn after so many rounds.
constexpr int MOST_ROUNDS = 16;

}  // namespace

// ---- one pass at a time --------------------------------------------------------------------------------

/// False while another pass runs. That pass looks once more if the caller of the task will not come again.
bool CNFile::State::begin_write_pass(long long arg, bool& counted) {
    Infra::CGuard guard(m_write_mutex);
    if (m_writing) {
        m_again = m_again || arg != 1;
        return false;
    }
    m_writing = true;
    m_again = false;
    counted = arg == 1 && m_flush_tasks > 0;
    m_flush_tasks -= counted ? 1 : 0;
    return true;
}

/// False while another pass runs, which loads before it ends.
bool CNFile::State::begin_read_pass() {
    Infra::CGuard guard(m_write_mutex);
    m_load_wanted = true;
    if (m_writing) {
        return false;
    }
    m_writing = true;
    m_again = false;
    return true;
}

int CNFile::State::write_pass(long long arg) {
    bool counted = false;
    if (!begin_write_pass(arg, counted)) {
        return 0;
    }
    Infra::CGuard pass(m_pass_mutex);
    const Outcome outcome = write_out();
    if (outcome == Outcome::done) {
        if (arg == 1) {
            notify_write_message();
        }
        notify_stalled_read();
        serve_rounds();
        return 1;
    }
    if (outcome == Outcome::failed) {
        NoteTaskFailed();
        Infra::CGuard guard(m_write_mutex);
        m_flush_tasks += counted ? 1 : 0;
    }
    end_pass(Wanted(), outcome, arg == 1);
    // Cut short is not to be tried again: somebody drops the buffers, or writes them out in another way.
    return outcome == Outcome::cut ? 1 : 0;
}

int CNFile::State::read_pass() {
    if (!begin_read_pass()) {
        return 1;
    }
    Infra::CGuard pass(m_pass_mutex);
    return serve_rounds() ? 1 : 0;
}

/// Serves what was asked for while the pass ran, and ends it. False if the device failed.
bool CNFile::State::serve_rounds() {
    Wanted wanted;
    for (int round = 0; next_round(wanted, round); ++round) {
        Outcome outcome = write_out();
        if (outcome == Outcome::done) {
            if (wanted.flush) {
                notify_write_message();
            }
            notify_stalled_read();
            outcome = wanted.load ? load() : outcome;
            wanted = Wanted();
        }
        if (outcome != Outcome::done) {
            end_pass(wanted, outcome, false);
            return outcome == Outcome::cut;
        }
    }
    return true;
}

/// True if there is more to do; else the pass is over.
bool CNFile::State::next_round(Wanted& wanted, int round) {
    {
        Infra::CGuard guard(m_write_mutex);
        const bool more = m_again || m_load_wanted || m_flush_wanted;
        if (more && round < MOST_ROUNDS) {
            wanted = {m_load_wanted, m_flush_wanted};
            m_again = false;
            m_load_wanted = false;
            m_flush_wanted = false;
            return true;
        }
        m_writing = false;
        if (!more) {
            return false;
        }
        // What is wanted stays noted for the task that goes on.
    }
    PostFileTask(&m_file, FILE_TASK_READ, 0);
    return false;
}

/// A pass that the device did not let end. What somebody waits for, be it that his task met this pass and is
/// gone, needs a task that is tried again.
void CNFile::State::end_pass(const Wanted& left, Outcome outcome, bool comes_again) {
    bool waiting = false;
    {
        Infra::CGuard guard(m_write_mutex);
        m_load_wanted = m_load_wanted || left.load;
        waiting = m_load_wanted || m_flush_wanted || left.flush || m_again;
        m_flush_wanted = false;
        m_again = false;
        m_writing = false;
    }
    if (waiting && outcome == Outcome::failed && !comes_again) {
        post_flush();
    }
}

/// Teardown's own pass, on its thread, with no file worker running. False if something could not be written.
bool CNFile::State::write_out_at_end() {
    m_slots.SubmitDirty();
    Infra::CGuard pass(m_pass_mutex);
    return write_out() == Outcome::done;
}

// ---- the device ----------------------------------------------------------------------------------------

bool CNFile::State::cut_short() const {
    return m_discard.load(std::memory_order_relaxed) || g_file_threads_stop.load(std::memory_order_relaxed);
}

/// A device that cannot seek is served as long as it stands at the right place by itself.
bool CNFile::State::seek_to(long long position) {
    if (m_dev->Seek(position, 0) == 0) {
        m_dev_pos = position;
    }
    return m_dev_pos == position;
}

CNFile::State::Outcome CNFile::State::write_out() {
    for (SortNode* node = m_slots.CollectWrites(); node != nullptr; node = node->m_next) {
        const Outcome outcome = write_slot(*node->m_slot);
        if (outcome == Outcome::failed) {
            tell(FILE_MSG_ERROR);
        }
        if (outcome != Outcome::done) {
            return outcome;
        }
    }
    return Outcome::done;
}

/// To the place where the next byte of the buffer belongs: its first, since bytes that a device has taken
/// before it failed may be lost. Where it cannot seek, the one that follows those that it has taken.
bool CNFile::State::seek_to_block(FileSlot& slot) {
    if (m_dev->Seek(slot.m_file_offset, 0) == 0) {
        slot.m_written = 0;
        m_dev_pos = slot.m_file_offset;
    }
    return m_dev_pos == slot.m_file_offset + slot.m_written;
}

/// Writes one submitted buffer and frees it. On failure it stays submitted.
CNFile::State::Outcome CNFile::State::write_slot(FileSlot& slot) {
    const int type = slot.GetSubmitType();
    if (!seek_to_block(slot)) {
        return Outcome::failed;
    }
    while (slot.m_written < slot.m_buf_offset) {
        if (cut_short()) {
            return Outcome::cut;
        }
        const unsigned left = slot.m_buf_offset - slot.m_written;
        const int n = m_dev->Write(slot.m_data + slot.m_written, left);
        if (n <= 0 || static_cast<unsigned>(n) > left) {
            return Outcome::failed;
        }
        slot.m_written += static_cast<unsigned>(n);
        m_dev_pos += n;
    }
    slot.m_written = 0;
    if (type == CNFileBuf::SUBMIT_WRITE_FREE) {
        slot.Reset();
        slot.Free();
    } else {
        slot.m_dirty = false;
    }
    slot.UnLock();
    return Outcome::done;
}

CNFile::State::Outcome CNFile::State::load() {
    int loaded = 0;
    for (unsigned i = 0; i < m_slots.count(); ++i) {
        if (m_slots.at(i).GetSubmitType() != CNFileBuf::SUBMIT_READ) {
            continue;
        }
        const Outcome outcome = load_slot(m_slots.at(i));
        if (outcome == Outcome::failed) {
            tell(FILE_MSG_ERROR);
        }
        if (outcome != Outcome::done) {
            return outcome;
        }
        ++loaded;
    }
    if (loaded > 0) {
        read_end();
        notify_read_message();
    }
    return Outcome::done;
}

CNFile::State::Outcome CNFile::State::load_slot(FileSlot& slot) {
    if (slot.block() == nullptr || !seek_to(slot.m_file_offset)) {
        return Outcome::failed;
    }
    unsigned got = 0;
    bool eof = false;
    while (got < slot.m_buf_size && !eof) {
        if (cut_short()) {
            return Outcome::cut;
        }
        const unsigned left = slot.m_buf_size - got;
        const int n = m_dev->Read(slot.m_data + got, left);
        if (n < 0 || static_cast<unsigned>(n) > left) {
            return Outcome::failed;
        }
        eof = n == 0;
        got += static_cast<unsigned>(n);
        m_dev_pos += n;
    }
    m_slots.EndLoad(slot, got, eof);
    return Outcome::done;
}

}  // namespace Orvex::Reticor
