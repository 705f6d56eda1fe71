// DropBook: the frames that a sender did not send, by cause, level and channel.
#pragma once

#include <cstdint>
#include <memory>

#include <Reticor/MediaDrops.h>

#include "Tool/frame/LevelRing.h"
#include "Tool/frame/MediaFrame.h"

namespace Orvex::Reticor {

/// In the order of SenderVerdict's fields.
enum class DropCause : uint8_t { TOO_OLD, STEPPED, NO_KEY, NOT_CHOSEN, FILTERED, DISPOSABLE };

/// Most senders pass no frame, so the book is made with the first one. Without memory it stays closed, and
/// nothing is counted.
///
/// Of what is missing between two frames that went out, the sender has passed a part by itself, and those are
/// counted as they are passed. The rest was gone: how many those are is told by the numbers of the frames,
/// and of which levels, by the ring, without those that were passed.
///
/// Thread safety: none of its own; the lock of the sender's buffer guards it.
class DropBook {
public:
    static constexpr size_t CAUSES = 6;

    /// The sender is past a frame. `last` is the number of the last frame of the channel that it has begun,
    /// as SenderCourses tells it after this one was passed; 0: none.
    void pass(const CFrame& frame, DropCause cause, uint64_t last);
    /// The sender begins `frame`, and `frames` before it were gone. `last` as above. Without a ring nobody
    /// knows which they were.
    void lose(const CFrame& frame, uint64_t frames, uint64_t last, const LevelRing* ring);
    /// The frames that come are numbered anew.
    void forget_order();

    MediaDrops drops(DropCause cause) const {
        return m_pages != nullptr ? m_pages->drops[static_cast<size_t>(cause)] : MediaDrops();
    }

private:
    /// What was passed on a channel since a frame of it was begun.
    struct Passed {
        uint64_t last = 0;      ///< As told when a frame was passed: with another number, it is over.
        uint64_t withheld = 0;  ///< Those that moved that number on.
        uint32_t by_level[MEDIA_DROP_LEVELS] = {};
    };
    struct Pages {
        MediaDrops drops[CAUSES];
        Passed passed[MEDIA_DROP_CHANNELS];
    };

    bool open();

    std::unique_ptr<Pages> m_pages;  ///< Null until a frame is passed.
};

}  // namespace Orvex::Reticor
