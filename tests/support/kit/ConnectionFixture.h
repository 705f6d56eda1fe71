// ConnectionFixture: a pool, connections on it, and their peers.
#pragma once

#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>

#include <gtest/gtest.h>

#include <Infra/Semaphore.h>
#include <Infra/Time.h>
#include <Reticor/kit/Connection.h>
#include <Reticor/kit/Pool.h>

#include "support/kit/Live.h"
#include "support/kit/Peer.h"

namespace Orvex::Testing {

class ConnectionFixture : public testing::Test {
protected:
    using Connection = Reticor::Kit::Connection;
    using CloseReason = Reticor::Kit::CloseReason;

    /// Before what call-backs use goes.
    void TearDown() override { m_pool.stop(std::chrono::milliseconds(0)); }

    /// A connection to a peer that becomes m_peer.
    Connection open(Connection::Event start, Reticor::Kit::ConnectionOptions options = {}) {
        int ends[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
        m_peer = std::make_unique<Peer>(ends[1]);
        return Connection::adopt(m_pool, ends[0], options, std::move(start));
    }

    /// A start that counts the end.
    Connection::Event counted() {
        return [this](Connection& self) { count_end_of(self); };
    }
    void count_end_of(Connection& connection) {
        connection.onClose([this, token = m_live.token()](Connection&, CloseReason reason) {
            m_reason = reason;
            m_ended_us = Infra::CTime::getCurrentMicroSecond();
            ++m_ends;
        });
    }

    /// Returns when the connection has begun, and all that was posted to it before has run.
    static void wait_for_calls_of(Connection& connection) {
        Infra::CSemaphore turn(0);
        if (connection.post([&turn](Connection&) { turn.post(); })) {
            turn.pend();
        }
    }

    /// Returns when the pool has looked many times at what its sockets have.
    void see_workers_at_work() {
        int ends[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
        Peer peer(ends[1]);
        Connection other = Connection::adopt(m_pool, ends[0], {}, [](Connection& self) {
            self.onInput([](Connection& c, std::string_view bytes) { c.write(bytes); });
        });
        for (int i = 0; i < 50; ++i) {
            peer.send("?");
            ASSERT_EQ("?", peer.receive(1));
        }
    }

    Reticor::Kit::Pool m_pool{2};
    Live m_live;
    std::atomic<CloseReason> m_reason{CloseReason::CLOSED};
    std::atomic<uint64_t> m_ended_us{0};
    std::atomic<int> m_ends{0};
    std::unique_ptr<Peer> m_peer;
};

/// More than a socket pair takes at once.
inline const std::string MEGABYTE(1 << 20, 'm');

}  // namespace Orvex::Testing
