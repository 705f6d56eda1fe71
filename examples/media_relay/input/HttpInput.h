// HttpInput: a transport stream that a server sends, another relay for instance.
#pragma once

#include <string>
#include <string_view>

#include <Reticor/kit/Connect.h>

#include "media_relay/input/HttpAnswer.h"
#include "media_relay/input/InputUrl.h"
#include "media_relay/input/LiveInput.h"

namespace relay {

/// Asks for it, and asks again when the connection ends, whatever ended it: after 0.25 s at first, and after
/// twice as long each time up to 8 s, give or take a quarter, so that many who lost the same server do not
/// come back at once. The viewers stay meanwhile.
class HttpInput : public LiveInput {
public:
    /// `pool` makes the connections. It is stopped before the roster is waited for, so that no attempt holds
    /// that up.
    static void Create(Roster& roster, Orvex::Reticor::Kit::Pool& pool, const Setup& setup,
                       const InputUrl& url);

    int64_t handle_timeout(long id) override;

private:
    HttpInput(Roster& roster, Orvex::Reticor::Kit::Pool& pool, const Setup& setup, const InputUrl& url);

    void leave() override INFRA_REQUIRES(m_mutex);
    void fill(SourceView& view) override INFRA_REQUIRES(m_mutex);

    void connect() INFRA_REQUIRES(m_mutex);
    void onConnected(Orvex::Reticor::Kit::Connection& connection, Orvex::Reticor::Kit::ConnectResult result);
    void onBytes(std::string_view bytes);
    void onClosed(Orvex::Reticor::Kit::CloseReason reason);
    void onBody(const uint8_t* bytes, size_t size) INFRA_REQUIRES(m_mutex);
    void giveUp(const std::string& why) INFRA_REQUIRES(m_mutex);
    bool redirect() INFRA_REQUIRES(m_mutex);
    void retry() INFRA_REQUIRES(m_mutex);

    Orvex::Reticor::Kit::Pool& m_pool;
    const InputUrl m_first;
    InputUrl m_url INFRA_GUARDED_BY(m_mutex);  // where the redirects have led
    unsigned m_redirects INFRA_GUARDED_BY(m_mutex) = 0;
    bool m_redirected INFRA_GUARDED_BY(m_mutex) = false;  // by the answer of this connection
    Orvex::Reticor::Kit::Connection m_connection INFRA_GUARDED_BY(m_mutex);
    HttpAnswer m_answer INFRA_GUARDED_BY(m_mutex);
    std::string m_why INFRA_GUARDED_BY(m_mutex);    // the connection was given up; empty: its own end
    bool m_fresh INFRA_GUARDED_BY(m_mutex) = true;  // nothing of this answer's body has come
    bool m_any INFRA_GUARDED_BY(m_mutex) = false;   // something of an answer's body has come once
    uint64_t m_connections INFRA_GUARDED_BY(m_mutex) = 0;
    int64_t m_pause_us INFRA_GUARDED_BY(m_mutex) = 0;
    long m_retry INFRA_GUARDED_BY(m_mutex) = -1;  // timer
};

}  // namespace relay
