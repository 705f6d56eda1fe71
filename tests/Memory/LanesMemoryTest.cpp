// CMediaLanes while memory runs out: the lanes are made, or none is left; a packet is taken, or stays the
// caller's.
#include <Reticor/MediaLanes.h>

#include <gtest/gtest.h>

#include <atomic>

#include "support/Eventually.h"
#include "support/KernelThread.h"
#include "support/memory/MemorySweep.h"

namespace Orvex::Testing {
namespace {

using Reticor::CMediaLanes;

class CountingPacket : public Reticor::CMediaPacket {
public:
    int Release() override {
        ++releases;
        return 0;
    }
    char* GetBuffer() override {
        ++asked;
        return &m_byte;
    }
    std::atomic<int> releases{0};
    std::atomic<int> asked{0};

private:
    char m_byte = 'x';
};

// The pools' own allocations are swept elsewhere: of these every so many alone.
TEST(LanesMemory, LanesAreMadeOrUndone) {
    const int threads_before = threadsAtRest();
    for (size_t successes = 0, failed = 1; failed != 0; successes += successes < 8 ? 1 : 67) {
        SCOPED_TRACE(successes);
        CMediaLanes lanes;
        int result = 1;
        const Swept swept = withFault(successes, Extent::ONE, [&] { result = lanes.Create(2, 1); });
        failed = swept.hit ? 1 : 0;
        EXPECT_TRUE(swept.hit || result == 0);
        EXPECT_TRUE(result == 0 || swept.lines != 0);
        EXPECT_EQ(result, lanes.Destroy());
        EXPECT_EVENTUALLY(threads_before == kernelThreadCount());
    }
}

// What the producer cannot post is posted with a later packet.
TEST(LanesMemory, PacketIsTakenOrStaysTheCallers) {
    CMediaLanes lanes;
    ASSERT_EQ(0, lanes.Create(2, 1));
    sweep([&](size_t successes, Extent extent) {
        CountingPacket first;
        CountingPacket info;
        CountingPacket last;
        int results[3] = {1, 1, 1};
        Swept swept;
        {
            const NoRecords none;
            swept = withFault(successes, extent, [&] {
                results[0] = lanes.Put(&first, 1, Reticor::MEDIA_MARK_MORE, 1);
                results[1] = lanes.PutFrameInfo(&info, 1);
                results[2] = lanes.Put(&last, 1, Reticor::MEDIA_MARK_LAST, 1);
            });
        }
        const CountingPacket* const packets[3] = {&first, &info, &last};
        EXPECT_EQ(0, lanes.Clear());
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(results[i] == 0 ? 1 : 0, packets[i]->releases);
            EXPECT_EQ(results[i] == 0 && i != 1 ? 1 : 0, packets[i]->asked);
        }
        return swept.hit;
    });
}

}  // namespace
}  // namespace Orvex::Testing
