// CFrameStore: memory is used again, frames are not.
#include "Tool/frame/FrameStore.h"

#include <vector>

#include "support/media/MediaFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

using FrameStore = MediaFixture;

TEST_F(FrameStore, MemoryOfAFrameThatEndedServesTheNextOneWhichBeginsEmpty) {
    CFrameStore store;
    CFrame* const first = store.make();
    const void* const memory = first;
    for (int i = 0; i < 33; ++i) {
        first->Put(&packet(1), 1, i == 32 ? 1 : 0, mediaLevel(2, 5));
    }
    store.end(first);
    for (int i = 0; i < 33; ++i) {
        EXPECT_EQ(1, packets[static_cast<std::size_t>(i)].releases);
    }
    CFrame* const next = store.make();
    EXPECT_EQ(next == memory, CFrameStore::SPARES_MOST > 0);
    EXPECT_EQ(0U, next->m_packet_num);
    EXPECT_EQ(32U, next->m_packet_cap);
    EXPECT_EQ(0, next->m_frame_len);
    EXPECT_EQ(0, next->m_valid);
    EXPECT_EQ(1, next->m_level);
    store.end(next);
}

TEST_F(FrameStore, KeepsTheMemoryOfSoManyFramesAndNoMore) {
    constexpr uint32_t MORE = 10;
    CFrameStore store;
    std::vector<CFrame*> frames;
    for (uint32_t i = 0; i < CFrameStore::SPARES_MOST + MORE; ++i) {
        frames.push_back(store.make());
        frames.back()->Put(&packet(1), 1, 1, 1);
    }
    const std::vector<CFrame*> first = frames;
    for (CFrame* const frame : frames) {
        store.end(frame);
    }
    EXPECT_EQ(first.size(), released.size());
    std::set<const CFrame*> kept(first.begin(), first.begin() + CFrameStore::SPARES_MOST);
    for (CFrame*& frame : frames) {
        frame = store.make();
        EXPECT_EQ(0U, frame->m_packet_num);
        kept.erase(frame);
    }
    EXPECT_TRUE(kept.empty()) << "memory that was kept is used first";
    for (CFrame* const frame : frames) {
        store.end(frame);
    }
}

}  // namespace Orvex::Testing
