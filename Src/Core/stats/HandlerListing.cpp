// HandlerListing: the list of handlers for readers.
#include "Core/stats/HandlerListing.h"

#include <algorithm>
#include <new>
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

int64_t held_at(const HandlerHolder& holder) {
    return static_cast<int64_t>(holder.taken - holder.given_back);
}

bool holds_more(const HandlerHolder* a, const HandlerHolder* b) {
    return held_at(*a) != held_at(*b) ? held_at(*a) > held_at(*b) : a->taken > b->taken;
}

/// Armed timers by the id of their handler.
std::unordered_map<int64_t, uint64_t> count_timers() {
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
    return timers;
}

}  // namespace

const HandlerHolder* HandlerListing::holder_at(uintptr_t address, uint64_t taken, uint64_t given_back) {
    const PlaceNames::Place& place = m_names.Of(address);
    HandlerHolder holder{};
    holder.function = place.function.c_str();
    holder.module = place.module.c_str();
    holder.offset = place.offset;
    holder.address = address;
    holder.taken = taken;
    holder.given_back = given_back;
    holder.in_library = place.in_library ? 1 : 0;
    m_holders.push_back(holder);
    return &m_holders.back();
}

void HandlerListing::put_holders(const HandlerFacts& facts, HandlerInfo& info) {
    const HolderNotes* const notes = facts.holders.get();
    if (notes == nullptr) {
        return;
    }
    m_lists.emplace_back();
    Holders& list = m_lists.back();
    info.noted = 1;
    info.own_references = facts.references;
    notes->ForEach([&](uintptr_t address, uint64_t taken, uint64_t given_back) {
        list.push_back(holder_at(address, taken, given_back));
        info.own_references -= held_at(*list.back());
    });
    std::sort(list.begin(), list.end(), holds_more);
    info.holder_count = static_cast<uint32_t>(list.size());
    info.holders = list.data();
}

void HandlerListing::gather_all() {
    const std::unordered_map<int64_t, uint64_t> timers = count_timers();
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
        put_holders(facts, info);
        m_handlers.push_back(info);
    });
    std::sort(m_handlers.begin(), m_handlers.end(), older);
}

bool HandlerListing::Gather() {
    try {
        gather_all();
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

}  // namespace Orvex::Reticor
