// connect: names, addresses in turn, and the deadline.
#include <Reticor/kit/Connect.h>

#include <netdb.h>
#include <pthread.h>

#include <atomic>
#include <string>

#include <gtest/gtest.h>

#include <Infra/Mutex.h>
#include <Infra/Semaphore.h>
#include <Infra/Time.h>
#include <Reticor/kit/Server.h>

#include "support/Eventually.h"
#include "support/kit/Live.h"
#include "support/kit/Names.h"
#include "support/kit/SilentPort.h"

using namespace Orvex::Testing;
using Orvex::Infra::CGuard;
using Orvex::Infra::CMutex;
using Orvex::Infra::CSemaphore;
using Orvex::Infra::CTime;
namespace Kit = Orvex::Reticor::Kit;
using Kit::Connection;
using Kit::ConnectResult;
using namespace std::chrono_literals;

namespace {

class KitConnect : public testing::Test {
protected:
    KitConnect() { EXPECT_TRUE(m_server.listen("127.0.0.1", 0)); }

    bool start(const char* host, int port, const Kit::ConnectOptions& options = {}) {
        return Kit::connect(
            m_pool, host, static_cast<unsigned short>(port), options,
            [this, token = m_live.token()](Connection& connection, ConnectResult result, int error) {
                m_result = result;
                m_error = error;
                {
                    CGuard guard(m_mutex);
                    m_connection = connection.share();
                }
                ++m_calls;
            });
    }

    /// A reference on the one that the last call-back was given.
    Connection last_connection() {
        CGuard guard(m_mutex);
        return m_connection.share();
    }

    Kit::Server m_server{[](Connection& client) {
        client.onInput([](Connection& c, std::string_view bytes) { c.write(bytes); });
    }};
    Kit::Pool m_pool{1};
    Live m_live;
    CMutex m_mutex;  ///< Guards m_connection: calls of two connections may overlap.
    Connection m_connection;
    std::atomic<ConnectResult> m_result{ConnectResult::CANCELLED};
    std::atomic<int> m_error{0};
    std::atomic<int> m_calls{0};
};

}  // namespace

TEST_F(KitConnect, TalksToAnAddress) {
    std::string read;
    CSemaphore done(0);
    ASSERT_TRUE(Kit::connect(m_pool, "127.0.0.1", m_server.port(),
                             [&](Connection& connection, ConnectResult result, int) {
                                 EXPECT_EQ(ConnectResult::CONNECTED, result);
                                 connection.onInput([&](Connection& c, std::string_view bytes) {
                                     read += bytes;
                                     c.close();
                                 });
                                 connection.onClose([&](Connection&, Kit::CloseReason) { done.post(); });
                                 connection.write("hello");
                             }));
    done.pend();
    EXPECT_EQ("hello", read);
}

TEST_F(KitConnect, TalksToANameOfThisMachine) {
    ASSERT_TRUE(start("localhost", m_server.port()));
    EXPECT_EVENTUALLY(m_calls == 1 && m_live.count() == 0);
    EXPECT_EQ(ConnectResult::CONNECTED, m_result);
    EXPECT_TRUE(last_connection().isOpen());
}

TEST_F(KitConnect, SaysWhenANameHasNoAddress) {
    ASSERT_TRUE(start("nobody.test", 1));
    EXPECT_EVENTUALLY(m_calls == 1 && m_live.count() == 0);
    EXPECT_EQ(ConnectResult::NOT_FOUND, m_result);
    EXPECT_EQ(EAI_NONAME, m_error);
    EXPECT_FALSE(last_connection());
}

TEST_F(KitConnect, SaysWhyNoAddressHasTakenIt) {
    const int port = m_server.port();
    m_server.stop();
    ASSERT_TRUE(start("127.0.0.1", port));
    EXPECT_EVENTUALLY(m_calls == 1 && m_live.count() == 0);
    EXPECT_EQ(ConnectResult::REFUSED, m_result);
    EXPECT_EQ(ECONNREFUSED, m_error);
}

TEST_F(KitConnect, GoesToTheNextAddressAtOnceWhenOneRefuses) {
    Kit::Server gone([](Connection&) {});
    ASSERT_TRUE(gone.listen("127.0.0.1", 0));
    names().addresses = {{"127.0.0.1", gone.port()}, {"127.0.0.1", m_server.port()}};
    gone.stop();
    Kit::ConnectOptions options;
    options.stagger = 1h;
    ASSERT_TRUE(start("listed.test", 1, options));
    EXPECT_EVENTUALLY(m_calls == 1);
    EXPECT_EQ(ConnectResult::CONNECTED, m_result);
}

TEST_F(KitConnect, TriesTheNextAddressBesideOneThatDoesNotAnswer) {
    SilentPort silent;
    names().addresses = {{"127.0.0.1", silent.number()}, {"127.0.0.1", m_server.port()}};
    const uint64_t begin = CTime::getCurrentMicroSecond();
    ASSERT_TRUE(start("listed.test", 1));
    EXPECT_EVENTUALLY(m_calls == 1);
    EXPECT_EQ(ConnectResult::CONNECTED, m_result);
    EXPECT_GE(CTime::getCurrentMicroSecond(), begin + 245000);
}

TEST_F(KitConnect, EndsAtItsDeadlineWhenNobodyAnswers) {
    SilentPort silent;
    Kit::ConnectOptions options;
    options.deadline = 30ms;
    ASSERT_TRUE(start("127.0.0.1", silent.number(), options));
    EXPECT_EVENTUALLY(m_calls == 1 && m_live.count() == 0);
    EXPECT_EQ(ConnectResult::TIMED_OUT, m_result);
}

// A look-up cannot be interrupted: what comes of it late meets nobody.
TEST_F(KitConnect, DoesNotWaitForALookUpThatHangs) {
    Kit::ConnectOptions options;
    options.deadline = 20ms;
    for (int i = 0; i < 6; ++i) {  // more than there are threads
        ASSERT_TRUE(start("hangs.test", 1, options));
    }
    EXPECT_EVENTUALLY(m_calls == 6 && m_live.count() == 0);
    EXPECT_EQ(ConnectResult::TIMED_OUT, m_result);
    EXPECT_EVENTUALLY(names().looking == 4);
    m_pool.stop();
    names().let_go.post(6, 6);
    EXPECT_EVENTUALLY(names().looking == 0);
    EXPECT_EQ(6, m_calls);
}

TEST_F(KitConnect, IsCancelledWithItsPool) {
    SilentPort silent;
    ASSERT_TRUE(start("127.0.0.1", silent.number()));
    EXPECT_EQ(0U, m_pool.stop().stayed);
    EXPECT_EQ(1, m_calls);
    EXPECT_EQ(0, m_live.count());
    EXPECT_EQ(ConnectResult::CANCELLED, m_result);
    EXPECT_FALSE(start("127.0.0.1", silent.number()));
    EXPECT_EQ(1, m_calls);
    EXPECT_EQ(0, m_live.count());
}

TEST_F(KitConnect, AThreadThatEndsInsideTheCallLeavesNothingOfTheAttempt) {
    Kit::Pool pool(4);
    for (const char* const host : {"127.0.0.1", "nobody.test"}) {
        ASSERT_TRUE(Kit::connect(pool, host, m_server.port(),
                                 [token = m_live.token()](Connection&, ConnectResult, int) mutable {
                                     token.use();
                                     pthread_exit(nullptr);
                                 }));
    }
    EXPECT_EVENTUALLY(m_live.used() == 2 && m_live.count() == 0);
    EXPECT_EQ(0U, pool.stop().stayed);
}
