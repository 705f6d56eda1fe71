// CPoolSet: private pools for more clients than one pool can watch.
#pragma once

#include <Reticor/Export.h>

namespace Orvex::Reticor {

/// Spreads clients over private pools, and knows when all of them are full.
///
/// A pool watches a limited number of sockets for each direction, and says nothing when it leaves one out
/// (`CNetHandler::RegisterSock`). So a place is reserved before a client's handler is made: `Next` chooses
/// the pool, `Place::GetPool` is the argument of the handler's constructor, and the handler keeps the place
/// as long as it lives. What counts are the reservations, not the sockets that are watched at the moment: a
/// socket in a call gives up its place in the pool meanwhile, and finds it taken if somebody else was let in.
/// Each pool keeps a margin for sockets that nothing is reserved for, such as a listener.
///
///     CPoolSet::Place place;
///     if (pools.Next(SOCK_READ, place) != 0) {
///         peer.Close();  // all pools are full
///     } else {
///         Client::Create(peer, std::move(place));  // whose handler is CNetHandler(place.GetPool())
///     }
///
/// Thread safety: `Next` and `GetRoom` on any thread, also inside `handle_*`; they wait for nobody. `Create`,
/// `Destroy` and the destructor on one thread, with no other call of this object under way, and never inside
/// a `handle_*` call: they create and destroy pools. Places on any thread, one at a time for each of them.
class RETICOR_API CPoolSet {
    struct State;

public:
    /// The most pools that there can be beside the public one.
    static constexpr unsigned int MOST_POOLS = 63;

    /// Sockets of one pool that can be reserved for, in each direction.
    static constexpr int PLACES = 4064;

    /// Sockets of one pool that need no reservation, for reading; for the other directions there is one more.
    static constexpr int MARGIN = 31;

    /// What is reserved for a client in one of the pools. Given back by the destructor, by `Release`, and by
    /// being assigned to; a place that another one was moved from is empty. May outlive the set.
    class RETICOR_API Place {
    public:
        /// Empty.
        Place() = default;
        /// Takes the place over; `other` is empty afterwards.
        Place(Place&& other) noexcept;
        /// Gives back what was held; `other` is empty afterwards.
        Place& operator=(Place&& other) noexcept;
        ~Place();
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;

        /// The index of the pool, 1 to 63, for `CNetHandler(int)`. -1 if the place is empty.
        int GetPool() const;

        /// Gives the place back, which is empty then. Call it, or destroy the place, once the client's socket
        /// is removed: it may be another client's at once.
        void Release();

    private:
        State* m_state = nullptr;
        unsigned int m_number = 0;  ///< Of the pool in the set.
        unsigned int m_mask = 0;

        friend class CPoolSet;
    };

    /// No pools: `Next` gives -1.
    CPoolSet();
    /// `Destroy`.
    ~CPoolSet();
    CPoolSet(const CPoolSet&) = delete;
    CPoolSet& operator=(const CPoolSet&) = delete;

    /// Creates that number of pools, 1 to 63, by `CNetThread::CreatePrivatePool` with the other arguments:
    /// each has `threads` workers, raised to a multiple of the processor count. Blocks for their start.
    /// Result: 0; -1, with a line at level 2 and nothing left behind, for another number, for a set that has
    /// pools, without memory, or if one of the pools cannot be created.
    int Create(unsigned int pools, unsigned int threads, bool file_io = false);

    /// Destroys the pools, by `CNetThread::DestroyPrivatePool`: handlers on them should be closed before.
    /// Blocks until their threads have ended. Places that are still reserved are only to be given back.
    /// Result: 0; -1 if there are none.
    int Destroy();

    /// Reserves in `place` what a client needs that will be registered for the directions in `mask` (SOCK_*),
    /// one place for each of them, in that pool which has most places left and one for each direction. Most
    /// clients are registered for writing only while they are waited on for room, but any number of them may
    /// be at the same time: so ask for SOCK_READ + SOCK_WRITE for them. Result: 0, and what `place` held
    /// before is given back; -1, with nothing changed, if no pool has room, there are none, or `mask` names
    /// no direction.
    int Next(unsigned int mask, Place& place);

    /// How many more clients with that mask there is room for: as many calls of `Next` succeed, if nobody
    /// else reserves or gives back. 0 without pools, or for a mask that names no direction.
    int GetRoom(unsigned int mask) const;

private:
    State* m_state;
};

}  // namespace Orvex::Reticor
