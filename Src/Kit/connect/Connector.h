// Connector: an attempt to connect, from the name to the connection.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Reticor/SockStream.h>
#include <Reticor/kit/Connect.h>

#include "Kit/Member.h"
#include "Kit/PoolState.h"

namespace Orvex::Reticor::Kit {
inline namespace v1 {

/// Tries addresses beside each other; the first socket that is connected wins. Everything happens on the
/// pool, and whoever finds the outcome first calls the user, with no lock held.
class Connector final : public Member {
public:
    Connector(PoolState& pool, const ConnectOptions& options, Connected done);

    /// Looks `host` up if it is a name, and begins.
    void start(std::string host, unsigned short port);

    /// What the look-up has found. Any thread, once.
    void found(const sockaddr_storage* addresses, size_t count, int error);

    const char* kind() const override { return "connect"; }
    void drain() override { cancel(); }
    bool cut() override {
        cancel();
        return false;
    }

    int handle_output(int fd) override;
    int64_t handle_timeout(long id) override;
    int handle_message(long sender, unsigned int msg, long attach) override;

private:
    enum Message : unsigned { FOUND = 1, CANCEL = 2 };

    /// What an operation under the mutex has come to.
    struct Outcome {
        bool over = false;
        ConnectResult result = ConnectResult::CANCELLED;
        int error = 0;
        int descriptor = -1;
    };

    void cancel() { tell_self(CANCEL); }
    Outcome over(ConnectResult result, int error, int descriptor = -1) INFRA_REQUIRES(m_mutex);
    Outcome try_next() INFRA_REQUIRES(m_mutex);
    bool try_address(const sockaddr_storage& address) INFRA_REQUIRES(m_mutex);
    Outcome look_at(int fd) INFRA_REQUIRES(m_mutex);
    void finish(const Outcome& outcome);
    void leave_at_last();

    PoolState& m_pool;
    const ConnectOptions m_options;
    const uint64_t m_deadline_us;
    Connected m_done;  ///< Of whoever has found the outcome.

    Infra::CMutex m_mutex{Infra::LockClass::KIT_CONNECTOR};
    std::vector<sockaddr_storage> m_addresses INFRA_GUARDED_BY(m_mutex);
    size_t m_next INFRA_GUARDED_BY(m_mutex) = 0;
    std::list<CSockStream> m_attempts INFRA_GUARDED_BY(m_mutex);
    int m_error INFRA_GUARDED_BY(m_mutex) = 0;
    bool m_found INFRA_GUARDED_BY(m_mutex) = false;
    bool m_over INFRA_GUARDED_BY(m_mutex) = false;
    long m_deadline INFRA_GUARDED_BY(m_mutex) = -1;  ///< Timers.
    long m_stagger INFRA_GUARDED_BY(m_mutex) = -1;
};

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
