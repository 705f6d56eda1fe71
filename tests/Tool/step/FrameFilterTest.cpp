// FrameFilter: which frames are asked about, what is remembered, and what counts as kept back.
#include "Tool/step/FrameFilter.h"

#include <gtest/gtest.h>

#include <vector>

#include <Infra/LockClasses.h>

namespace Orvex::Testing {

using namespace Reticor;

namespace {

class FilterOfASender : public ::testing::Test {
protected:
    // The function of these cases: notes the offer, and says what it is told to.
    struct Book {
        MediaVerdict judge(const MediaOffer& offer) {
            offers.push_back(offer);
            return says;
        }
        std::vector<MediaOffer> offers;
        MediaVerdict says = MediaVerdict::SEND;
    };

    // A frame of `length` bytes, with this number on its channel.
    class Numbered : public CFrame {
    public:
        Numbered(int channel, uint64_t ordinal, bool key, int level = 5, int64_t length = 100) {
            m_level = mediaLevel(channel, level);
            m_frame_len = length;
            place(0, ordinal, 0);
            if (key) {
                set_key();
            }
            offer(1000000);
        }
    };

    Book book;
    Infra::CMutex mutex{Infra::LockClass::MEDIA_OTHER};
    FrameFilter filter{mutex};
    FrameFilter::Function function{&Book::judge, &book};
};

TEST_F(FilterOfASender, WithoutAFunctionAllIsSent) {
    const Numbered frame(0, 1, true);
    EXPECT_EQ(MediaVerdict::SEND, filter.judge(frame, 1000000));
    EXPECT_FALSE(filter.withholds(frame));
    EXPECT_EQ(1U, filter.stats().asked) << "nobody answered, but it was asked";
}

TEST_F(FilterOfASender, TheOfferTellsTheFrame) {
    EXPECT_TRUE(filter.set(function));
    const Numbered frame(3, 7, true, 4, 1234);
    filter.judge(frame, 1250000);
    ASSERT_EQ(1U, book.offers.size());
    EXPECT_EQ(3, book.offers[0].channel);
    EXPECT_EQ(4, book.offers[0].level);
    EXPECT_TRUE(book.offers[0].key);
    EXPECT_EQ(1234U, book.offers[0].bytes);
    EXPECT_EQ(250000U, book.offers[0].age_us);
    EXPECT_EQ(nullptr, book.offers[0].info);
    const Numbered next(3, 8, false);
    filter.judge(next, 999999);
    EXPECT_EQ(0U, book.offers[1].age_us) << "another clock reading";
    EXPECT_FALSE(book.offers[1].key);
}

TEST_F(FilterOfASender, AFrameIsAskedAboutOnce) {
    EXPECT_TRUE(filter.set(function));
    book.says = MediaVerdict::SKIP;
    const Numbered frame(0, 1, true);
    EXPECT_EQ(MediaVerdict::SKIP, filter.judge(frame, 0));
    book.says = MediaVerdict::SEND;
    EXPECT_EQ(MediaVerdict::SKIP, filter.judge(frame, 0));
    EXPECT_TRUE(filter.withholds(frame));
    EXPECT_EQ(1U, book.offers.size());
    const Numbered other_channel(1, 1, true);
    EXPECT_EQ(MediaVerdict::SEND, filter.judge(other_channel, 0));
    EXPECT_EQ(2U, book.offers.size()) << "the same number, and another frame";
    filter.forget_order();
    EXPECT_EQ(MediaVerdict::SEND, filter.judge(other_channel, 0));
    EXPECT_EQ(3U, book.offers.size()) << "of another buffer";
}

TEST_F(FilterOfASender, AChannelThatWaitsIsAskedAboutAtItsKeyFrame) {
    EXPECT_TRUE(filter.set(function));
    book.says = MediaVerdict::WAIT_KEY;
    const Numbered first(0, 1, false);
    EXPECT_EQ(MediaVerdict::WAIT_KEY, filter.judge(first, 0));
    book.says = MediaVerdict::SEND;
    const Numbered second(0, 2, false);
    EXPECT_EQ(MediaVerdict::WAIT_KEY, filter.judge(second, 0));
    EXPECT_TRUE(filter.withholds(second));
    EXPECT_EQ(1U, book.offers.size());
    const Numbered other(1, 1, false);
    EXPECT_EQ(MediaVerdict::SEND, filter.judge(other, 0)) << "another channel goes on";
    EXPECT_FALSE(filter.withholds(other));
    const Numbered key(0, 3, true);
    EXPECT_EQ(MediaVerdict::SEND, filter.judge(key, 0));
    EXPECT_FALSE(filter.withholds(key));
    const Numbered after(0, 4, false);
    EXPECT_EQ(MediaVerdict::SEND, filter.judge(after, 0));
}

TEST_F(FilterOfASender, AKeyFrameMayBeWaitedOutToo) {
    EXPECT_TRUE(filter.set(function));
    book.says = MediaVerdict::WAIT_KEY;
    for (uint64_t i = 1; i <= 3; ++i) {
        const Numbered key(0, i, true);
        EXPECT_EQ(MediaVerdict::WAIT_KEY, filter.judge(key, 0));
    }
    EXPECT_EQ(3U, book.offers.size());
}

TEST_F(FilterOfASender, AWaitOutlastsTheFunction) {
    EXPECT_TRUE(filter.set(function));
    book.says = MediaVerdict::WAIT_KEY;
    filter.judge(Numbered(0, 1, true), 0);
    filter.drop();
    EXPECT_EQ(MediaVerdict::WAIT_KEY, filter.judge(Numbered(0, 2, false), 0));
    EXPECT_EQ(MediaVerdict::SEND, filter.judge(Numbered(0, 3, true), 0));
    EXPECT_EQ(MediaVerdict::SEND, filter.judge(Numbered(0, 4, false), 0));
}

TEST_F(FilterOfASender, CountsWhatItKeptBack) {
    EXPECT_TRUE(filter.set(function));
    filter.count(Numbered(0, 1, true, 5, 100));
    filter.count(Numbered(0, 2, true, 5, 23));
    EXPECT_EQ(2U, filter.stats().frames);
    EXPECT_EQ(123U, filter.stats().bytes);
    EXPECT_EQ(0U, filter.stats().asked);
}

// It is set from any thread.
TEST_F(FilterOfASender, ItMayBeReplacedInsideItself) {
    struct Replaces {
        MediaVerdict judge(const MediaOffer&) {
            EXPECT_TRUE(filter->set({&Book::judge, book}));
            return MediaVerdict::SKIP;
        }
        FrameFilter* filter;
        Book* book;
    } replaces{&filter, &book};
    EXPECT_TRUE(filter.set({&Replaces::judge, &replaces}));
    EXPECT_EQ(MediaVerdict::SKIP, filter.judge(Numbered(0, 1, true), 0));
    EXPECT_TRUE(book.offers.empty());
    EXPECT_EQ(MediaVerdict::SEND, filter.judge(Numbered(0, 2, true), 0));
    EXPECT_EQ(1U, book.offers.size());
}

}  // namespace
}  // namespace Orvex::Testing
