// SenderLine: which senders are on the list, and what the list holds of them.
#include "Tool/media/SenderLine.h"

#include "support/core/Probes.h"
#include "support/media/MediaFixture.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

class SenderLineOfABuffer : public MediaFixture {
protected:
    void add(MediaClient& one) {
        const MediaStep step(core);
        line.add(one.state(), std::make_unique<GoneSender>(GoneSender{one.sender}));
    }
    void remove(MediaClient& one) {
        const MediaStep step(core);
        line.remove(one.state());
    }
    std::vector<const SenderRecord*> listed() {
        const CoreGuard guard(*core);
        std::vector<const SenderRecord*> found;
        for (const SenderRecord* entry = line.first(); entry != nullptr; entry = entry->m_next) {
            EXPECT_TRUE(line.holds(*entry));
            found.push_back(entry);
        }
        return found;
    }
    bool ranEmpty() {
        const CoreGuard guard(*core);
        return line.ran_empty();
    }

    std::shared_ptr<MediaCore> core = std::make_shared<MediaCore>();
    SenderLine line{*core};
    MediaClient& a = client();
    MediaClient& b = client();
    MediaClient& c = client();
};

using Records = std::vector<const SenderRecord*>;

TEST_F(SenderLineOfABuffer, TheNewestIsFirstAndAnyOneCanGo) {
    add(a);
    add(b);
    add(c);
    EXPECT_EQ((Records{&c.state(), &b.state(), &a.state()}), listed());
    remove(b);
    EXPECT_EQ((Records{&c.state(), &a.state()}), listed());
    remove(b);
    remove(c);
    EXPECT_EQ((Records{&a.state()}), listed());
    remove(a);
    EXPECT_EQ(Records{}, listed());
}

TEST_F(SenderLineOfABuffer, AReferenceIsHeldWhileOneIsOnTheListAndItsCoreIsNoted) {
    add(a);
    EXPECT_EQ(2, HandlerProbe::references(*a.sender));
    EXPECT_EQ(core.get(), a.state().m_list);
    remove(a);
    EXPECT_EQ(1, HandlerProbe::references(*a.sender));
    EXPECT_EQ(nullptr, a.state().m_list);
    add(a);
    add(b);
    {
        const MediaStep step(core);
        line.clear();
        EXPECT_EQ(2, HandlerProbe::references(*a.sender)) << "dropped when the mutex is left";
    }
    EXPECT_EQ(1, HandlerProbe::references(*a.sender));
    EXPECT_EQ(1, HandlerProbe::references(*b.sender));
}

TEST_F(SenderLineOfABuffer, SaysOnceThatTheLastOneHasGone) {
    EXPECT_FALSE(ranEmpty()) << "nobody has come yet";
    add(a);
    EXPECT_FALSE(ranEmpty());
    remove(a);
    EXPECT_TRUE(ranEmpty());
    EXPECT_FALSE(ranEmpty());
}

}  // namespace
}  // namespace Orvex::Testing
