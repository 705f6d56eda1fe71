// FileList: all files that there are.
#include "Tool/file/FileList.h"

#include <Infra/LockClasses.h>
#include <Reticor/NFile.h>

#include "Core/pool/ThreadPool.h"

namespace Orvex::Reticor {

Infra::CMutex FileList::sm_files_mutex{Infra::LockClass::FILE_LIST};
FileList* FileList::sm_files = nullptr;

void FileList::enter() {
    Infra::CGuard guard(sm_files_mutex);
    m_next = sm_files;
    m_link_to_me = &sm_files;
    if (m_next != nullptr) {
        m_next->m_link_to_me = &m_next;
    }
    sm_files = this;
}

void FileList::leave() {
    Infra::CGuard guard(sm_files_mutex);
    *m_link_to_me = m_next;
    if (m_next != nullptr) {
        m_next->m_link_to_me = m_link_to_me;
    }
}

HandlerPin FileList::next_to_end(CThreadPool& pool) {
    Infra::CGuard guard(sm_files_mutex);
    for (FileList* place = sm_files; place != nullptr; place = place->m_next) {
        if (place->m_end_seen) {
            continue;
        }
        place->m_end_seen = true;
        HandlerPin pin = pool.m_obj_tree.Find(place->m_file.GetID());
        if (pin && pin.get() == &place->m_file) {
            return pin;
        }
    }
    return HandlerPin();
}

}  // namespace Orvex::Reticor
