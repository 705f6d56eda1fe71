// HttpInput: connect, ask, read, and again.

#include "media_relay/input/HttpInput.h"

#include <algorithm>
#include <chrono>
#include <random>
#include <utility>

namespace relay {

using namespace Orvex::Reticor;
using Orvex::Infra::CGuard;

namespace {

constexpr std::chrono::seconds kConnect(5);   // for the name and all its addresses
constexpr std::chrono::seconds kSilence(10);  // before the first byte, and between two
constexpr int64_t kFirstPause_us = 250000;
constexpr int64_t kLongestPause_us = 8000000;
constexpr unsigned kMostRedirects = 5;

/// A reference on a handler, for what calls it back.
class Hold {
public:
    explicit Hold(HttpInput& input) : m_input(&input) { input.AddRef(); }
    Hold(Hold&& other) noexcept : m_input(std::exchange(other.m_input, nullptr)) {}
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;
    Hold& operator=(Hold&&) = delete;
    ~Hold() {
        if (m_input != nullptr) {
            m_input->DecRef();
        }
    }

private:
    HttpInput* m_input;
};

std::string requestFor(const InputUrl& url) {
    const bool bracket = url.host.find(':') != std::string::npos;
    return "GET " + url.path + " HTTP/1.1\r\nHost: " + (bracket ? "[" + url.host + "]" : url.host) + ":" +
           std::to_string(url.port) + "\r\nAccept: */*\r\nConnection: close\r\n\r\n";
}

/// That time, give or take a quarter of it.
int64_t scattered(int64_t time_us) {
    return time_us * 3 / 4 + static_cast<int64_t>(std::random_device{}() % 1024) * time_us / 2048;
}

}  // namespace

void HttpInput::Create(Roster& roster, Kit::Pool& pool, const Setup& setup, const InputUrl& url) {
    auto* const self = new HttpInput(roster, pool, setup, url);
    self->begin();
    CGuard guard(self->m_mutex);
    self->connect();
}

HttpInput::HttpInput(Roster& roster, Kit::Pool& pool, const Setup& setup, const InputUrl& url)
    : LiveInput(roster, setup, "MPEG transport stream from " + url.text),
      m_pool(pool),
      m_first(url),
      m_url(url),
      m_pause_us(kFirstPause_us) {}

int64_t HttpInput::handle_timeout(long id) {
    {
        CGuard guard(m_mutex);
        if (id == m_retry) {
            m_retry = -1;
            if (!m_over) {
                connect();
            }
            return -1;
        }
    }
    return LiveInput::handle_timeout(id);
}

void HttpInput::connect() {
    m_answer = HttpAnswer();
    m_fresh = true;
    m_redirected = false;
    m_why.clear();
    Kit::ConnectOptions options;
    options.deadline = kConnect;
    options.connection.idle_timeout = kSilence;
    const bool taken =
        Kit::connect(m_pool, m_url.host, m_url.port, options,
                     [this, hold = Hold(*this)](Kit::Connection& connection, Kit::ConnectResult result, int) {
                         onConnected(connection, result);
                     });
    if (!taken) {
        giveUp("no connection can be made");
        retry();
    }
}

void HttpInput::onConnected(Kit::Connection& connection, Kit::ConnectResult result) {
    CGuard guard(m_mutex);
    if (result != Kit::ConnectResult::CONNECTED) {
        const bool slow = result == Kit::ConnectResult::TIMED_OUT;
        giveUp(result == Kit::ConnectResult::NOT_FOUND ? "has no address"
               : slow                                  ? "does not answer"
                                                       : "takes no connection");
        retry();
        return;
    }
    if (m_over) {
        connection.abort();
        return;
    }
    connection.onInput([this](Kit::Connection&, std::string_view bytes) { onBytes(bytes); });
    connection.onClose(
        [this, hold = Hold(*this)](Kit::Connection&, Kit::CloseReason reason) { onClosed(reason); });
    connection.write(requestFor(m_url));
    m_connection = connection.share();
}

void HttpInput::onBytes(std::string_view bytes) {
    CGuard guard(m_mutex);
    if (m_over || m_redirected || !m_why.empty()) {
        return;
    }
    const HttpAnswer::State state = m_answer.put(bytes.data(), bytes.size(),
                                                 [this](const uint8_t* body, size_t size)
                                                     INFRA_REQUIRES(m_mutex) { onBody(body, size); });
    const int status = m_answer.status();
    if (state == HttpAnswer::State::Bad) {
        giveUp("sends what is no answer of HTTP");
    } else if (status != 0 && status != 200 && !redirect()) {
        giveUp("answers with status " + std::to_string(status));
    } else if (m_input.isHopeless()) {
        giveUp("sends no transport stream with a programme and a clock");
    } else if (state == HttpAnswer::State::Done && !m_redirected) {
        giveUp("has ended the stream");
    }
    if (m_redirected || !m_why.empty()) {
        m_connection.abort();
    }
}

/// What a lost connection leaves of a unit is thrown away, and the rest goes on after it.
void HttpInput::onBody(const uint8_t* bytes, size_t size) {
    if (m_fresh) {
        m_fresh = false;
        m_state.clear();
        ++m_connections;
        if (m_any) {
            m_input.restart();
        }
        m_any = true;
    }
    take(bytes, size);
    if (m_input.hasUnits()) {  // a server worth coming back to soon
        m_pause_us = kFirstPause_us;
    }
}

/// Whether the answer says where else to ask, within the same scheme.
bool HttpInput::redirect() {
    const int status = m_answer.status();
    const std::string& to = m_answer.location();
    const bool known = status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
    InputUrl url;
    if (!known || ++m_redirects > kMostRedirects) {
        return false;
    }
    if (to.compare(0, 1, "/") == 0 && to.compare(0, 2, "//") != 0) {
        url = m_url;
        url.path = to;
    } else if (!parseInputUrl(to, url).empty() || url.kind != InputUrl::Kind::Http) {
        return false;
    }
    m_url = url;
    m_redirected = true;
    return true;
}

void HttpInput::onClosed(Kit::CloseReason reason) {
    CGuard guard(m_mutex);
    m_connection = Kit::Connection();
    if (m_over) {
        return;
    }
    if (m_redirected) {
        connect();
        return;
    }
    if (m_why.empty()) {
        giveUp(reason == Kit::CloseReason::IDLE ? "sends nothing" : "has ended the connection");
    }
    retry();
}

void HttpInput::giveUp(const std::string& why) {
    m_why = why;
    m_state = m_url.host + " " + why;
}

/// From the beginning, redirects and all, after a pause.
void HttpInput::retry() {
    m_url = m_first;
    m_redirects = 0;
    if (!m_over) {
        m_retry = SetTimer(scattered(m_pause_us));
        m_pause_us = std::min(2 * m_pause_us, kLongestPause_us);
    }
}

void HttpInput::leave() {
    m_connection.abort();
    m_connection = Kit::Connection();
}

void HttpInput::fill(SourceView& view) {
    view.connections = m_connections;
}

}  // namespace relay
