// CMediaVerdicts: why the clients of media buffers are slow.
#pragma once

#include <cstdint>

#include <Reticor/Export.h>
#include <Reticor/MediaDrops.h>

namespace Orvex::Reticor {

class CMediaBuffer;

/// What holds a client up. Later versions may add kinds.
enum class SenderVerdictKind : uint32_t {
    UNKNOWN,      ///< It was looked at too few times yet.
    WAITING,      ///< It waits for a frame to begin with.
    KEEPS_UP,     ///< Nothing.
    SLOW_READER,  ///< It reads too slowly: its receive window is closed.
    NETWORK,      ///< The way to it carries too little.
    BURST,        ///< It would keep up, but for frames that came all at once.
    BOTH,         ///< In part its reading, in part the network; or its socket is not a TCP one, and is full.
    STALLED,      ///< It takes nothing, and says so.
    SILENT,       ///< Nothing comes from it: the network, or its host, is dead.
};

/// How one client fares, and why. The caller's memory. Later versions add fields at the end: `size` says what
/// the caller knows of it, no more is written there, and what the library does not know is 0.
///
/// Rates and shares are of `over_us`: of the time for which the verdict has held, up to the window.
struct SenderVerdict {
    uint32_t size = sizeof(SenderVerdict);                ///< Bytes that the caller knows.
    uint32_t version = 1;                                 ///< For which the caller was built.
    SenderVerdictKind kind = SenderVerdictKind::UNKNOWN;  ///< The verdict.
    uint32_t listed = 0;                                  ///< 1 while it is on a buffer's list.
    int64_t sender = 0;                                   ///< The id of the CMediaStreamSender.
    uint64_t buffer = 0;          ///< The number of its buffer, the first of the process being 1.
    uint64_t over_us = 0;         ///< The time that rates and shares are of; 0: none yet.
    uint64_t stream_rate = 0;     ///< Bits in a second of its channels that were produced.
    uint64_t taken_rate = 0;      ///< Bits in a second that its peer has acknowledged.
    uint64_t lag_us = 0;          ///< Age of the frame that it stands on, and of what the kernel has unsent.
    uint64_t lag_bytes = 0;       ///< What it has not got yet, what the kernel has unsent included.
    uint64_t lag_frames = 0;      ///< Frames that it has not got whole.
    uint64_t unsent_bytes = 0;    ///< Of `lag_bytes`, what lies unsent in the kernel.
    uint64_t blocked_us = 0;      ///< Of the last window: for how long its socket was full.
    uint64_t quiet_us = 0;        ///< For how long nothing was acknowledged, though something waits.
    uint64_t left_us = 0;         ///< Until CMediaStreamSender::SetSendTimeout is over; all bits set: never.
    uint64_t burst_bytes = 0;     ///< The most that was put at once in the last ten to twenty seconds,
    uint64_t burst_us = 0;        ///< and within how long: 50 ms at most.
    uint64_t hole_frames = 0;     ///< Frames that it lost since they were too old, from its Create on.
    uint64_t skipped_frames = 0;  ///< Frames that its resume policy stepped over.
    uint64_t thinned_frames = 0;  ///< Disposable frames that were left out.
    uint32_t is_tcp = 0;          ///< 1: what follows is known.
    uint32_t closed_percent = 0;  ///< Of the time, for how much its receive window was closed.
    uint32_t busy_percent = 0;    ///< Of the time, for how much there was something to send.
    uint32_t segments = 0;        ///< Segments with data that were sent,
    uint32_t retransmitted = 0;   ///< and of them those that were sent again.
    uint32_t unacked = 0;         ///< Segments that are under way.
    uint32_t rtt_us = 0;          ///< Round trip.
    uint32_t congestion_window = 0;  ///< In segments.
    char sentence[160] = {};         ///< All of this in a sentence, in English, with an end mark.

    // What it did not get, by cause, counted when the sender passes a frame. A frame that is gone when its
    // turn comes is counted with the next one of its channel; its level is known for the last 1024 frames
    // of the channel. Nothing is counted without memory for it.
    MediaDrops too_old;     ///< Gone when its turn came, or expired.
    MediaDrops stepped;     ///< The resume policy stepped over it since the client is late.
    MediaDrops no_key;      ///< Its channel waited for a key frame: after a gap, or to begin with.
    MediaDrops not_chosen;  ///< Its channel was not chosen.
    MediaDrops filtered;    ///< The sender's filter kept it back.
    MediaDrops disposable;  ///< Left out so that others come in time; no frame needs it.
};

/// The verdicts on all senders of all media buffers. Looking is what makes them: whoever wants verdicts asks
/// again and again, each tenth of the window or more often, and nothing is measured while nobody does. A
/// verdict comes after a fifth of the window, and changes when two looks in a row agree.
///
/// A look asks the kernel about one socket (TCP_INFO), under the lock of its buffer. What lies in the receive
/// buffer of the peer is not seen here, and a large one hides a slow reader until it is full.
///
/// Thread safety: from any thread, but not inside a call-back of a buffer.
class RETICOR_API CMediaVerdicts {
public:
    /// Calls `call` for each sender that is on a buffer's list, or on that of `buffer` alone, those that
    /// suffer most first, with no lock held. It ends early when `call` gives false. `context` is handed
    /// through. A sender that was taken off and closed meanwhile can end on this thread. Result: how many
    /// there were; -1 without memory.
    static int List(bool (*call)(void* context, const SenderVerdict& verdict), void* context,
                    CMediaBuffer* buffer = nullptr);

    /// The same for the last 32 senders that have ended: the verdict on each when it left its list for the
    /// last time, the youngest first; of those that were looked at until then.
    static int ListEnded(bool (*call)(void* context, const SenderVerdict& verdict), void* context);

    /// The time over which is judged, in milliseconds, 10000 at the start; 100 to 600000, else nothing
    /// changes. For all senders, from their next look on. Result: 0, or -1.
    static int SetWindow(unsigned int window_ms);

    /// One word for a kind, with underscores: "slow_reader". Good for the life of the process.
    static const char* GetName(SenderVerdictKind kind);
};

}  // namespace Orvex::Reticor
