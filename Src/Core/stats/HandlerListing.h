// HandlerListing: the list of handlers for readers.
#pragma once

#include <vector>

#include <Reticor/Stats.h>

namespace Orvex::Reticor {

/// Every handler, the oldest first. std::bad_alloc without memory.
void list_handlers(std::vector<HandlerInfo>& handlers);

}  // namespace Orvex::Reticor
