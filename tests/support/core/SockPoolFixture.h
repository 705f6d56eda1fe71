// SockPoolFixture: the public pool with a socket and a handler, and a look at the socket's record.
#pragma once

#include <gtest/gtest.h>

#include "support/PoolFixture.h"
#include "support/core/Gate.h"
#include "support/core/Probes.h"
#include "support/core/SocketPair.h"

namespace Orvex::Testing {

// What is known of a registered descriptor at one moment.
struct Registered {
    bool exists = false;
    uint32_t mask = 0;
    int revents = 0;
    int set_time = 0;
    bool timed = false;  // on the list of the socket timer
    bool in_flight = false;
    long owner = 0;
};

inline Registered lookAt(Reticor::CThreadPool& pool, int fd) {
    using namespace Reticor;
    const RecordPin ev = RecordPin::Adopt(static_cast<CEvent*>(pool.m_sock_tree.Find(fd)));
    if (!ev) {
        return {};
    }
    return {true,
            ev->m_event_mask,
            ev->m_revents,
            ev->m_timer.m_set_time,
            CSockTimer::IsLinked(ev.get()),
            is_in_flight(ev.get()),
            static_cast<long>(ev->m_obj_id)};
}

class SockPoolFixture : public PoolFixture {
protected:
    void SetUp() override {
        PoolFixture::SetUp();
        handler = new TestHandler;
        handler->on_input = [](int fd) {
            SocketPair::drain(fd);
            return 0;
        };
    }
    void TearDown() override {
        handler->RemoveSock(pair.near);
        EXPECT_EVENTUALLY(Reticor::ThreadPoolProbe::sockets(pool()).empty());
        EXPECT_TRUE(Reticor::SockTimerProbe::listed(Reticor::sock_timer()).empty());
        closeAndWait(handler);
        PoolFixture::TearDown();
    }

    static Reticor::CThreadPool& pool() { return *Reticor::PoolTable::Get(0); }
    Registered look() { return lookAt(pool(), pair.fd()); }

    void add(unsigned int mask, int time_out_us = 0) {
        ASSERT_EQ(0, handler->RegisterSock(pair.near, mask, time_out_us));
    }

    // Keeps a worker in the handler's `handle_message` until the gate is opened.
    void holdInMessage(Gate& gate) {
        handler->on_message = [&gate](long, unsigned int, long) {
            gate.pass();
            return 0;
        };
        handler->Notify(handler->GetID(), 100, 0);
        ASSERT_TRUE(gate.awaitArrivals(1));
    }

    // Removes the socket, and waits until the last call for it is over.
    void removeAndWait(Reticor::CSock& sock) {
        const int fd = sock.GetHandle();
        handler->RemoveSock(sock);
        EXPECT_EVENTUALLY(!lookAt(pool(), fd).exists);
    }

    SocketPair pair;
    TestHandler* handler = nullptr;
};

}  // namespace Orvex::Testing
