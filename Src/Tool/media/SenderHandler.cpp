// CSenderHandler: the shared timer of all buffers with auto-send.
#include "Tool/media/SenderHandler.h"

#include <algorithm>
#include <cassert>
#include <climits>
#include <utility>

#include <Infra/LockClasses.h>

#include "Core/pool/PoolTable.h"
#include "Tool/media/TargetStepMark.h"

namespace Orvex::Reticor {

Infra::CMutex CSenderHandler::m_list_mutex{Infra::LockClass::SENDER_LIST};
bool CSenderHandler::m_started = false;
bool CSenderHandler::m_suspended = false;
CSenderHandler* CSenderHandler::m_handler = nullptr;
uint64_t CSenderHandler::m_last_interval = DEFAULT_INTERVAL_MS;

CSenderHandler::CSenderHandler() : CSenderHandler(DEFAULT_INTERVAL_MS) {}

CSenderHandler::CSenderHandler(uint64_t interval) : m_interval(interval) {}

void CSenderHandler::Add(int type, SendTarget_IF* target) {
    add(type, target, DEFAULT_INTERVAL_MS);
}

void CSenderHandler::Add(int type, SendTarget_IF* target, uint64_t interval) {
    add(type, target, interval);
}

void CSenderHandler::add(int type, SendTarget_IF* target, uint64_t interval) {
    TargetStepMark::assert_none();
    if (target == nullptr) {
        return;
    }
    Infra::CGuard guard(m_list_mutex);
    std::vector<Record>& m_sender_list = sender_list();
    if (!m_started && !m_suspended) {
        assert(m_sender_list.empty());
        start(interval);
    }
    m_sender_list.push_back({type, target, true});
}

std::vector<CSenderHandler::Record>& CSenderHandler::sender_list() {
    static auto& list = *new std::vector<Record>;
    return list;
}

void CSenderHandler::start(uint64_t interval) {
    m_handler = new CSenderHandler(interval);
    m_started = true;
    m_last_interval = interval;
    // Beyond a day the timer cuts it; here it only must not wrap.
    const uint64_t period_us = std::min<uint64_t>(m_handler->m_interval, INT64_MAX / 1000) * 1000;
    m_handler->m_timer_id = m_handler->SetTimer(static_cast<int64_t>(period_us));
}

void CSenderHandler::Remove(int type, SendTarget_IF* target) {
    TargetStepMark::assert_none();
    if (target == nullptr) {
        return;
    }
    Infra::CGuard guard(m_list_mutex);
    std::vector<Record>& list = sender_list();
    const auto found = std::find_if(list.begin(), list.end(), [type, target](const Record& record) {
        return type == 0 && record.type == 0 && record.target == target;
    });
    if (found != list.end()) {
        list.erase(found);
    }
}

// The tick may come before the thread that started the timer has stored its id, hence the comparison under
// the lock.
int64_t CSenderHandler::handle_timeout(long id) {
    bool over = false;
    {
        Infra::CGuard guard(m_list_mutex);
        if (id != m_timer_id) {
            return -1;
        }
        std::vector<Record>& list = sender_list();
        for (size_t i = 0; i < list.size(); ++i) {
            if (list[i].type == 0) {
                list[i].target->do_send();
            }
        }
        over = list.empty();
        if (over && m_handler == this) {
            m_started = false;
            m_handler = nullptr;
        }
    }
    if (over) {
        Close();
        return -1;
    }
    return 0;
}

int CSenderHandler::handle_close(CNetHandler*) {
    delete this;
    return 0;
}

// The close message may find no worker any more, so the id is taken away here and now. A tick that is running
// holds a reference and ends the object when it returns.
void CSenderHandler::Suspend(HandlerDrops& drops) {
    HandlerPin handler;
    {
        Infra::CGuard guard(m_list_mutex);
        m_suspended = true;
        m_started = false;
        if (CSenderHandler* const running = std::exchange(m_handler, nullptr)) {
            handler = HandlerPin::Take(running);
        }
    }
    if (handler) {
        handler->Close();
        drops.Take(PoolTable::Detach(handler->GetID()));
        drops.Take(std::move(handler));
    }
}

void CSenderHandler::Resume() {
    Infra::CGuard guard(m_list_mutex);
    m_suspended = false;
    if (!m_started && !sender_list().empty()) {
        start(m_last_interval);
    }
}

}  // namespace Orvex::Reticor
