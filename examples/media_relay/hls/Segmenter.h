// Segmenter: cuts fragments of MP4 into the segments and parts of a window.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "media_relay/hls/Window.h"
#include "media_relay/mp4/Remuxer.h"

namespace relay {

/// A segment begins with a key picture, two seconds or more after the one before; a part is 0.2 s long, in
/// whole pictures. How long both are at most must be said in the first playlist and never changes: so the
/// first segment is held back until it is whole, and tells. Where key pictures are rarer than every six
/// seconds, or come more rarely later than at the start, a segment begins without one.
///
/// A rest of the input, with a picture that lasts longer than a part may, is a segment in one piece. If it is
/// longer than a segment may be, times jump after it.
class Segmenter {
public:
    /// Fills `window`, which is empty and outlives it, with segments from that number on.
    Segmenter(Window& window, uint64_t first_number) : m_window(window), m_number(first_number) {}

    /// What the fragments from now on play with. The next one that a player can begin with begins a segment.
    void setInit(const SharedBytes& init);

    /// `now_us` is the time of day, since 1970: that of the fragment's end. True if the window shows more.
    bool put(const Mp4Fragment& fragment, int64_t now_us);

    /// Nothing follows: what is under way is whole.
    void end();

private:
    struct Held {
        Mp4Fragment fragment;
        int64_t now_us = 0;
    };

    uint64_t usualPicture() const;
    void decide();
    bool cut(const Mp4Fragment& fragment, int64_t now_us);
    bool isFull(const Mp4Fragment& fragment, uint64_t adds) const;
    bool isRest(uint64_t adds) const;
    void beginSegment(const Mp4Fragment& fragment, int64_t now_us, bool in_one_piece);
    void endPart();
    void endSegment();

    Window& m_window;
    uint64_t m_number;
    SharedBytes m_init;
    uint64_t m_init_number = 0;
    bool m_is_open = false;    // a key picture has come since the last init segment
    std::vector<Held> m_held;  // of the first segment
    bool m_is_decided = false;
    bool m_first_in_one_piece = false;
    uint64_t m_part_wanted = 0;  // how long parts are
    uint64_t m_part_target = 0;  // and may be
    uint64_t m_longest = 0;      // a segment may be
    uint64_t m_picture = 0;      // how long one is, as a rule

    bool m_in_segment = false;
    bool m_jumps = false;  // the next segment does
    uint64_t m_end = 0;    // of what has come, in ticks
    uint64_t m_segment_begin = 0;
    uint64_t m_part_begin = 0;
    std::vector<uint8_t> m_part;  // under way
    bool m_part_is_key = false;
    int64_t m_zero_us = 0;  // time of day of the stream's time 0
};

}  // namespace relay
