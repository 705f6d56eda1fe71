// CNFile: what a full teardown does with the files that are left.
#include <Infra/LockClasses.h>
#include <Infra/Log.h>

#include "Core/pool/ThreadPool.h"
#include "Tool/file/NFileState.h"

namespace Orvex::Reticor {

namespace {

/// Guards the list of all files. Never held over a call of a file or device.
Infra::CMutex g_files_mutex{Infra::LockClass::FILE_LIST};

}  // namespace

/// Under g_files_mutex.
static CNFile::State* g_files = nullptr;

void CNFile::State::enter_list() {
    Infra::CGuard guard(g_files_mutex);
    m_next_file = g_files;
    m_link_to_me = &g_files;
    if (m_next_file != nullptr) {
        m_next_file->m_link_to_me = &m_next_file;
    }
    g_files = this;
}

void CNFile::State::leave_list() {
    Infra::CGuard guard(g_files_mutex);
    *m_link_to_me = m_next_file;
    if (m_next_file != nullptr) {
        m_next_file->m_link_to_me = m_link_to_me;
    }
}

/// A file of the list that the pool still knows, pinned; each one once. What the pool does not know any more
/// has been closed to the end, or belongs to an earlier life of the library.
HandlerPin CNFile::State::next_to_end(CThreadPool& pool) {
    Infra::CGuard guard(g_files_mutex);
    for (State* state = g_files; state != nullptr; state = state->m_next_file) {
        if (state->m_end_seen) {
            continue;
        }
        state->m_end_seen = true;
        if (HandlerPin pin = pool.m_obj_tree.Find(state->m_file.GetID())) {
            return pin;
        }
    }
    return HandlerPin();
}

/// Nobody serves the close message that the file may have posted, or will post: it is taken out of its pool
/// here. One that its owner has not closed yet is kept by a reference that the owner's Close drops.
void CNFile::State::end(CNFile& file, CThreadPool& pool) {
    State& state = *file.m_state;
    {
        Infra::CGuard guard(state.m_api_mutex);
        if (state.m_buf_count.load() > 0 && state.m_dev != nullptr) {
            state.m_ended.store(true);
            if (!state.write_out_at_end()) {
                NFile_Info info;
                state.known_info(info);
                INFRA_LOG_STATIC(2, "file data could not be written at the end! %s\n", info.name);
            }
            state.close_device();
        }
        if (!state.m_closed.load()) {
            state.m_orphan = true;
            file.AddRef();
        }
    }
    file.CNetHandler::Close();
    pool.DetachObject(file.GetID());
}

}  // namespace Orvex::Reticor
