// NFileEnd: what the last teardown does with the files that are left.
#include "Tool/file/NFileEnd.h"

#include <Infra/Log.h>

#include "Core/pool/ThreadPool.h"
#include "Tool/file/NFileState.h"

namespace Orvex::Reticor {

void NFileEnd::take(CThreadPool& pool) {
    while (const HandlerPin pin = FileList::next_to_end(pool)) {
        detach(static_cast<CNFile&>(*pin.get()), pool);
    }
}

/// One that its owner has not closed yet is kept by a reference that the owner's Close drops.
void NFileEnd::detach(CNFile& file, CThreadPool& pool) {
    CNFile::State& state = CNFile::State::of(file);
    file.AddRef();
    state.m_next_to_end = m_first;
    m_first = &file;
    if (state.m_caller.detach()) {
        file.AddRef();
    }
    file.CNetHandler::Close();
    const HandlerPin first = pool.DetachObject(file.GetID());  // not the last reference
}

NFileEnd::~NFileEnd() {
    while (m_first != nullptr) {
        CNFile& file = *m_first;
        CNFile::State& state = CNFile::State::of(file);
        m_first = state.m_next_to_end;
        if (!state.m_caller.end()) {
            NFile_Info info;
            state.m_device.known_info(info);
            INFRA_LOG_STATIC(2, "file data could not be written at the end! %s\n", info.name);
        }
        file.DecRef();
    }
}

}  // namespace Orvex::Reticor
