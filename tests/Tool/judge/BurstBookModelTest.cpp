// BurstBook beside all that a producer has put: the largest sum of one time, of this period and the one
// before.
#include "Tool/judge/BurstBook.h"

#include <gtest/gtest.h>

#include <vector>

#include "support/SeededRandom.h"

namespace Orvex::Testing {

using namespace Reticor;

namespace {

// It knows every frame since somebody looked, and counts anew for each question.
class BurstModel {
public:
    void note(uint64_t now_us, uint64_t bytes) {
        if (m_notes.empty() || now_us - m_period_us >= BurstBook::PERIOD_US) {
            const bool right_before = !m_notes.empty() && now_us - m_period_us < 2 * BurstBook::PERIOD_US;
            m_before_us = right_before ? m_period_us : now_us;
            m_period_us = now_us;
        }
        m_notes.push_back({now_us, bytes});
    }
    BurstBook::Burst largest() const {
        const BurstBook::Burst before = largest_between(m_before_us, m_period_us);
        const BurstBook::Burst now = largest_between(m_period_us, UINT64_MAX);
        return before.bytes > now.bytes ? before : now;
    }

private:
    struct Note {
        uint64_t us;
        uint64_t bytes;
    };

    // The most that had come in one time by any of these moments.
    BurstBook::Burst largest_between(uint64_t begin_us, uint64_t end_us) const {
        BurstBook::Burst most;
        for (size_t i = 0; i < m_notes.size(); ++i) {
            if (m_notes[i].us < begin_us || m_notes[i].us >= end_us) {
                continue;
            }
            for (const uint64_t shift_us : {uint64_t{0}, BurstBook::BURST_US / 2}) {
                const BurstBook::Burst one = in_time_of(i, shift_us);
                most = one.bytes > most.bytes ? one : most;
            }
        }
        return most;
    }
    BurstBook::Burst in_time_of(size_t last, uint64_t shift_us) const {
        const uint64_t time = (m_notes[last].us + shift_us) / BurstBook::BURST_US;
        BurstBook::Burst sum;
        for (size_t i = last + 1; i-- > 0;) {
            if ((m_notes[i].us + shift_us) / BurstBook::BURST_US != time) {
                break;
            }
            sum.bytes += m_notes[i].bytes;
            sum.took_us = m_notes[last].us - m_notes[i].us;
        }
        return sum;
    }

    std::vector<Note> m_notes;
    uint64_t m_period_us = 0;
    uint64_t m_before_us = 0;
};

TEST(BurstBookModel, KnowsTheLargestSumOfOneTimeHoweverTheFramesCome) {
    SeededRandom random;
    for (int round = 0; round < 20; ++round) {
        BurstBook book;
        BurstModel model;
        auto now_us = random.between<uint64_t>(1000000000, 2000000000);
        book.watch(now_us);
        for (int i = 0; i < 250; ++i) {
            // Mostly frame by frame, at times all at once, and now and then after a rest.
            now_us += random.oneIn(30)  ? random.between<uint64_t>(1000000, 15000000)
                      : random.oneIn(3) ? random.between<uint64_t>(0, 3000)
                                        : random.between<uint64_t>(10000, 60000);
            book.watch(now_us);
            const auto bytes = random.between<uint64_t>(0, 100000);
            book.note(now_us, bytes);
            model.note(now_us, bytes);
            ASSERT_EQ(model.largest().bytes, book.largest().bytes) << round << " " << i;
            ASSERT_EQ(model.largest().took_us, book.largest().took_us) << round << " " << i;
            ASSERT_LT(book.largest().took_us, BurstBook::BURST_US);
        }
    }
}

}  // namespace
}  // namespace Orvex::Testing
