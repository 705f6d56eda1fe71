// The general allocator as it is shipped. This program stands before it (CountingAllocator), so the cases ask
// for it by the name that the linker has given it.
#include "Core/record/GeneralAllocator.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "support/SeededRandom.h"
#include "support/core/CountingAllocator.h"

extern "C" {
// Orvex::Reticor::general_allocate(unsigned long)
void* __real__ZN5Orvex7Reticor16general_allocateEm(std::size_t size) noexcept;
// Orvex::Reticor::general_free(void*)
void __real__ZN5Orvex7Reticor12general_freeEPv(void* p) noexcept;
}

namespace Orvex::Testing {
namespace {

void* shippedAllocate(std::size_t size) {
    return __real__ZN5Orvex7Reticor16general_allocateEm(size);
}
void shippedFree(void* p) {
    __real__ZN5Orvex7Reticor12general_freeEPv(p);
}

TEST(GeneralAllocator, GivesMemoryThatIsAlignedForAnyObject) {
    std::vector<void*> blocks;
    for (std::size_t size = 1; size <= 4096; size += 7) {
        void* const block = shippedAllocate(size);
        ASSERT_NE(nullptr, block);
        ASSERT_EQ(0u, reinterpret_cast<uintptr_t>(block) % alignof(std::max_align_t)) << size;
        std::memset(block, 0x5A, size);
        blocks.push_back(block);
    }
    for (void* block : blocks) {
        shippedFree(block);
    }
}

TEST(GeneralAllocator, IgnoresNullWhenItIsFreed) {
    shippedFree(nullptr);
    const long before = CountingAllocator::blocksFreed();
    Reticor::general_free(nullptr);
    EXPECT_EQ(before, CountingAllocator::blocksFreed());
}

TEST(GeneralAllocator, BlocksKeepTheirBytesWhileOthersComeAndGo) {
    SeededRandom random;
    struct Block {
        unsigned char* bytes;
        std::size_t size;
        unsigned char mark;
    };
    std::vector<Block> blocks;
    for (int i = 0; i < 3000; ++i) {
        if (blocks.size() < 50 && random.oneIn(2)) {
            const std::size_t size = random.between(std::size_t{1}, std::size_t{3000});
            const auto mark = static_cast<unsigned char>(random.between(0, 255));
            auto* const bytes = static_cast<unsigned char*>(shippedAllocate(size));
            ASSERT_NE(nullptr, bytes);
            std::memset(bytes, mark, size);
            blocks.push_back({bytes, size, mark});
        } else if (!blocks.empty()) {
            std::swap(blocks[random.between(std::size_t{0}, blocks.size() - 1)], blocks.back());
            const Block block = blocks.back();
            blocks.pop_back();
            for (std::size_t n = 0; n < block.size; ++n) {
                ASSERT_EQ(block.mark, block.bytes[n]);
            }
            shippedFree(block.bytes);
        }
    }
    for (const Block& block : blocks) {
        shippedFree(block.bytes);
    }
}

}  // namespace
}  // namespace Orvex::Testing
