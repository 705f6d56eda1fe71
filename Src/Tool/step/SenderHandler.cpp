// CSenderHandler: the shared timer of all buffers with auto-send.
#include "Tool/step/SenderHandler.h"

#include <algorithm>
#include <cassert>
#include <climits>
#include <new>
#include <utility>

#include <Infra/Forever.h>
#include <Infra/LockClasses.h>

#include "Core/pool/PoolTable.h"
#include "Tool/step/TargetStepMark.h"

namespace Orvex::Reticor {

Infra::CMutex CSenderHandler::m_list_mutex{Infra::LockClass::SENDER_LIST};
bool CSenderHandler::m_started = false;
bool CSenderHandler::m_suspended = false;
CSenderHandler* CSenderHandler::m_handler = nullptr;
uint64_t CSenderHandler::m_last_interval = DEFAULT_INTERVAL_MS;

CSenderHandler::CSenderHandler() : CSenderHandler(DEFAULT_INTERVAL_MS) {}

CSenderHandler::CSenderHandler(uint64_t interval) : m_interval(interval) {}

bool CSenderHandler::Add(int type, SendTarget_IF* target) {
    return Add(type, target, DEFAULT_INTERVAL_MS);
}

bool CSenderHandler::Add(int type, SendTarget_IF* target, uint64_t interval) {
    TargetStepMark::assert_none();
    if (target == nullptr) {
        return true;
    }
    CSenderHandler* failed = nullptr;
    {
        Infra::CGuard guard(m_list_mutex);
        std::vector<Record>& m_sender_list = sender_list();
        try {
            m_sender_list.reserve(m_sender_list.size() + 1);
        } catch (const std::bad_alloc&) {
            return false;
        }
        bool started = true;
        if (!m_started && !m_suspended) {
            assert(m_sender_list.empty());
            started = start(interval, failed);
        }
        if (started) {
            m_sender_list.push_back({type, target, true});
            return true;
        }
    }
    return end(failed);
}

std::vector<CSenderHandler::Record>& CSenderHandler::sender_list() {
    static Infra::Forever<std::vector<Record>> room;
    static std::vector<Record>& list = room.make();
    return list;
}

/// False if there is no memory: `failed` is then to be ended with the lock left, unless it is null.
bool CSenderHandler::start(uint64_t interval, CSenderHandler*& failed) {
    failed = new (std::nothrow) CSenderHandler(interval);
    if (failed == nullptr) {
        return false;
    }
    // Beyond a day the timer cuts it; here it only must not wrap.
    const uint64_t period_us = std::min<uint64_t>(failed->m_interval, INT64_MAX / 1000) * 1000;
    failed->m_timer_id = failed->SetTimer(static_cast<int64_t>(period_us));
    if (failed->m_timer_id == -1) {
        return false;
    }
    m_handler = std::exchange(failed, nullptr);
    m_started = true;
    m_last_interval = interval;
    return true;
}

/// Always false.
bool CSenderHandler::end(CSenderHandler* failed) {
    if (failed != nullptr) {
        HandlerInternal::Discard(failed);
    }
    return false;
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

bool CSenderHandler::Resume() {
    CSenderHandler* failed = nullptr;
    {
        Infra::CGuard guard(m_list_mutex);
        m_suspended = false;
        if (m_started || sender_list().empty() || start(m_last_interval, failed)) {
            return true;
        }
    }
    return end(failed);
}

}  // namespace Orvex::Reticor
