// CNFile: the face of a file, over the parts of CNFile::State.
#include <Reticor/NFile.h>

#include <algorithm>
#include <new>

#include <Infra/Log.h>
#include <Reticor/DefaultStorDev.h>

#include "Core/handle/HandlerInternal.h"
#include "Tool/device/StorDev.h"
#include "Tool/file/NFileState.h"
#include "Tool/task/FileTask.h"
#include "Tool/task/FileTaskQueue.h"

namespace Orvex::Reticor {

const ObjectKind CNFile::State::KIND{"file",
                                     {{{"written_bytes", "Bytes that devices took.", true},
                                       {"read_bytes", "Bytes that devices gave.", true},
                                       {"device_errors", "Failures of devices.", true}}}};

ObjectValues CNFile::State::figures(const void* object) {
    const DeviceSide& device = static_cast<const State*>(object)->m_device;
    return {device.bytes_written(), device.bytes_read(), device.errors()};
}

CNFile::CNFile() : m_state(nullptr) {}

CNFile::~CNFile() {
    delete m_state;
}

CNFile* CNFile::Open(long handler_id, const char* path, const char* mode, CNStorDev_IF* dev) {
    if (dev == nullptr) {
        dev = new (std::nothrow) CDefaultStorDev;
    }
    auto* const file = dev != nullptr ? new (std::nothrow) CNFile : nullptr;
    const bool is_handler = file != nullptr && file->GetID() != 0;
    State* const state = is_handler ? new (std::nothrow) State(*file, handler_id, dev) : nullptr;
    if (state == nullptr || !state->m_holds) {
        if (is_handler || file == nullptr) {  // else the handler has told of itself
            INFRA_LOG_STATIC(2, "CNFile::Open no memory!\n");
        }
        delete state;
        if (file != nullptr) {
            HandlerInternal::Discard(file);
        }
        if (dev != nullptr) {
            dev->Close();
        }
        return nullptr;
    }
    file->m_state = state;
    state->m_place.enter();
    state->m_roll.enter(file->GetID());
    if (state->m_device.open(path, mode) < 0) {
        file->Close();
        return nullptr;
    }
    if (state->m_caller.buffers() == 0) {
        file->SetBufferSize(CNBufPool::BLOCK_BYTES, CFileSlots::DEFAULT_COUNT);
    }
    return file;
}

int CNFile::Write(const char* data, unsigned len) {
    OwedMessages& owed = m_state->m_exchange.m_owed;
    if (owed.waiting_write_message()) {
        return 0;
    }
    if (data == nullptr || len == 0) {
        owed.tell(FILE_MSG_ERROR);
        return 0;
    }
    len = std::min<unsigned>(len, INT_MAX);
    return m_state->m_caller.buffers() == 0 ? m_state->m_device.write_directly(data, len)
                                            : m_state->m_caller.Write(data, len);
}

int CNFile::Read(char* dst, unsigned len, bool& eof) {
    OwedMessages& owed = m_state->m_exchange.m_owed;
    if (owed.waiting_read_message()) {
        return 0;
    }
    if (dst == nullptr || len == 0) {
        owed.tell(FILE_MSG_ERROR);
        return 0;
    }
    len = std::min<unsigned>(len, INT_MAX);
    return m_state->m_caller.buffers() == 0 ? m_state->m_device.read_directly(dst, len, eof)
                                            : m_state->m_caller.Read(dst, len, eof);
}

int CNFile::Seek(long long offset, int whence) {
    return m_state->m_caller.buffers() == 0 ? m_state->m_device.seek_directly(offset, whence)
                                            : m_state->m_caller.Seek(offset, whence);
}

int CNFile::Stat(NFile_Info* info) {
    NFile_Info known;
    const int result = m_state->m_device.stat(known);
    if (result != 0) {
        return result;
    }
    info->time_create = known.time_create;
    info->time_access = known.time_access;
    info->time_write = known.time_write;
    info->size = known.size;
    info->attrib = known.attrib;
    copy_file_name(info->name, known.name);
    return 0;
}

int CNFile::SetBufferSize(unsigned size, unsigned count) {
    if (m_state->m_exchange.over()) {
        return 0;
    }
    if (!FileThreadsRun() || !m_state->m_device.needs_aio()) {
        m_state->m_caller.replace_buffers(0);
        return 0;
    }
    if (size == 0 || count == 0) {
        count = CFileSlots::DEFAULT_COUNT;
    }
    count = std::min(count, CFileSlots::MOST);
    if (m_state->m_caller.buffers() != count) {
        m_state->m_caller.replace_buffers(count);
    }
    return 0;
}

void CNFile::SetSync(bool on) {
    m_state->m_device.set_sync(on);
}

void CNFile::SetReadAhead(bool on) {
    m_state->m_caller.set_read_ahead(on);
}

// The reference keeps the file while its workers may be done with it already.
void CNFile::Close() {
    const HandlerPin pin = HandlerPin::Take(this);
    switch (m_state->m_caller.close()) {
        case CallerSide::Closing::nothing:
            return;
        case CallerSide::Closing::reference:
            DecRef();
            return;
        case CallerSide::Closing::by_task:
            PostFileTask(m_state->m_close_task.release(), this, FILE_TASK_CLOSE, 1);
            return;
        case CallerSide::Closing::handler:
            CNetHandler::Close();
            return;
    }
}

int CNFile::handle_write_file(long long arg) {
    const PassResult result = m_state->m_device.write_pass(arg);
    return result == PassResult::done || result == PassResult::cut ? 1 : 0;
}

int CNFile::handle_read_file() {
    return m_state->m_device.read_pass() == PassResult::failed ? 0 : 1;
}

int CNFile::handle_close_file() {
    m_state->m_device.close();
    CNetHandler::Close();
    return 1;
}

int CNFile::handle_close(CNetHandler*) {
    if (m_state != nullptr) {
        m_state->m_place.leave();
        m_state->m_device.close();
    }
    delete this;
    return -1;
}

}  // namespace Orvex::Reticor
