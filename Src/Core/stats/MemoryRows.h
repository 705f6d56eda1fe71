// MemoryRows: what a snapshot has of memory.
#pragma once

#include <vector>

#include <Reticor/Stats.h>

#include "Core/stats/MediaSource.h"

namespace Orvex::Reticor {

/// Appends a row for each kind and size of memory that the library holds at this moment. Any thread. Throws
/// std::bad_alloc.
void add_memory_rows(const MediaRows& media, std::vector<MemoryStats>& memory);

}  // namespace Orvex::Reticor
