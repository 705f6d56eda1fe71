// ConnectionMail: calls that were posted to a connection, and those that wait for their time.
#include "Kit/call/ConnectionMail.h"

#include <algorithm>
#include <new>
#include <utility>

#include "Kit/call/DelayedCall.h"

namespace Orvex::Reticor::Kit {
inline namespace v1 {

bool ConnectionMail::put(Call& call) {
    try {
        m_letters.push_back(std::move(call));
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

bool ConnectionMail::reserve_delayed() {
    try {
        m_delayed.emplace_back();
    } catch (const std::bad_alloc&) {
        return false;
    }
    m_delayed.pop_back();
    return true;
}

void ConnectionMail::put_delayed(long timer, uint64_t due_us, Call& call) {
    m_delayed.push_back({timer, due_us, std::move(call)});
}

ConnectionMail::RanOut ConnectionMail::run_out(long timer, uint64_t now_us) {
    const auto found = std::find_if(m_delayed.begin(), m_delayed.end(),
                                    [timer](const Delayed& delayed) { return delayed.timer == timer; });
    if (found == m_delayed.end()) {
        return {};
    }
    if (!is_due(found->due_us, now_us)) {
        return {clamp_delay(static_cast<int64_t>(found->due_us - now_us)), false};
    }
    if (!put(found->call)) {
        return {LEAST_DELAY_US, false};
    }
    if (found != m_delayed.end() - 1) {
        std::swap(*found, m_delayed.back());
    }
    m_delayed.pop_back();
    return {-1, true};
}

std::vector<ConnectionMail::Delayed> ConnectionMail::take_delayed() {
    return std::exchange(m_delayed, {});
}

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
