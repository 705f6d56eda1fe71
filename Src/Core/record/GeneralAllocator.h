// The general allocator as the core sees it: two functions, so that a test, which is linked from the objects,
// can count blocks and let memory run out.
#pragma once

#include <cstddef>

namespace Orvex::Reticor {

/// `size` bytes, aligned for any object, or null if there is no memory. Any thread.
void* generalAllocate(size_t size) noexcept;

/// Gives back what generalAllocate gave. Null is ignored. Any thread.
void generalFree(void* p) noexcept;

}  // namespace Orvex::Reticor
