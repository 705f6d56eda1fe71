// Connector: tries the addresses of a host in turn.
#include "Kit/connect/Connector.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <utility>

#include <Infra/Time.h>

#include "Kit/ConnectionBody.h"
#include "Kit/call/DelayedCall.h"
#include "Kit/call/UserCall.h"
#include "Kit/resolve/Resolver.h"

namespace Orvex::Reticor::Kit {
inline namespace v1 {

using Infra::CGuard;

namespace {

uint64_t now_us() {
    return Infra::CTime::getCurrentMicroSecond();
}

/// Holds a reference on its connector, which may be over by the time of the answer.
class HostQuestion final : public Resolver::Question {
public:
    explicit HostQuestion(Connector& connector) : m_connector(connector) { m_connector.AddRef(); }
    ~HostQuestion() override { m_connector.DecRef(); }
    void answered(const sockaddr_storage* addresses, size_t count, int error) override {
        m_connector.found(addresses, count, error);
    }

private:
    Connector& m_connector;
};

/// An address that needs no look-up.
bool read_address(const std::string& host, unsigned short port, sockaddr_storage& address) {
    auto& four = reinterpret_cast<sockaddr_in&>(address);
    auto& six = reinterpret_cast<sockaddr_in6&>(address);
    if (inet_pton(AF_INET, host.c_str(), &four.sin_addr) == 1) {
        four.sin_family = AF_INET;
        four.sin_port = htons(port);
        return true;
    }
    if (inet_pton(AF_INET6, host.c_str(), &six.sin6_addr) == 1) {
        six.sin6_family = AF_INET6;
        six.sin6_port = htons(port);
        return true;
    }
    return false;
}

socklen_t length_of(const sockaddr_storage& address) {
    return address.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

/// The families by turns, each in its order; the first stays the first.
void alternate(std::vector<sockaddr_storage>& addresses) {
    for (size_t i = 1; i + 1 < addresses.size(); ++i) {
        const auto other = std::find_if(
            addresses.begin() + static_cast<ptrdiff_t>(i), addresses.end(),
            [&](const sockaddr_storage& address) { return address.ss_family != addresses[i - 1].ss_family; });
        if (other == addresses.end()) {
            return;
        }
        std::rotate(addresses.begin() + static_cast<ptrdiff_t>(i), other, other + 1);
    }
}

}  // namespace

Connector::Connector(PoolState& pool, const ConnectOptions& options, Connected done)
    : Member(pool),
      m_pool(pool),
      m_options(options),
      m_deadline_us(now_us() + static_cast<uint64_t>(std::max<int64_t>(options.deadline.count(), 0))),
      m_done(std::move(done)) {}

void Connector::start(std::string host, unsigned short port) {
    sockaddr_storage address{};
    bool has_deadline = false;
    {
        CGuard guard(m_mutex);
        m_deadline = SetTimer(clamp_delay(m_options.deadline.count()));
        has_deadline = m_deadline != -1;
    }
    if (!has_deadline) {
        cancel();
        return;
    }
    if (read_address(host, port, address)) {
        found(&address, 1, 0);
        return;
    }
    std::unique_ptr<HostQuestion> question(new (std::nothrow) HostQuestion(*this));
    if (question == nullptr) {
        cancel();
        return;
    }
    question->host = std::move(host);
    question->port = port;
    if (!Resolver::ask(std::move(question))) {
        cancel();
    }
}

void Connector::found(const sockaddr_storage* addresses, size_t count, int error) {
    try {
        CGuard guard(m_mutex);
        m_addresses.assign(addresses, addresses + count);
        alternate(m_addresses);
        m_error = error;
        m_found = true;
    } catch (const std::bad_alloc&) {
        cancel();
        return;
    }
    tell_self(FOUND);
}

int Connector::handle_message(long, unsigned int msg, long) {
    Outcome outcome;
    {
        CGuard guard(m_mutex);
        if (msg == CANCEL) {
            outcome = over(ConnectResult::CANCELLED, 0);
        } else if (m_found && m_addresses.empty()) {
            outcome = over(ConnectResult::NOT_FOUND, m_error);
        } else {
            outcome = try_next();
        }
    }
    finish(outcome);
    return 0;
}

int64_t Connector::handle_timeout(long id) {
    Outcome outcome;
    int64_t again = -1;
    {
        CGuard guard(m_mutex);
        const uint64_t now = now_us();
        if (id != m_deadline) {
            outcome = try_next();
            again = !m_over && m_next < m_addresses.size() ? clamp_delay(m_options.stagger.count()) : -1;
            m_stagger = again == -1 ? -1 : id;
        } else if (is_due(m_deadline_us, now)) {
            m_deadline = -1;
            outcome = over(ConnectResult::TIMED_OUT, ETIMEDOUT);
        } else {
            again = clamp_delay(static_cast<int64_t>(m_deadline_us - now));
        }
    }
    finish(outcome);
    return again;
}

int Connector::handle_output(int fd) {
    Outcome outcome;
    {
        CGuard guard(m_mutex);
        outcome = look_at(fd);
    }
    finish(outcome);
    return 0;
}

Connector::Outcome Connector::look_at(int fd) {
    const auto attempt = std::find_if(m_attempts.begin(), m_attempts.end(),
                                      [&](const CSockStream& sock) { return sock.GetHandle() == fd; });
    if (m_over || attempt == m_attempts.end()) {
        return {};
    }
    int error = 0;
    socklen_t length = sizeof error;
    getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
    RemoveSock(*attempt);
    if (error == 0) {
        return over(ConnectResult::CONNECTED, 0, attempt->Detach());
    }
    m_error = error;
    m_attempts.erase(attempt);
    return try_next();
}

// The next address whose attempt is under way; what fails at once does not count. Without memory for a timer
// all are tried at once.
Connector::Outcome Connector::try_next() {
    while (!m_over && m_next < m_addresses.size()) {
        if (try_address(m_addresses[m_next++])) {
            if (m_stagger == -1 && m_next < m_addresses.size()) {
                m_stagger = SetTimer(clamp_delay(m_options.stagger.count()));
            }
            if (m_stagger != -1 || m_next == m_addresses.size()) {
                return {};
            }
        }
    }
    return m_attempts.empty() ? over(ConnectResult::REFUSED, m_error) : Outcome();
}

bool Connector::try_address(const sockaddr_storage& address) {
    const int fd = ::socket(address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        m_error = errno;
        return false;
    }
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), length_of(address)) != 0 &&
        errno != EINPROGRESS) {
        m_error = errno;
        ::close(fd);
        return false;
    }
    try {
        m_attempts.emplace_back().Attach(fd);
    } catch (const std::bad_alloc&) {
        m_error = ENOMEM;
        ::close(fd);
        return false;
    }
    if (RegisterSock(m_attempts.back(), SOCK_WRITE, 0) == 0) {
        return true;
    }
    m_error = ENOMEM;
    m_attempts.pop_back();
    return false;
}

Connector::Outcome Connector::over(ConnectResult result, int error, int descriptor) {
    if (m_over) {
        return {};
    }
    m_over = true;
    for (CSockStream& sock : m_attempts) {
        if (sock.IsValid()) {
            RemoveSock(sock);
        }
    }
    m_attempts.clear();
    for (const long timer : {m_deadline, m_stagger}) {
        if (timer != -1) {
            DestroyTimer(timer);
        }
    }
    m_deadline = -1;
    m_stagger = -1;
    return {true, result, error, descriptor};
}

void Connector::finish(const Outcome& outcome) {
    if (!outcome.over) {
        return;
    }
    struct Leaving {  // also when the thread ends inside the call
        ~Leaving() { connector.leave_at_last(); }
        Connector& connector;
    };
    const Leaving leaving{*this};
    ConnectResult result = outcome.result;
    ConnectionBody* body = nullptr;
    if (result == ConnectResult::CONNECTED) {
        body = ConnectionBody::make(m_pool, outcome.descriptor, m_options.connection, nullptr, true);
        result = body != nullptr ? result : ConnectResult::CANCELLED;
    }
    if (body != nullptr) {
        Connection::Event start = [this](Connection& self) { m_done(self, ConnectResult::CONNECTED, 0); };
        body->start_here(start);
        body->DecRef();
    } else {
        Connection nothing;
        UserCall::run(
            this, kind(), [&] { m_done(nothing, result, outcome.error); }, [] {});
    }
}

void Connector::leave_at_last() {
    UserCall::run(
        this, kind(), [this] { m_done = nullptr; }, [] {});
    leave();
    Close();
}

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
