// LaneHandler: a message, and a lane is served.
#include "Tool/lane/LaneHandler.h"

#include <new>
#include <utility>

#include <Infra/Log.h>

#include "Core/pool/PoolTable.h"
#include "Core/service/Message.h"
#include "Tool/media/MediaBufferState.h"

namespace Orvex::Reticor {

const ObjectKind LaneHandler::KIND{
    "lane",
    {{{"buffer", "The number of its media buffer.", false, true},
      {"waiting_frames", "Frames that no worker of a lane has taken yet.", false},
      {"waiting_bytes", "Their bytes.", false},
      {"lost_frames", "Frames that lanes have lost, since more waited than may.", true},
      {"lost_bytes", "Their bytes.", true}}}};

ObjectValues LaneHandler::figures(const void* object) {
    const auto& handler = *static_cast<const LaneHandler*>(object);
    const LaneInbox::Stats stats = handler.m_lane->inbox().glance();
    return {handler.m_buffer_number, stats.frames, stats.bytes, stats.lost_frames, stats.lost_bytes};
}

LaneHandler::LaneHandler(std::shared_ptr<Lane> lane, int pool)
    : CNetHandler(pool), m_lane(std::move(lane)), m_buffer_number(m_lane->state().m_roll.number()) {}

LaneHandler* LaneHandler::begin(const std::shared_ptr<Lane>& lane, int pool) {
    auto* const handler = new (std::nothrow) LaneHandler(lane, pool);
    if (handler == nullptr) {
        return nullptr;
    }
    if (handler->GetID() == 0) {
        handler->Close();
        return nullptr;
    }
    handler->AddRef();
    lane->set_handler(handler->GetID());
    handler->m_roll.enter(handler->GetID());
    return handler;
}

// The first reference is the pool's to drop, when it takes the close message. One that has ended will not.
void LaneHandler::end() {
    m_lane->set_handler(0);
    const bool found = static_cast<bool>(PoolTable::FindHandler(GetID()));
    Close();
    if (!found) {
        DecRef();
    }
    DecRef();
}

// Where the message for the rest cannot be posted, the rest is served at once.
int LaneHandler::handle_message(long /*sender*/, unsigned int /*msg*/, long /*attach*/) {
    const long id = GetID();
    while (m_lane->serve(FRAMES_OF_A_CALL) && !CMessage::Notify(id, id, 0, 0, false)) {
    }
    if (const uint32_t failures = m_lane->take_failures()) {
        INFRA_LOG(2, "CMediaLanes, no memory for %u frames in a lane\n", failures);
    }
    return 0;
}

int LaneHandler::handle_close(CNetHandler* /*self*/) {
    delete this;
    return 0;
}

}  // namespace Orvex::Reticor
