// CNFile: the calls of the file, direct mode, and the messages that are owed.
#include <Reticor/NFile.h>

#include <algorithm>

#include <Reticor/DefaultStorDev.h>

#include "Tool/device/StorDev.h"
#include "Tool/file/NFileState.h"
#include "Tool/task/FileTask.h"

namespace Orvex::Reticor {

// ---- the file ------------------------------------------------------------------------------------------

CNFile::CNFile() : m_state(nullptr) {}

CNFile::~CNFile() {
    delete m_state;
}

CNFile* CNFile::Open(long handler_id, const char* path, const char* mode, CNStorDev_IF* dev) {
    auto* const file = new CNFile;
    State* const state = new State(*file, handler_id, dev != nullptr ? dev : new CDefaultStorDev);
    file->m_state = state;
    state->enter_list();
    if (state->m_dev->Open(path, mode) < 0) {
        file->Close();
        return nullptr;
    }
    state->m_opened = true;
    state->ask_device();
    if (state->m_buf_count.load() == 0) {
        file->SetBufferSize(CNBufPool::BLOCK_BYTES, CFileSlots::DEFAULT_COUNT);
    }
    return file;
}

int CNFile::Write(const char* data, unsigned len) {
    if (m_state->waiting_write_message()) {
        return 0;
    }
    if (data == nullptr || len == 0) {
        m_state->tell(FILE_MSG_ERROR);
        return 0;
    }
    len = std::min<unsigned>(len, INT_MAX);
    if (m_state->m_buf_count.load(std::memory_order_relaxed) == 0) {
        return m_state->write_directly(data, len);
    }
    Infra::CGuard guard(m_state->m_api_mutex);
    return m_state->over() ? 0 : m_state->write_buffered(data, len);
}

int CNFile::Read(char* dst, unsigned len, bool& eof) {
    if (m_state->waiting_read_message()) {
        return 0;
    }
    if (dst == nullptr || len == 0) {
        m_state->tell(FILE_MSG_ERROR);
        return 0;
    }
    len = std::min<unsigned>(len, INT_MAX);
    if (m_state->m_buf_count.load(std::memory_order_relaxed) == 0) {
        return m_state->read_directly(dst, len, eof);
    }
    if (m_state->reading()) {
        return 0;
    }
    Infra::CGuard guard(m_state->m_api_mutex);
    return m_state->over() ? 0 : m_state->read_buffered(dst, len, eof);
}

int CNFile::Seek(long long offset, int whence) {
    if (m_state->m_buf_count.load(std::memory_order_relaxed) == 0) {
        return m_state->over() ? -1 : m_state->m_dev->Seek(offset, whence);
    }
    Infra::CGuard guard(m_state->m_api_mutex);
    return m_state->over() ? -1 : m_state->seek_buffered(offset, whence);
}

int CNFile::Stat(NFile_Info* info) {
    NFile_Info known;
    const int result = m_state->stat(known);
    if (result != 0) {
        return result;
    }
    info->time_create = known.time_create;
    info->time_access = known.time_access;
    info->time_write = known.time_write;
    info->size = known.size;
    info->attrib = known.attrib;
    copyFileName(info->name, known.name);
    return 0;
}

int CNFile::SetBufferSize(unsigned size, unsigned count) {
    if (m_state->over()) {
        return 0;
    }
    if (!FileThreadsRun() || !m_state->m_needs_aio) {
        m_state->replace_buffers(0);
        return 0;
    }
    if (size == 0 || count == 0) {
        count = CFileSlots::DEFAULT_COUNT;
    }
    if (m_state->m_buf_count.load() != count) {
        m_state->replace_buffers(count);
    }
    return 0;
}

void CNFile::SetSync(bool on) {
    m_state->m_sync.store(on);
}

// The reference keeps the file while its workers may be done with it already.
void CNFile::Close() {
    const HandlerPin pin = HandlerPin::Take(this);
    bool buffered = false;
    {
        Infra::CGuard guard(m_state->m_api_mutex);
        if (m_state->m_closed.exchange(true)) {
            return;
        }
        buffered = m_state->m_buf_count.load() > 0;
        if (!buffered) {
            m_state->close_device();
        }
        if (m_state->m_orphan) {
            DecRef();
            return;
        }
        if (buffered) {
            m_state->submit_all_buffer();
        }
    }
    if (buffered) {
        PostFileTask(this, FILE_TASK_CLOSE, 1);
    } else {
        CNetHandler::Close();
    }
}

int CNFile::handle_write_file(long long arg) {
    return m_state->write_pass(arg);
}

int CNFile::handle_read_file() {
    return m_state->read_pass();
}

int CNFile::handle_close_file() {
    m_state->close_device();
    CNetHandler::Close();
    return 1;
}

int CNFile::handle_close(CNetHandler*) {
    m_state->leave_list();
    m_state->close_device();
    delete this;
    return -1;
}

// ---- its state -----------------------------------------------------------------------------------------

CNFile::State::State(CNFile& file, long handler_id, CNStorDev_IF* dev)
    : m_file(file), m_handler_id(handler_id), m_dev(dev) {}

CNFile::State::~State() = default;

/// What is asked once, before anybody else knows the file. A device that does not know yet is asked again.
void CNFile::State::ask_device() {
    NFile_Info found;
    if (m_dev->Stat(&found) == 0) {
        Infra::CGuard guard(m_info_mutex);
        m_info = found;
    }
    m_needs_aio = m_dev->NeedAIO();
}

bool CNFile::State::known_info(NFile_Info& info) {
    Infra::CGuard guard(m_info_mutex);
    info = m_info;
    return m_info.time_create != 0;
}

/// Asks the device again if it did not know when the file was opened: between two passes, and not once it may
/// have got its Close.
int CNFile::State::stat(NFile_Info& info) {
    if (known_info(info)) {
        return 0;
    }
    Infra::CGuard pass(m_pass_mutex);
    if (over()) {
        return 0;
    }
    const int result = m_dev->Stat(&info);
    if (result == 0) {
        Infra::CGuard guard(m_info_mutex);
        m_info = info;
    }
    return result;
}

void CNFile::State::close_device() {
    Infra::CGuard pass(m_pass_mutex);
    if (m_dev != nullptr) {
        if (m_opened && m_dev->Finish(m_sync.load()) < 0) {
            tell(FILE_MSG_ERROR);
        }
        m_dev->Close();
        m_dev = nullptr;
    }
}

// What waits for the old buffers would wait for ever: it is told to look again.
void CNFile::State::replace_buffers(unsigned count) {
    m_discard.store(true);
    Infra::CGuard api(m_api_mutex);
    Infra::CGuard pass(m_pass_mutex);
    m_discard.store(false);
    if (over()) {
        return;
    }
    if (count == 0) {
        m_slots.Clear();
    } else if (!m_slots.Allocate(count)) {
        m_slots.Allocate(CFileSlots::DEFAULT_COUNT);
    }
    m_buf_count.store(m_slots.count());
    m_buf_size = m_slots.count() > 0 ? CNBufPool::BLOCK_BYTES : 0;
    m_read_buf = nullptr;
    m_write_buf = nullptr;
    m_next_evict = 0;
    {
        Infra::CGuard guard(m_write_mutex);
        m_load_wanted = false;
    }
    read_end();
    notify_read_message();
    notify_write_message();
}

int CNFile::State::write_directly(const char* data, unsigned len) {
    unsigned done = 0;
    while (done < len && !over()) {
        const int n = m_dev->Write(data + done, len - done);
        if (n == 0) {
            break;
        }
        if (n < 0 || static_cast<unsigned>(n) > len - done) {
            tell(FILE_MSG_ERROR);
            break;
        }
        done += static_cast<unsigned>(n);
    }
    return static_cast<int>(done);
}

int CNFile::State::read_directly(char* dst, unsigned len, bool& eof) {
    unsigned done = 0;
    while (done < len && !over()) {
        eof = false;
        const int n = m_dev->Read(dst + done, len - done);
        if (n == 0) {
            eof = true;
            break;
        }
        if (n < 0 || static_cast<unsigned>(n) > len - done) {
            tell(FILE_MSG_ERROR);
            break;
        }
        done += static_cast<unsigned>(n);
    }
    return static_cast<int>(done);
}

// ---- what the caller is owed ---------------------------------------------------------------------------

bool CNFile::State::waiting_read_message() {
    Infra::CGuard guard(m_msg_mutex);
    return m_wait_read;
}

bool CNFile::State::waiting_write_message() {
    Infra::CGuard guard(m_msg_mutex);
    return m_wait_write;
}

void CNFile::State::need_read_message() {
    Infra::CGuard guard(m_msg_mutex);
    m_wait_read = true;
}

void CNFile::State::need_write_message() {
    Infra::CGuard guard(m_msg_mutex);
    m_wait_write = true;
}

void CNFile::State::need_read_message_from_pass() {
    Infra::CGuard guard(m_msg_mutex);
    m_wait_read = true;
    m_read_stalled = true;
}

void CNFile::State::notify_read_message() {
    Infra::CGuard guard(m_msg_mutex);
    if (m_wait_read) {
        tell(FILE_MSG_READ);
    }
    m_wait_read = false;
    m_read_stalled = false;
}

void CNFile::State::notify_write_message() {
    Infra::CGuard guard(m_msg_mutex);
    if (m_wait_write) {
        tell(FILE_MSG_WRITE);
    }
    m_wait_write = false;
}

void CNFile::State::notify_stalled_read() {
    Infra::CGuard guard(m_msg_mutex);
    if (m_read_stalled) {
        m_read_stalled = false;
        m_wait_read = false;
        tell(FILE_MSG_READ);
    }
}

bool CNFile::State::read_start() {
    Infra::CGuard guard(m_read_mutex);
    const bool first = !m_reading;
    m_reading = true;
    return first;
}

void CNFile::State::read_end() {
    Infra::CGuard guard(m_read_mutex);
    m_reading = false;
}

bool CNFile::State::reading() {
    Infra::CGuard guard(m_read_mutex);
    return m_reading;
}

}  // namespace Orvex::Reticor
