// Room: what all guests share, and so what needs a lock.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <utility>

#include <Infra/Mutex.h>

namespace chat {

constexpr size_t LINES_KEPT = 1000;

/// Names and lines. Outlives the server. It knows of each guest how to tell that there is something new, and
/// calls that under its lock: the call posts, and does nothing else.
class Room {
public:
    using News = std::function<void()>;

    /// False if somebody has the name. The newcomer reads what comes from now on.
    bool join(const std::string& name, News news, size_t& position) {
        Orvex::Infra::CGuard guard(m_mutex);
        position = m_first + m_lines.size();
        return m_guests.emplace(name, std::move(news)).second;
    }
    void leave(const std::string& name) {
        Orvex::Infra::CGuard guard(m_mutex);
        m_guests.erase(name);
    }

    void say(const std::string& from, const std::string& text) {
        Orvex::Infra::CGuard guard(m_mutex);
        m_lines.emplace_back(from, text);
        if (m_lines.size() > LINES_KEPT) {
            m_lines.pop_front();
            ++m_first;
        }
        for (const auto& [name, news] : m_guests) {
            if (name != from) {
                news();
            }
        }
    }

    /// What others have said since `position`, which moves to the end.
    std::string read(const std::string& reader, size_t& position) {
        Orvex::Infra::CGuard guard(m_mutex);
        std::string text;
        if (position < m_first) {
            text = "* you missed " + std::to_string(m_first - position) + " lines\n";
            position = m_first;
        }
        for (; position < m_first + m_lines.size(); ++position) {
            const auto& line = m_lines[position - m_first];
            text += line.first != reader ? line.second : "";
        }
        return text;
    }
    std::string who() {
        Orvex::Infra::CGuard guard(m_mutex);
        std::string text = "* here:";
        for (const auto& guest : m_guests) {
            text += " " + guest.first;
        }
        return text + "\n";
    }

private:
    Orvex::Infra::CMutex m_mutex;
    std::map<std::string, News> m_guests INFRA_GUARDED_BY(m_mutex);
    std::deque<std::pair<std::string, std::string>> m_lines INFRA_GUARDED_BY(m_mutex);  // by whom, and what
    size_t m_first INFRA_GUARDED_BY(m_mutex) = 0;  // number of the oldest line kept
};

}  // namespace chat
