// The general allocator is the C library's.
#include "Core/record/GeneralAllocator.h"

#include <cstdlib>

namespace Orvex::Reticor {

void* generalAllocate(size_t size) noexcept {
    return std::malloc(size);
}

void generalFree(void* p) noexcept {
    std::free(p);
}

}  // namespace Orvex::Reticor
