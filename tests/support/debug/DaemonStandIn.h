// DaemonStandIn: listens to R3Printf while it lives, as the daemon of the debug server does.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "R3/print/R3Printf.h"

namespace Orvex::Testing {

class DaemonStandIn {
public:
    DaemonStandIn() {
        Reticor::g_r3_print = &DaemonStandIn::print;
        Reticor::g_r3_daemon = reinterpret_cast<Reticor::CR3Daemon*>(this);
    }
    ~DaemonStandIn() { Reticor::g_r3_daemon = nullptr; }
    DaemonStandIn(const DaemonStandIn&) = delete;
    DaemonStandIn& operator=(const DaemonStandIn&) = delete;

    std::vector<std::string> texts() {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_texts;
    }

private:
    static void print(Reticor::CR3Daemon* daemon, const char* text) {
        auto* self = reinterpret_cast<DaemonStandIn*>(daemon);
        const std::lock_guard<std::mutex> guard(self->m_mutex);
        self->m_texts.emplace_back(text);
    }

    std::mutex m_mutex;
    std::vector<std::string> m_texts;
};

}  // namespace Orvex::Testing
