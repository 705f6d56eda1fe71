// HandlerListing: the list of handlers for readers.
#include "Core/stats/HandlerListing.h"

#include <algorithm>
#include <unordered_map>

#include "Core/handle/HandlerList.h"
#include "Core/handle/ObjectId.h"
#include "Core/service/NetTimer.h"

namespace Orvex::Reticor {

namespace {

const char* state_name(HandlerState state) {
    static constexpr const char* NAMES[] = {"open", "closing", "detached", "released"};
    return NAMES[static_cast<size_t>(state)];
}

bool older(const HandlerInfo& a, const HandlerInfo& b) {
    return a.age_ms != b.age_ms ? a.age_ms > b.age_ms : a.id > b.id;
}

}  // namespace

void list_handlers(std::vector<HandlerInfo>& handlers) {
    std::unordered_map<int64_t, uint64_t> timers;
    for (int pool = 0; pool < PoolTable::POOL_LIMIT; ++pool) {
        std::vector<int64_t> owners;
        for (size_t chunk = 0; CNetTimer::heap().ListOwners(pool, chunk, owners); ++chunk) {
            for (const int64_t owner : owners) {
                ++timers[owner];
            }
            owners.clear();
        }
    }
    const uint32_t now_ms = HandlerList::NowMs();
    HandlerList::ForEach([&](const HandlerFacts& facts) {
        HandlerInfo info{};
        info.class_name = ClassRows::Name(facts.row);
        info.state = state_name(facts.state);
        info.id = facts.id;
        info.pool = facts.id != 0 ? INDEX_OF_ID(static_cast<long>(facts.id)) : -1;
        // One that came since then is new; the clock's difference is small.
        const uint32_t age_ms = now_ms - facts.born_ms;
        info.age_ms = age_ms > 0xFFFF0000u ? 0 : age_ms;
        info.references = facts.references;
        info.sockets = facts.sockets;
        const auto found = timers.find(facts.id);
        info.timers = found != timers.end() ? found->second : 0;
        handlers.push_back(info);
    });
    std::sort(handlers.begin(), handlers.end(), older);
}

}  // namespace Orvex::Reticor
