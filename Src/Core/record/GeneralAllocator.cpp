// The general allocator is the C library's.
#include "Core/record/GeneralAllocator.h"

#include <cstdlib>

namespace Orvex::Reticor {

void* general_allocate(size_t size) noexcept {
    return std::malloc(size);
}

void general_free(void* p) noexcept {
    std::free(p);
}

}  // namespace Orvex::Reticor
