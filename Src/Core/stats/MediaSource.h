// MediaSource: the media buffers and their senders in a snapshot.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include <Reticor/MediaVerdicts.h>

namespace Orvex::Reticor {

/// A media buffer.
struct MediaBufferRow {
    uint64_t buffer = 0;       ///< Its number.
    uint64_t senders = 0;      ///< On its list.
    uint64_t frames = 0;       ///< Complete ones that it holds,
    uint64_t bytes = 0;        ///< and their bytes.
    uint64_t put_bytes = 0;    ///< Of frames that were ever put.
    uint64_t held_frames = 0;  ///< All that it has the packets of: complete ones, those that wait for senders
    uint64_t held_bytes = 0;   ///< that step ahead, and the one that is being filled.
};

/// What a snapshot has of media.
struct MediaRows {
    std::vector<MediaBufferRow> buffers;  ///< By number.
    std::vector<SenderVerdict> senders;   ///< Those that suffer most first.
};

/// Media stands above the snapshot: what gathers it is entered here when the library is set up.
class MediaSource {
public:
    using Gather = void (*)(MediaRows& rows);

    static void Set(Gather gather) { sm_gather.store(gather, std::memory_order_release); }
    /// Without one, nothing. An exception comes out of the vectors alone.
    static void Ask(MediaRows& rows) {
        if (const Gather gather = sm_gather.load(std::memory_order_acquire)) {
            gather(rows);
        }
    }

private:
    inline static std::atomic<Gather> sm_gather{nullptr};
};

}  // namespace Orvex::Reticor
