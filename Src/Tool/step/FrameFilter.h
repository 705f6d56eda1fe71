// FrameFilter: what a product says of each frame that its sender has come to.
#pragma once

#include <Reticor/MediaStreamSender.h>

#include <cstdint>

#include <Infra/Function.h>
#include <Infra/Mutex.h>

#include "Tool/frame/MediaFrame.h"

namespace Orvex::Reticor {

/// The product's function is asked about a frame once, however often its sender looks at it: a slow one looks
/// at the frame that it stands on in each step.
///
/// Thread safety: set and drop, any thread; the mutex is the owner's, and entered here; it is not held over
/// the call. All else under the lock of the sender's buffer.
class FrameFilter {
public:
    using Function = Infra::TFunction1<MediaVerdict, const MediaOffer&>;

    explicit FrameFilter(Infra::CMutex& mutex) : m_mutex(mutex) {}
    ~FrameFilter() { delete m_function; }
    FrameFilter(const FrameFilter&) = delete;
    FrameFilter& operator=(const FrameFilter&) = delete;

    /// Takes a copy of `function` in place of the one before. False, and there is none, without memory.
    bool set(const Function& function);
    void drop();

    /// What it says of a complete frame, and has said if it was asked before; SEND without a function. The
    /// function may replace itself.
    MediaVerdict judge(const CFrame& frame, uint64_t now_us);

    /// The frame does not go out, and the filter is the reason.
    bool withholds(const CFrame& frame) const {
        return has_wait(frame) || (knows(frame) && m_verdict == MediaVerdict::SKIP);
    }
    /// The sender is past a frame that was withheld.
    void count(const CFrame& frame) {
        ++m_stats.frames;
        m_stats.bytes += static_cast<uint64_t>(frame.m_frame_len);
    }
    const MediaFilterStats& stats() const { return m_stats; }

    /// The numbers of frames are another buffer's from now on.
    void forget_order() { m_ordinal = 0; }

private:
    /// Its channel waits for a key frame since the filter has said so.
    bool has_wait(const CFrame& frame) const { return (m_waits & frame.channel_bit()) != 0; }
    void change(Function* function);
    MediaVerdict ask(const MediaOffer& offer);
    bool knows(const CFrame& frame) const {
        return m_ordinal == frame.m_ordinal && m_channel == frame.channel();
    }

    Infra::CMutex& m_mutex;
    Function* m_function INFRA_GUARDED_BY(m_mutex) = nullptr;  ///< Owned.
    // The last frame that it was asked about.
    uint64_t m_ordinal = 0;  ///< On its channel; 0: none.
    int m_channel = 0;
    MediaVerdict m_verdict = MediaVerdict::SEND;
    uint8_t m_waits = 0;  ///< Channels.
    MediaFilterStats m_stats;
};

}  // namespace Orvex::Reticor
