// SlotSet: which of a file's buffers are in one place.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Orvex::Reticor {

/// Numbers from 0 to below a limit, in order. Finding one costs a look at 64 of them at a time.
///
/// Thread safety: none.
class SlotSet {
public:
    static constexpr unsigned NONE = UINT32_MAX;

    /// An empty set. Throws std::bad_alloc; nothing else here takes memory.
    void Resize(unsigned limit) { m_words.assign((limit + WORD - 1) / WORD, 0); }

    void Add(unsigned number) { m_words[number / WORD] |= bit(number); }
    void Remove(unsigned number) { m_words[number / WORD] &= ~bit(number); }

    /// The lowest number from `from` on, or NONE.
    unsigned Next(unsigned from) const {
        size_t index = from / WORD;
        if (index >= m_words.size()) {
            return NONE;
        }
        uint64_t word = m_words[index] & ~(bit(from) - 1);
        while (word == 0) {
            if (++index == m_words.size()) {
                return NONE;
            }
            word = m_words[index];
        }
        return static_cast<unsigned>(index) * WORD + static_cast<unsigned>(__builtin_ctzll(word));
    }

private:
    static constexpr unsigned WORD = 64;
    static uint64_t bit(unsigned number) { return uint64_t{1} << (number % WORD); }

    std::vector<uint64_t> m_words;
};

}  // namespace Orvex::Reticor
