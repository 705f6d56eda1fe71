// MediaLanesState: the lanes with their pools, and the producer's side.
#pragma once

#include <Reticor/MediaLanes.h>
#include <Reticor/PoolSet.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>

#include "Tool/lane/Lane.h"
#include "Tool/lane/LaneFeed.h"
#include "Tool/lane/LaneHandler.h"
#include "Tool/step/AutoSend.h"
#include "Tool/step/TapLine.h"

namespace Orvex::Reticor {

/// Thread safety: as the lanes say. What the producer does is under the mutex of a core of its own, and no
/// lane is waited for under that.
struct MediaLanesState final : SendTarget_IF {
    /// The lanes as a tap, which owns what it is shown.
    class Tap final : public CLevel2Buffer_IF {
    public:
        explicit Tap(MediaLanesState& lanes) : m_lanes(lanes) {}
        int Put(CMediaPacket* packet, int len, int mark, int level) override {
            return m_lanes.put_shown({packet, len, mark, level});
        }

    private:
        MediaLanesState& m_lanes;
    };

    /// A lane with its pool.
    struct Seat {
        CPoolSet pool;
        std::shared_ptr<Lane> lane;
        LaneHandler* handler = nullptr;  ///< With a reference.
    };

    /// What came of a packet.
    enum class Result { TAKEN, NESTED, NO_MEMORY };

    MediaLanesState() = default;
    MediaLanesState(const MediaLanesState&) = delete;
    MediaLanesState& operator=(const MediaLanesState&) = delete;
    /// Ends the pools, and then lets everything go.
    ~MediaLanesState();

    /// For the tests.
    static MediaLanesState& of(CMediaLanes& lanes) { return *lanes.m_state; }

    /// The next lane, which is not in use before all are there. False if something could not be had.
    bool add(unsigned int threads);
    /// All lanes are there.
    void open();
    Result put(const LanePacket::Parts& parts);
    int put_shown(const LanePacket::Parts& parts);
    Result put_info(CMediaPacket& packet, int arg);
    void do_send() override;
    void clear();

    template <typename Call>
    void for_each(const Call& call) {
        for (unsigned int i = 0; i < m_count; ++i) {
            call(*m_seats[i].lane);
        }
    }
    /// The lane of a sender; -1: none of these.
    int find(CMediaStreamSender& sender) const;
    /// The lane with most places left.
    unsigned int least() const;
    /// The lane for a sender without a place.
    unsigned int for_sender(CMediaStreamSender& sender);
    /// 1 if it is noted.
    int add_sender(CMediaStreamSender& sender, unsigned int lane);
    Lane::Left del_sender(CMediaStreamSender& sender);
    void add_stats(MediaLanesStats& stats, unsigned int lane);

    std::array<Seat, CMediaLanes::MOST_LANES> m_seats;
    unsigned int m_count = 0;
    const std::shared_ptr<MediaCore> m_core = std::make_shared<MediaCore>();
    LaneFeed m_feed INFRA_GUARDED_BY(CORE_MUTEX);
    TapLine m_taps INFRA_GUARDED_BY(CORE_MUTEX);
    std::atomic<uint64_t> m_puts{0};
    std::atomic<unsigned int> m_turn{0};  ///< Of the lanes that a sender without a place gets.
    AutoSend m_auto_send{*this};
    Tap m_tap{*this};

private:
    void deliver() INFRA_REQUIRES(CORE_MUTEX);
};

}  // namespace Orvex::Reticor
