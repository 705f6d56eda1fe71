// Timeline: distances between stamps.

#include "media_relay/mp4/Timeline.h"

namespace relay {

namespace {

constexpr int64_t kBack = 90000;        // a second: pieces of sound may be a little out of order
constexpr int64_t kAhead = 10 * 90000;  // an input may rest for ten seconds

}  // namespace

bool Timeline::isNear(int64_t distance) {
    return distance >= -kBack && distance <= kAhead;
}

int64_t Timeline::put(Track track, uint64_t stamp, int64_t step) {
    State& own = m_tracks[track];
    const State& other = m_tracks[track == VIDEO ? SOUND : VIDEO];
    const int64_t moved = stampDistance(own.stamp, stamp);
    if (own.begun && isNear(moved)) {
        own.time += moved;
    } else {
        const int64_t byOther = other.time + stampDistance(other.stamp, stamp);
        if (other.begun && (!own.begun || isNear(byOther - own.time))) {
            own.time = byOther;
        } else {
            own.time = own.begun ? own.time + step : static_cast<int64_t>(stamp);
        }
    }
    own.begun = true;
    own.stamp = stamp;
    return own.time;
}

}  // namespace relay
