// KnownInfo: what a file's device said of it.
#pragma once

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Reticor/StorDev.h>

namespace Orvex::Reticor {

/// Thread safety: every operation on any thread.
class KnownInfo {
public:
    KnownInfo() = default;
    KnownInfo(const KnownInfo&) = delete;
    KnownInfo& operator=(const KnownInfo&) = delete;

    /// The last answer, all 0 before there is one. True if the device knew the file's time of creation,
    /// without which it is asked again.
    bool get(NFile_Info& info) {
        Infra::CGuard guard(m_info_mutex);
        info = m_info;
        return m_info.time_create != 0;
    }
    void set(const NFile_Info& info) {
        Infra::CGuard guard(m_info_mutex);
        m_info = info;
    }

private:
    Infra::CMutex m_info_mutex{Infra::LockClass::FILE_INFO};
    NFile_Info m_info INFRA_GUARDED_BY(m_info_mutex);
};

}  // namespace Orvex::Reticor
