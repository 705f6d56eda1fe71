// StillPool: a pool without workers, in which the test itself polls and serves, step by step. With it every
// state of a socket can be held for as long as a test looks at it.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <vector>

#include "Core/record/EventFreeList.h"
#include "Core/service/Message.h"
#include "Core/service/NetSock.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/TestHandler.h"
#include "support/core/Probes.h"

namespace Orvex::Testing {

// The real objects in the real pool table, but no thread of the library acts: the pool has none, the socket
// timer is not started, and its clock goes on by the test's own passes.
class StillPool {
public:
    static constexpr int INDEX = 9;

    explicit StillPool(int index = INDEX) : m_index(index) {
        {
            // On a single processor a pool of no threads has no workers, and says so.
            LogCapture quiet(1);
            m_pool = new Reticor::CThreadPool(index, 0, 64, 0, 0, nullptr, 1);
        }
        Reticor::PoolTable::Set(index, m_pool);
        // The daemon's first heartbeat would end a wait of the test; the next one comes in five seconds.
        EXPECT_EVENTUALLY((takeQueue(), m_heartbeats > 0));
    }

    ~StillPool() {
        m_pool->Stop();
        takeQueue();
        Reticor::sock_timer().UnlinkAll(m_pool->m_sock_tree);
        Reticor::PoolTable::Set(m_index, nullptr);
        m_pool->m_event.PushOne(token());
        delete m_pool;
    }

    StillPool(const StillPool&) = delete;
    StillPool& operator=(const StillPool&) = delete;

    Reticor::CThreadPool& pool() { return *m_pool; }
    Reticor::CMultiplexer& mux() { return m_pool->m_mux; }
    Reticor::CEvent* token() { return Reticor::ThreadPoolProbe::pollToken(*m_pool); }
    int epoll() { return Reticor::MultiplexerProbe::epoll(mux()); }
    int places(int direction) { return Reticor::MultiplexerProbe::places(mux(), direction); }

    // The record of a registered descriptor, or null.
    Reticor::CEvent* record(int fd) {
        for (Reticor::CEvent* ev : Reticor::ThreadPoolProbe::sockets(*m_pool)) {
            if (ev->m_key == fd) {
                return ev;
            }
        }
        return nullptr;
    }

    // One pass of the wait, which does not block: the records that it queued, taken from the queue.
    std::vector<Reticor::CEvent*> poll() {
        mux().WakeUp();
        mux().Wait(token());
        return takeQueue();
    }

    // Plays the worker that took the record.
    void serve(Reticor::CEvent* ev) {
        if (ev->m_key >= 0) {
            Reticor::CNetSock::handle_netevent(ev);
        } else {
            Reticor::CMessage::HandleMessage(ev);
        }
    }

    // Polls once and serves what was ready. The number of records.
    std::size_t pollAndServe() {
        const std::vector<Reticor::CEvent*> ready = poll();
        std::for_each(ready.begin(), ready.end(), [this](Reticor::CEvent* ev) { serve(ev); });
        return ready.size();
    }

    // A pass of the socket timer: 500 ms on its clock. What it queued is taken from the queue.
    std::vector<Reticor::CEvent*> tick(int times = 1) {
        for (int i = 0; i < times; ++i) {
            Reticor::SockTimerProbe::pass(Reticor::sock_timer());
        }
        return takeQueue();
    }

    // Closes the handler, and serves its close message.
    void close(TestHandler* handler) {
        const std::shared_ptr<HandlerLife> life = handler->life;
        handler->Close();
        for (Reticor::CEvent* ev : takeQueue()) {
            serve(ev);
        }
        EXPECT_EQ(1, life->closes);
    }

    // Sockets and messages in the queue, in order; the queue is empty afterwards.
    std::vector<Reticor::CEvent*> takeQueue() {
        std::vector<Reticor::CEvent*> found;
        while (Reticor::CEvent* ev = m_pool->m_event.TryPop()) {
            if (ev->m_key >= 0 || ev->m_key == Reticor::EVENT_KEY_MESSAGE) {
                found.push_back(ev);
            } else if (ev->m_key == Reticor::EVENT_KEY_HEARTBEAT) {
                ++m_heartbeats;
                Reticor::put_event(ev);
            }  // else it is one of the pool's tokens
        }
        Reticor::EventQueueProbe::takeCounts(m_pool->m_event);
        return found;
    }

private:
    const int m_index;
    int m_heartbeats = 0;
    Reticor::CThreadPool* m_pool = nullptr;
};

}  // namespace Orvex::Testing
