// MoveLine: who waits for the next key frame of a buffer, to move to it.
#pragma once

#include <atomic>
#include <cstdint>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>

namespace Orvex::Reticor {

struct MediaCore;

/// Whoever waits in a line. In one at most.
class MoveGuest_IF {
public:
    /// It is out of the line. Called under the lock of the buffer; `gone`: that one goes away.
    virtual void called(const MediaCore& core, bool gone) = 0;

protected:
    friend class MoveLine;
    ~MoveGuest_IF() = default;

    MoveGuest_IF* m_next_mover = nullptr;
};

/// Thread safety: any thread; its mutex is a leaf, so that one may enter and leave the line of a buffer whose
/// lock it must not take. Whoever is in it must not end.
class MoveLine {
public:
    MoveLine() = default;
    MoveLine(const MoveLine&) = delete;
    MoveLine& operator=(const MoveLine&) = delete;

    /// Without the lock; one that comes just now is seen the next time.
    bool empty() const { return m_count.load(std::memory_order_relaxed) == 0; }
    void add(MoveGuest_IF& guest);
    /// False if it was not in it.
    bool remove(const MoveGuest_IF& guest);
    /// Calls those that are in it now, one by one, without the mutex.
    void call_all(const MediaCore& core, bool gone = false);

private:
    MoveGuest_IF* take_first();

    Infra::CMutex m_mutex{Infra::LockClass::MEDIA_MOVES};
    MoveGuest_IF* m_first INFRA_GUARDED_BY(m_mutex) = nullptr;
    std::atomic<uint32_t> m_count{0};
};

}  // namespace Orvex::Reticor
