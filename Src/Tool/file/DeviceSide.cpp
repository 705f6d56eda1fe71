// DeviceSide: a file's device, and the passes over it.
#include "Tool/file/DeviceSide.h"

#include <Reticor/NFile.h>

#include "Tool/task/FileTask.h"

namespace Orvex::Reticor {

// ---- the device's life ---------------------------------------------------------------------------------

int DeviceSide::open(const char* path, const char* mode) {
    CNStorDev_IF& device = *m_dev.load();
    const int result = device.Open(path, mode);
    if (result < 0) {
        return result;
    }
    m_opened = true;
    NFile_Info found;
    if (device.Stat(&found) == 0) {
        m_info.set(found);
    }
    m_needs_aio = device.NeedAIO();
    return result;
}

int DeviceSide::stat(NFile_Info& info) {
    if (m_info.get(info)) {
        return 0;
    }
    Infra::CGuard pass(m_pass_mutex);
    if (m_exchange.over()) {
        return 0;
    }
    const int result = m_dev.load()->Stat(&info);
    if (result == 0) {
        m_info.set(info);
    }
    return result;
}

void DeviceSide::close() {
    Infra::CGuard pass(m_pass_mutex);
    CNStorDev_IF* const device = m_dev.load();
    if (device == nullptr) {
        return;
    }
    if (m_opened && device->Finish(m_sync.load()) < 0) {
        tell_error();
    }
    device->Close();
    m_dev.store(nullptr);
}

// ---- one pass at a time --------------------------------------------------------------------------------

PassResult DeviceSide::write_pass(long long arg) {
    const PassTurn::Begin begun = m_exchange.m_turn.begin_write(arg);
    if (begun == PassTurn::Begin::refused) {
        return PassResult::refused;
    }
    Infra::CGuard pass(m_pass_mutex);
    const Outcome outcome = write_out();
    if (outcome == Outcome::done) {
        if (arg == 1) {
            m_exchange.m_owed.notify_write_message();
        }
        m_exchange.m_owed.notify_stalled_read();
        serve_rounds();
        return PassResult::done;
    }
    if (outcome == Outcome::failed) {
        m_exchange.m_turn.count_again(begun);
    }
    return end_pass(PassTurn::Wanted(), outcome, arg == 1);
}

PassResult DeviceSide::read_pass() {
    if (!m_exchange.m_turn.begin_read()) {
        return PassResult::done;
    }
    Infra::CGuard pass(m_pass_mutex);
    return serve_rounds();
}

/// Serves what was asked for while the pass ran, and ends it.
PassResult DeviceSide::serve_rounds() {
    PassTurn::Wanted wanted;
    PassTurn::Next next = m_exchange.m_turn.next_round(wanted, 0);
    for (int round = 1; next == PassTurn::Next::round; ++round) {
        Outcome outcome = write_out();
        if (outcome == Outcome::done) {
            if (wanted.flush) {
                m_exchange.m_owed.notify_write_message();
            }
            m_exchange.m_owed.notify_stalled_read();
            outcome = wanted.load ? load() : outcome;
            wanted = PassTurn::Wanted();
        }
        if (outcome != Outcome::done) {
            return end_pass(wanted, outcome, false);
        }
        next = m_exchange.m_turn.next_round(wanted, round);
    }
    if (next == PassTurn::Next::task) {
        m_exchange.post_load();
    }
    return PassResult::done;
}

/// A pass that the device, or a change of buffers, did not let end.
PassResult DeviceSide::end_pass(const PassTurn::Wanted& left, Outcome outcome, bool comes_again) {
    const bool waiting = m_exchange.m_turn.end(left);
    if (outcome != Outcome::failed) {
        return PassResult::cut;
    }
    if (waiting && !comes_again) {
        m_exchange.post_flush();
    }
    return PassResult::failed;
}

bool DeviceSide::write_out_at_end() {
    m_exchange.m_slots.SubmitDirty();
    Infra::CGuard pass(m_pass_mutex);
    return write_out() == Outcome::done;
}

// ---- bytes ---------------------------------------------------------------------------------------------

bool DeviceSide::cut_short() const {
    return m_discard.load(std::memory_order_relaxed) || g_file_threads_stop.load(std::memory_order_relaxed);
}

/// A device that cannot seek is served as long as it stands at the right place by itself.
bool DeviceSide::seek_to(long long position) {
    if (m_dev.load()->Seek(position, 0) == 0) {
        m_dev_pos = position;
    }
    return m_dev_pos == position;
}

/// To the place where the next byte of the buffer belongs: its first, since bytes that a device has taken
/// before it failed may be lost. Where it cannot seek, the one that follows those that it has taken.
bool DeviceSide::seek_to_block(FileSlot& slot) {
    if (m_dev.load()->Seek(slot.m_file_offset, 0) == 0) {
        slot.m_written = 0;
        m_dev_pos = slot.m_file_offset;
    }
    return m_dev_pos == slot.m_file_offset + slot.m_written;
}

DeviceSide::Outcome DeviceSide::write_out() {
    for (FileSlot* const slot : m_exchange.m_slots.CollectWrites()) {
        const Outcome outcome = write_slot(*slot);
        if (outcome == Outcome::failed) {
            tell_error();
        }
        if (outcome != Outcome::done) {
            return outcome;
        }
    }
    return Outcome::done;
}

/// Writes one submitted buffer and frees it. On failure it stays submitted.
DeviceSide::Outcome DeviceSide::write_slot(FileSlot& slot) {
    if (!seek_to_block(slot)) {
        return Outcome::failed;
    }
    CNStorDev_IF& device = *m_dev.load();
    while (slot.m_written < slot.m_buf_offset) {
        if (cut_short()) {
            return Outcome::cut;
        }
        const unsigned left = slot.m_buf_offset - slot.m_written;
        const int n = device.Write(slot.m_data + slot.m_written, left);
        if (n <= 0 || static_cast<unsigned>(n) > left) {
            return Outcome::failed;
        }
        slot.m_written += static_cast<unsigned>(n);
        m_bytes_written.Add(static_cast<uint64_t>(n));
        m_dev_pos += n;
    }
    m_exchange.m_slots.EndWrite(slot);
    return Outcome::done;
}

DeviceSide::Outcome DeviceSide::load() {
    while (FileSlot* const slot = m_exchange.m_slots.BeginLoad()) {
        const Outcome outcome = load_slot(*slot);
        if (outcome == Outcome::failed && m_exchange.m_slots.FailAhead(*slot)) {
            m_errors.Increment();
            continue;
        }
        if (outcome == Outcome::failed) {
            tell_error();
        }
        if (outcome != Outcome::done) {
            return outcome;
        }
    }
    return Outcome::done;
}

DeviceSide::Outcome DeviceSide::load_slot(FileSlot& slot) {
    if (slot.block() == nullptr || !seek_to(slot.m_file_offset)) {
        return Outcome::failed;
    }
    CNStorDev_IF& device = *m_dev.load();
    unsigned got = 0;
    bool eof = false;
    while (got < slot.m_buf_size && !eof) {
        if (cut_short()) {
            return Outcome::cut;
        }
        const unsigned left = slot.m_buf_size - got;
        const int n = device.Read(slot.m_data + got, left);
        if (n < 0 || static_cast<unsigned>(n) > left) {
            return Outcome::failed;
        }
        eof = n == 0;
        got += static_cast<unsigned>(n);
        m_bytes_read.Add(static_cast<uint64_t>(n));
        m_dev_pos += n;
    }
    if (m_exchange.m_slots.EndLoad(slot, got, eof)) {
        m_exchange.m_load.read_end();
        m_exchange.m_owed.notify_read_message();
    }
    return Outcome::done;
}

void DeviceSide::tell_error() {
    m_errors.Increment();
    m_exchange.m_owed.tell(FILE_MSG_ERROR);
}

// ---- without buffers -----------------------------------------------------------------------------------

int DeviceSide::write_directly(const char* data, unsigned len) {
    unsigned done = 0;
    while (done < len && !m_exchange.over()) {
        const int n = m_dev.load()->Write(data + done, len - done);
        if (n == 0) {
            break;
        }
        if (n < 0 || static_cast<unsigned>(n) > len - done) {
            tell_error();
            break;
        }
        done += static_cast<unsigned>(n);
        m_bytes_written.Add(static_cast<uint64_t>(n));
    }
    return static_cast<int>(done);
}

int DeviceSide::read_directly(char* dst, unsigned len, bool& eof) {
    unsigned done = 0;
    while (done < len && !m_exchange.over()) {
        eof = false;
        const int n = m_dev.load()->Read(dst + done, len - done);
        if (n == 0) {
            eof = true;
            break;
        }
        if (n < 0 || static_cast<unsigned>(n) > len - done) {
            tell_error();
            break;
        }
        done += static_cast<unsigned>(n);
        m_bytes_read.Add(static_cast<uint64_t>(n));
    }
    return static_cast<int>(done);
}

int DeviceSide::seek_directly(long long offset, int whence) {
    return m_exchange.over() ? -1 : m_dev.load()->Seek(offset, whence);
}

}  // namespace Orvex::Reticor
