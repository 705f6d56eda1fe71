// LeftHandlers: what a pool leaves behind at its end.
#include "Core/stats/LeftHandlers.h"

#include <string_view>
#include <utility>

#include "Core/count/ClassRows.h"
#include "Core/handle/HandlerList.h"
#include "Core/handle/ObjectId.h"

namespace Orvex::Reticor {

namespace {

/// Classes whose objects the library makes for itself. The kit names whoever stays by itself, and holds
/// references on others until it goes.
bool is_own(std::string_view name) {
    constexpr std::string_view KIT = "Orvex::Reticor::Kit::";
    return name.substr(0, KIT.size()) == KIT || name == "Orvex::Reticor::CSenderHandler" ||
           name == "Orvex::Reticor::CR3Daemon" || name == "Orvex::Reticor::CR3TelnetSession";
}

}  // namespace

LeftHandlers::LeftHandlers(int index, int64_t first, int64_t next) {
    uint32_t open[ClassRows::COUNT] = {};
    uint32_t unreleased[ClassRows::COUNT] = {};
    const size_t drawn = CObjectId::place_of(next * (int64_t{1} << CObjectId::COUNTER_SHIFT), first);
    HandlerList::ForEach([&](const HandlerFacts& facts) {
        // The last reference of some is dropped as soon as the lock of the end is left.
        const bool released_soon = facts.dropped_soon && facts.references <= 1;
        if (facts.id == 0 || INDEX_OF_ID(static_cast<long>(facts.id)) != index || released_soon ||
            CObjectId::place_of(facts.id, first) >= drawn) {
            return;
        }
        open[facts.row] += facts.state == HandlerState::OPEN ? 1 : 0;
        unreleased[facts.row] +=
            facts.state == HandlerState::CLOSING || facts.state == HandlerState::DETACHED ? 1 : 0;
    });
    for (uint32_t row = 0; row < ClassRows::COUNT; ++row) {
        const char* const name = ClassRows::Name(row);
        if (open[row] + unreleased[row] != 0 && !is_own(name)) {
            insert({name, open[row], unreleased[row]});
        }
    }
    if (m_other_classes != 0) {
        drop_last();  // its line tells of the others
    }
}

void LeftHandlers::drop_last() {
    --m_count;
    ++m_other_classes;
    m_other_handlers += m_rows[m_count].open + m_rows[m_count].unreleased;
}

/// Keeps the rows in order, and the last one that has no place among the others.
void LeftHandlers::insert(const Row& row) {
    m_rows[m_count++] = row;
    for (size_t i = m_count - 1;
         i > 0 && m_rows[i].open + m_rows[i].unreleased > m_rows[i - 1].open + m_rows[i - 1].unreleased;
         --i) {
        std::swap(m_rows[i], m_rows[i - 1]);
    }
    if (m_count > MOST) {
        drop_last();
    }
}

}  // namespace Orvex::Reticor
