// Rounds: how often a test tries a race.
#pragma once

#include <cstdint>

#include <Infra/Time.h>

namespace Orvex::Testing {

/// That number of rounds, but no further one once a quarter of a minute is over. Where threads wait for
/// each other at every step, a step costs a turn of the system's scheduler on a machine with other work,
/// and a fixed number of them minutes: that looked like a hang. Fewer rounds race all the same.
class Rounds {
public:
    explicit Rounds(int most) : m_left(most) {}

    /// Whether there is a further round; the first one always.
    bool next() {
        const uint64_t now_us = Infra::CTime::getCurrentMicroSecond();
        m_begin_us = m_begin_us == 0 ? now_us : m_begin_us;
        return m_left-- > 0 && now_us - m_begin_us < LONGEST_US;
    }

private:
    static constexpr uint64_t LONGEST_US = 15000000;

    int m_left;
    uint64_t m_begin_us = 0;
};

}  // namespace Orvex::Testing
