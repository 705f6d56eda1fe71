// LaneHandler: what a lane is on its pool.
#pragma once

#include <Reticor/NetHandler.h>

#include <cstdint>
#include <memory>

#include "Core/count/ObjectRoll.h"
#include "Tool/lane/Lane.h"

namespace Orvex::Reticor {

/// A message to it has a worker of the pool serve the lane.
class LaneHandler final : public CNetHandler {
public:
    /// Frames in one call; then the pool's other handlers have their turn.
    static constexpr uint32_t FRAMES_OF_A_CALL = 64;

    /// The lane is served on that pool from now on. Gives a reference; null if there is no memory.
    static LaneHandler* begin(const std::shared_ptr<Lane>& lane, int pool);
    /// Nobody is told any more, and the reference is dropped. A call that has begun goes on until the pool
    /// has ended. Also after the pool's end.
    void end();

    int handle_message(long sender, unsigned int msg, long attach) override;
    int handle_close(CNetHandler* self) override;

private:
    static const ObjectKind KIND;

    LaneHandler(std::shared_ptr<Lane> lane, int pool);
    ~LaneHandler() override = default;

    static ObjectValues figures(const void* object);

    const std::shared_ptr<Lane> m_lane;
    const uint64_t m_buffer_number;
    RollEntry m_roll{KIND, &LaneHandler::figures, this};
};

}  // namespace Orvex::Reticor
