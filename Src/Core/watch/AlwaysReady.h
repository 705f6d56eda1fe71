// AlwaysReady: the records that the kernel refuses to watch, since they never make anybody wait.
#pragma once

#include <atomic>
#include <cstddef>
#include <vector>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>

#include "Core/record/Event.h"

namespace Orvex::Reticor {

/// Regular files, as select(2) has them: always ready for reading and writing.
///
/// Thread safety: Add and Remove on any thread that holds the mutex of the record; Snapshot on the holder of
/// the poll token, with the lock of the socket tree held so that no record goes away.
class AlwaysReady {
public:
    /// False, with nothing changed, if there is no memory.
    bool Add(CEvent* ev);
    void Remove(CEvent* ev);

    /// Whether there are none. Needs no lock.
    bool IsEmpty() const { return m_count.load(std::memory_order_relaxed) == 0; }

    /// The records at this moment, good until the next call. The mutex of the list is a leaf, so it is left
    /// again before the caller enters that of a record. Allocates only while the list is longer than ever
    /// before; null if there is no memory for that.
    const std::vector<CEvent*>* Snapshot();

private:
    Infra::CMutex m_list_mutex{Infra::LockClass::SELECT_LIST};  ///< A leaf.
    std::vector<CEvent*> m_list INFRA_GUARDED_BY(m_list_mutex);
    std::atomic<size_t> m_count{0};  ///< The length of the list.

    std::vector<CEvent*> m_snapshot;  ///< Of the holder of the poll token.

    friend struct MultiplexerProbe;  // tests
};

}  // namespace Orvex::Reticor
