// Ladder: which of two qualities a client gets.
#pragma once

#include <atomic>
#include <cstdint>

#include <Reticor/MediaStreamSender.h>

namespace relay {

/// The filter of a client's sender. Down when the client is late or has missed pictures, to the newest key
/// frame; up again when it has kept up for so many of them in a row that it does not go down again at once.
///
/// Each picture comes twice, the low quality first, with key frames at the same time. Threads: `choose` comes
/// under the buffer's lock, all else from any thread.
class Ladder {
public:
    static constexpr unsigned kHighChannel = 0;
    static constexpr unsigned kLowChannel = 3;  // 1 is sound, 2 what else a programme holds

    /// A client that is later than `late_ms` goes down, and up again after `prompt_keys` key frames in a row
    /// at which it was not even a quarter of that late: two seconds where each picture is a key frame.
    explicit Ladder(unsigned late_ms, unsigned prompt_keys = 50)
        : m_late_us(uint64_t{late_ms} * 1000), m_prompt_keys(prompt_keys) {}

    Orvex::Reticor::MediaVerdict choose(const Orvex::Reticor::MediaOffer& offer);

    /// The client has missed pictures: whoever steps ahead is not late after it.
    void missed() { m_missed.store(true, std::memory_order_relaxed); }

    bool isLow() const { return m_low.load(std::memory_order_relaxed); }

private:
    void decide(uint64_t age_us);

    const uint64_t m_late_us;
    const unsigned m_prompt_keys;
    std::atomic<bool> m_low{false};
    std::atomic<bool> m_missed{false};
    unsigned m_prompt = 0;   // key frames in a row at which it was not even a quarter of that late
    bool m_decided = false;  // by the low quality of the picture whose high one comes next
};

}  // namespace relay
