// PublishAccess: whether a request may publish.
#pragma once

#include <cstdint>
#include <set>
#include <string>

#include <Infra/Mutex.h>

#include "media_relay/http/HttpRequest.h"

namespace relay {

/// Whoever shows the token may: as `Authorization: Bearer TOKEN` (RFC 6750), as `X-Publish-Token: TOKEN`, as
/// `?token=TOKEN`, or as the password of Digest (RFC 7616, MD5 and SHA-256), under any user name, as players
/// and encoders send it that have a user and a password in their URL.
///
/// A nonce of Digest holds for one request and for a minute: what somebody overhears lets nobody in again.
/// Nothing is kept of those that nobody has used.
///
/// Thread safety: `check` is for any thread; it does not block.
class PublishAccess {
public:
    static constexpr uint64_t NONCE_LIFE_US = 60000000;

    struct Ruling {
        int status;          // 200, 401, or 403 if nobody may publish
        std::string fields;  // lines for the head of the answer: how to show the token
    };

    /// With an empty token nobody may publish.
    explicit PublishAccess(std::string token);

    /// `now_us` is the time of a clock that never runs backwards.
    Ruling check(const HttpRequest& request, uint64_t now_us);

private:
    enum class Proof { NONE, STALE, GOOD };

    bool showsToken(const HttpRequest& request) const;
    Proof checkDigest(const HttpRequest& request, uint64_t now_us);
    std::string challenge(uint64_t now_us, bool stale);
    std::string makeNonce(uint64_t now_us);
    bool use(const std::string& nonce, uint64_t now_us);

    const std::string m_token;
    const std::string m_key;  // under which nonces are made: no other one is ours

    Orvex::Infra::CMutex m_mutex;  // innermost
    uint64_t m_lastNonce INFRA_GUARDED_BY(m_mutex) = 0;
    std::set<std::string> m_used INFRA_GUARDED_BY(m_mutex);  // nonces that would hold otherwise, oldest first
};

/// Reads a token from the first line of a file. The result is empty, or what is wrong.
std::string readToken(const std::string& path, std::string& token);

}  // namespace relay
