// MediaSource: the media buffers and their senders in a snapshot.
#pragma once

#include <atomic>
#include <vector>

#include <Reticor/MediaVerdicts.h>
#include <Reticor/Stats.h>

#include "Tool/judge/EndedVerdicts.h"

namespace Orvex::Reticor {

/// What a snapshot has of media.
struct MediaRows {
    std::vector<BufferStats> buffers;    ///< By number.
    std::vector<SenderVerdict> senders;  ///< Those that suffer most first.
    std::vector<SenderVerdict> ended;    ///< Of the last ones, the youngest first.
    EndedVerdicts::Ever ended_ever{};    ///< By kind.
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
