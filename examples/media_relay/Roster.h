// Roster: the open handlers of the relay.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <Infra/Mutex.h>
#include <Infra/Semaphore.h>
#include <Reticor/NetHandler.h>

namespace relay {

/// The handlers that are open, and where their clients come from. Outlives them all, so that main can wait
/// for the last one.
class Roster {
public:
    /// `origin` is what the member's client is counted by; empty for a member without one.
    void enter(long id, const std::string& origin = "") {
        Orvex::Infra::CGuard guard(m_mutex);
        m_members[id] = origin;
        if (!origin.empty()) {
            ++m_origins[origin];
        }
    }
    void leave(long id) {
        Orvex::Infra::CGuard guard(m_mutex);
        const auto member = m_members.find(id);
        if (member == m_members.end()) {
            return;
        }
        const auto origin = m_origins.find(member->second);
        if (origin != m_origins.end() && --origin->second == 0) {
            m_origins.erase(origin);
        }
        m_members.erase(member);
        if (m_members.empty()) {
            m_empty.post();
        }
    }
    size_t size() {
        Orvex::Infra::CGuard guard(m_mutex);
        return m_members.size();
    }
    size_t countFrom(const std::string& origin) {
        Orvex::Infra::CGuard guard(m_mutex);
        const auto found = m_origins.find(origin);
        return found == m_origins.end() ? 0 : found->second;
    }
    std::vector<long> ids() {
        Orvex::Infra::CGuard guard(m_mutex);
        std::vector<long> ids;
        for (const auto& member : m_members) {
            ids.push_back(member.first);
        }
        return ids;
    }

    /// Returns when everybody has left. The listener enters first and leaves for good, and so the roster runs
    /// empty once. The roster may go then.
    void waitUntilEmpty() {
        m_empty.pend();
        Orvex::Infra::CGuard guard(m_mutex);  // whoever left last is out of `leave` as well
    }

private:
    Orvex::Infra::CMutex m_mutex;
    std::map<long, std::string> m_members INFRA_GUARDED_BY(m_mutex);    // origins by id
    std::map<std::string, size_t> m_origins INFRA_GUARDED_BY(m_mutex);  // members that come from there
    Orvex::Infra::CSemaphore m_empty{0};
};

}  // namespace relay
