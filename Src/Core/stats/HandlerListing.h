// HandlerListing: the list of handlers for readers.
#pragma once

#include <list>
#include <vector>

#include <Reticor/Stats.h>

#include "Core/stats/PlaceNames.h"

namespace Orvex::Reticor {

struct HandlerFacts;

/// Every handler, the oldest first. What is told of their holders is good as long as this is there.
class HandlerListing {
public:
    /// Into an empty one. False if there is no memory.
    bool Gather();

    const std::vector<HandlerInfo>& handlers() const { return m_handlers; }

private:
    using Holders = std::vector<const HandlerHolder*>;

    void gather_all();
    void put_holders(const HandlerFacts& facts, HandlerInfo& info);
    const HandlerHolder* holder_at(uintptr_t address, uint64_t taken, uint64_t given_back);

    std::vector<HandlerInfo> m_handlers;
    PlaceNames m_names;
    // Lists: their elements stay where they are, and an empty one needs no memory.
    std::list<HandlerHolder> m_holders;
    std::list<Holders> m_lists;
};

}  // namespace Orvex::Reticor
