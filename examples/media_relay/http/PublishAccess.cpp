// PublishAccess: tokens, and the nonces of Digest.

#include "media_relay/http/PublishAccess.h"

#include <openssl/rand.h>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <utility>

#include "media_relay/http/Credentials.h"
#include "media_relay/http/Digest.h"

namespace relay {

using Orvex::Infra::CGuard;

namespace {

constexpr char REALM[] = "media_relay";
constexpr size_t NUMBER_SIZE = 16;  // digits of 64 bits
constexpr size_t MOST_TOKEN = 1024;

std::string makeKey() {
    unsigned char bytes[32];
    if (RAND_bytes(bytes, sizeof bytes) != 1) {
        std::fprintf(stderr, "media_relay: the system gives no random bytes\n");
        std::abort();  // whoever can guess nonces can use what was overheard
    }
    return std::string(reinterpret_cast<const char*>(bytes), sizeof bytes);
}

std::string toDigits(uint64_t number) {
    char text[NUMBER_SIZE + 1];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(number));
    return text;
}

}  // namespace

PublishAccess::PublishAccess(std::string token) : m_token(std::move(token)), m_key(makeKey()) {}

PublishAccess::Ruling PublishAccess::check(const HttpRequest& request, uint64_t now_us) {
    if (m_token.empty()) {
        return {403, ""};
    }
    if (showsToken(request)) {
        return {200, ""};
    }
    const Proof proof = checkDigest(request, now_us);
    return proof == Proof::GOOD ? Ruling{200, ""} : Ruling{401, challenge(now_us, proof == Proof::STALE)};
}

bool PublishAccess::showsToken(const HttpRequest& request) const {
    Credentials credentials;
    return (parseCredentials(request.field("authorization"), credentials) &&
            isSame(credentials.token, m_token)) ||
           isSame(request.field("x-publish-token"), m_token) ||
           isSame(findArgument(request.query, "token"), m_token);
}

/// A good response for a nonce that does not hold (any longer) is told so: then the client, which knows the
/// password, tries again with a new one, and asks nobody.
PublishAccess::Proof PublishAccess::checkDigest(const HttpRequest& request, uint64_t now_us) {
    Credentials credentials;
    const std::string target = request.path + (request.query.empty() ? "" : "?" + request.query);
    if (!parseCredentials(request.field("authorization"), credentials) || credentials.scheme != "digest" ||
        credentials.parameter("realm") != REALM || credentials.parameter("uri") != target) {
        return Proof::NONE;
    }
    const std::string response = digestResponse(credentials, request.method, m_token);
    if (response.empty() || !isSame(inSmallLetters(credentials.parameter("response")), response)) {
        return Proof::NONE;
    }
    return use(credentials.parameter("nonce"), now_us) ? Proof::GOOD : Proof::STALE;
}

/// The best comes first. Clients take the first one, or, as ffmpeg does, the last one alone: that is the one
/// which all know.
std::string PublishAccess::challenge(uint64_t now_us, bool stale) {
    const std::string nonce = makeNonce(now_us);
    std::string fields;
    for (const char* const algorithm : {"SHA-256", "MD5"}) {
        fields += std::string("WWW-Authenticate: Digest realm=\"") + REALM +
                  "\", qop=\"auth\", algorithm=" + algorithm + ", nonce=\"" + nonce + "\"" +
                  (stale ? ", stale=true" : "") + "\r\n";
    }
    return fields + "WWW-Authenticate: Bearer realm=\"" + REALM + "\"\r\n";
}

/// The time, a number, and the proof that both are ours.
std::string PublishAccess::makeNonce(uint64_t now_us) {
    CGuard guard(m_mutex);
    const std::string text = toDigits(now_us) + toDigits(++m_lastNonce);
    return text + keyedSum(m_key, text);
}

/// Whether it holds: for this once.
bool PublishAccess::use(const std::string& nonce, uint64_t now_us) {
    if (nonce.size() < 2 * NUMBER_SIZE ||
        !isSame(nonce.substr(2 * NUMBER_SIZE), keyedSum(m_key, nonce.substr(0, 2 * NUMBER_SIZE)))) {
        return false;
    }
    const uint64_t oldest_us = now_us > NONCE_LIFE_US ? now_us - NONCE_LIFE_US : 0;
    const std::string oldest = toDigits(oldest_us);
    CGuard guard(m_mutex);
    m_used.erase(m_used.begin(), m_used.lower_bound(oldest));
    return nonce >= oldest && m_used.insert(nonce).second;
}

std::string readToken(const std::string& path, std::string& token) {
    std::ifstream file(path);
    if (!file) {
        return std::strerror(errno);
    }
    std::getline(file, token);
    while (!token.empty() && (token.back() == '\r' || token.back() == ' ')) {
        token.pop_back();
    }
    if (token.empty() || token.size() > MOST_TOKEN) {
        return "holds no token in its first line, or a longer one than " + std::to_string(MOST_TOKEN);
    }
    return "";
}

}  // namespace relay
