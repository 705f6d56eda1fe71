// HandlerDrops: references on handlers that are dropped once a lock is left.
#pragma once

#include "Core/handle/HandlerPin.h"

namespace Orvex::Reticor {

/// Dropping a reference can be what calls `handle_close`, which runs with no lock held. Whoever has
/// references to drop and still holds a lock puts them here; they are dropped, in that order, when this
/// object goes, so it is declared ahead of the guard. Takes no memory.
///
/// Thread safety: none. A handler is in one of these at a time, or more than once in the same one.
class HandlerDrops {
public:
    HandlerDrops() = default;
    ~HandlerDrops();
    HandlerDrops(const HandlerDrops&) = delete;
    HandlerDrops& operator=(const HandlerDrops&) = delete;

    /// An empty pin is ignored.
    void Take(HandlerPin pin);

private:
    CNetHandler* m_first = nullptr;
    CNetHandler* m_last = nullptr;
};

}  // namespace Orvex::Reticor
