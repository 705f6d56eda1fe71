// FileList: all files that there are.
#pragma once

#include <Infra/Mutex.h>

#include "Core/handle/HandlerPin.h"

namespace Orvex::Reticor {

class CNFile;
class CThreadPool;

/// A file's place in the list of all files. The mutex is never held over a call of a file or device.
class FileList {
public:
    explicit FileList(CNFile& file) : m_file(file) {}
    FileList(const FileList&) = delete;
    FileList& operator=(const FileList&) = delete;

    void enter();
    void leave();

    /// A file of the list that the pool still knows, pinned; each one once. What the pool does not know any
    /// more has been closed to the end, or belongs to an earlier life of the library.
    static HandlerPin next_to_end(CThreadPool& pool);

private:
    static Infra::CMutex sm_files_mutex;
    static FileList* sm_files INFRA_GUARDED_BY(sm_files_mutex);  ///< The first; entered last.

    CNFile& m_file;
    FileList* m_next INFRA_GUARDED_BY(sm_files_mutex) = nullptr;
    FileList** m_link_to_me INFRA_GUARDED_BY(sm_files_mutex) = nullptr;
    bool m_end_seen INFRA_GUARDED_BY(sm_files_mutex) = false;
};

}  // namespace Orvex::Reticor
