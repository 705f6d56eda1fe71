// The general allocator as the core sees it: two functions, so that a test, which is linked from the objects,
// can count blocks and let memory run out.
#pragma once

#include <cstddef>

namespace Orvex::Reticor {

/// `size` bytes, aligned for any object, or null if there is no memory. Any thread.
void* general_allocate(size_t size) noexcept;

/// Gives back what general_allocate gave. Null is ignored. Any thread.
void general_free(void* p) noexcept;

}  // namespace Orvex::Reticor
