// Timeline: one time without end out of time stamps that begin again after 26.5 hours, and that jump.
#pragma once

#include <array>
#include <cstdint>

#include "media_relay/mpegts/PesUnit.h"

namespace relay {

/// How far it is from one time stamp to another, at most half of all there are, back or forth.
inline int64_t stampDistance(uint64_t from, uint64_t to) {
    const uint64_t ahead = (to + kStampWrap - from) % kStampWrap;
    const uint64_t back = kStampWrap - ahead;
    return ahead < back ? static_cast<int64_t>(ahead) : -static_cast<int64_t>(back);
}

/// Pictures and sound of one programme. All times are in ticks of 90 kHz.
class Timeline {
public:
    enum Track { VIDEO, SOUND, TRACKS };

    /// The time of the next unit of this track. Where its stamps jump, it goes on `step` after its last one;
    /// the other track, whose stamps jump a little sooner or later, then goes on in step with it.
    int64_t put(Track track, uint64_t stamp, int64_t step);

private:
    struct State {
        bool begun = false;
        uint64_t stamp = 0;  // the last one
        int64_t time = 0;
    };

    static bool isNear(int64_t distance);

    std::array<State, TRACKS> m_tracks;
};

}  // namespace relay
