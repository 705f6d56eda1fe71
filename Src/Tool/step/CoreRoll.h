// CoreRoll: all media buffers of the process, for readers.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>

namespace Orvex::Reticor {

struct MediaCore;

/// Thread safety: any thread. The lock is held for the walk alone.
class CoreRoll {
public:
    /// A buffer, for as long as it lives.
    class Entry {
    public:
        explicit Entry(const std::shared_ptr<MediaCore>& core);
        ~Entry();
        Entry(const Entry&) = delete;
        Entry& operator=(const Entry&) = delete;

        /// From 1 on, in the order in which buffers were made.
        uint64_t number() const { return m_number; }

    private:
        friend class CoreRoll;
        const std::shared_ptr<MediaCore> m_core;
        Entry* m_before = nullptr;
        Entry* m_next = nullptr;
        uint64_t m_number = 0;
    };

    /// The cores of all buffers, in no order: a buffer may have gone by the time that its core is entered. An
    /// exception comes out of the vector alone.
    static void list(std::vector<std::shared_ptr<MediaCore>>& cores);

private:
    static Infra::CMutex sm_mutex;
    static Entry* sm_first INFRA_GUARDED_BY(sm_mutex);
    static uint64_t sm_last_number INFRA_GUARDED_BY(sm_mutex);
};

}  // namespace Orvex::Reticor
