// MediaReceiverState: what a CMediaStreamReceiver knows, and its pace.
#pragma once

#include <atomic>
#include <cstdint>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Reticor/MediaStreamReceiver.h>

#include "Core/count/ObjectRoll.h"
#include "Core/count/Tally.h"
#include "Tool/receive/PacedReceiver.h"

namespace Orvex::Reticor {

/// The pace is its own; what is called at that pace is the receiver's.
struct MediaReceiverState : CPacedReceiver_IF {
    explicit MediaReceiverState(CMediaStreamReceiver& receiver) : m_receiver(receiver) {}
    virtual ~MediaReceiverState() = default;

    static constexpr uint64_t NOT_SEEN = ~uint64_t{0};

    /// What becomes of a unit whose media time is known: sets the clock by the first one, and tells after how
    /// many ticks of `period_us` the next one is due; 0 or less means at once.
    void pace(long long media_us, uint64_t now_us, int64_t period_us) INFRA_REQUIRES(m_mutex);

    CMediaStreamReceiver& m_receiver;
    /// Handler to tell of failure and of the end. Set and read without a lock, as is m_mode.
    std::atomic<long> m_exception_id{0};
    std::atomic<receiver_mode> m_mode{receiver_active};
    /// Scaled media time of the first unit since the start.
    uint64_t m_first_time INFRA_GUARDED_BY(m_mutex) = NOT_SEEN;
    /// Microsecond clock at that first unit.
    uint64_t m_start_time INFRA_GUARDED_BY(m_mutex) = 0;
    /// Wall time played, in microseconds.
    uint64_t m_elapsed INFRA_GUARDED_BY(m_mutex) = 0;
    int64_t m_start_offset INFRA_GUARDED_BY(m_mutex) = 0;
    /// Ticks to skip before the next call of the paced callback. The receiver's thread alone touches it.
    int32_t m_wait_ticks = 1;
    float m_speed INFRA_GUARDED_BY(m_mutex) = 1.0F;
    Infra::CMutex m_mutex{Infra::LockClass::RECEIVER};
    Tally m_calls;  ///< Of the receiver, by its thread.
    /// In snapshots. The last member.
    RollEntry m_roll{KIND, &figures, this};

private:
    static const ObjectKind KIND;

    static ObjectValues figures(const void* object);
};

/// `media_us` divided by `speed`, in single precision, cut to a whole number. What no 64-bit number holds (an
/// infinity, no number at all) gives INT64_MIN, as the machine's own conversion does.
int64_t scale_media_time(long long media_us, float speed);

}  // namespace Orvex::Reticor
