// CEventFreeList: records that rest, and the way in which everybody gets and gives them.
#pragma once

#include <cstdint>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Infra/ThreadAnnotations.h>

#include "Core/record/Event.h"

namespace Orvex::Reticor {

/// The records that rest. The process has one, behind `get_event` and `put_event`.
class CEventFreeList {
public:
    constexpr CEventFreeList() = default;
    /// Deletes the records in the list.
    ~CEventFreeList();

    CEventFreeList(const CEventFreeList&) = delete;
    CEventFreeList& operator=(const CEventFreeList&) = delete;

    /// A record with the values of its last life, but for `m_next`, which is null. Allocates only while the
    /// list is empty; null if there is no memory then.
    CEvent* Get();

    /// A chain of up to `most` records, or null.
    CEvent* GetBatch(int most);

    void Put(CEvent* ev);

    /// Puts a chain of that many records, whose ends are given.
    void PutChain(CEvent* first, CEvent* last, uint64_t records);

    /// How many records it has.
    uint64_t Count();

private:
    CEvent* m_head INFRA_GUARDED_BY(m_mutex) = nullptr;
    uint64_t m_count INFRA_GUARDED_BY(m_mutex) = 0;
    Infra::CMutex m_mutex{Infra::LockClass::FREE_RECORDS};
};

/// Take from and give to the process's free list, through a small stock of records that each thread keeps: a
/// record put and taken again on one thread is the same one. The list lives until the process ends. get_event
/// gives null if no record rests and there is no memory for one.
CEvent* get_event();
void put_event(CEvent* ev);
void put_event_chain(CEvent* ev);

/// As get_event, for what the library itself has to say while there is no memory: it then comes out of a
/// small reserve. Null once that is used up.
CEvent* get_event_reserved();

/// Records that rest.
struct RestingRecords {
    uint64_t listed;    ///< On the process's list,
    uint64_t stocked;   ///< in the stocks of threads,
    uint64_t reserved;  ///< and in the reserve.
};
/// They are not of one moment. Any thread.
RestingRecords count_resting_records();

/// Fills that reserve up again, as far as there is memory. Any thread, now and then.
void fill_event_reserve();

}  // namespace Orvex::Reticor
