// Target: paths and URLs.
#include "top/Target.h"

#include <netdb.h>
#include <sys/un.h>

#include <cstring>

namespace top {

namespace {

constexpr char SCHEME[] = "http://";

bool begins_with(const std::string& text, const std::string& head) {
    return text.compare(0, head.size(), head) == 0;
}

/// "host", "host:80", "[::1]", "[::1]:80". False if there is no host, or something odd after it.
bool split_authority(const std::string& text, std::string& host, std::string& port) {
    size_t end = text.find(':');
    if (!text.empty() && text[0] == '[') {
        const size_t bracket = text.find(']');
        if (bracket == std::string::npos) {
            return false;
        }
        host = text.substr(1, bracket - 1);
        end = bracket + 1;
    } else {
        host = text.substr(0, end);
        end = end == std::string::npos ? text.size() : end;
    }
    if (host.empty() || (end != text.size() && text[end] != ':')) {
        return false;
    }
    port = end == text.size() ? "80" : text.substr(end + 1);
    return !port.empty();
}

}  // namespace

bool Target::resolve(const std::string& text, std::string& wrong) {
    m_text = text;
    m_authority.clear();
    m_page.clear();
    m_addresses.clear();
    return begins_with(text, SCHEME) ? resolve_url(wrong) : resolve_path(wrong);
}

bool Target::resolve_path(std::string& wrong) {
    if (m_text.find("://") != std::string::npos) {
        wrong = "only http:// is understood";
        return false;
    }
    Address address;
    sockaddr_un un{};
    un.sun_family = AF_UNIX;
    if (m_text.empty() || m_text.size() >= sizeof(un.sun_path)) {
        wrong = m_text.empty() ? "is empty" : "is longer than the path of a socket can be";
        return false;
    }
    std::memcpy(un.sun_path, m_text.c_str(), m_text.size() + 1);
    std::memcpy(&address.bytes, &un, sizeof un);
    address.length = sizeof un;
    m_addresses.push_back(address);
    return true;
}

bool Target::resolve_url(std::string& wrong) {
    const size_t begin = sizeof(SCHEME) - 1;
    const size_t slash = m_text.find('/', begin);
    m_authority = m_text.substr(begin, slash == std::string::npos ? slash : slash - begin);
    m_page = slash == std::string::npos || slash + 1 == m_text.size() ? "/stats.json" : m_text.substr(slash);
    for (const char letter : m_text) {
        if (static_cast<unsigned char>(letter) <= ' ' || letter == 0x7f) {
            wrong = "is not a URL";
            return false;
        }
    }
    std::string host;
    std::string port;
    if (!split_authority(m_authority, host, port)) {
        wrong = "has no host or no port";
        return false;
    }
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int error = ::getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
    if (error != 0) {
        wrong = ::gai_strerror(error);
        return false;
    }
    for (const addrinfo* one = found; one != nullptr; one = one->ai_next) {
        Address address;
        std::memcpy(&address.bytes, one->ai_addr, one->ai_addrlen);
        address.length = one->ai_addrlen;
        m_addresses.push_back(address);
    }
    ::freeaddrinfo(found);
    return true;
}

std::string Target::bytesOf(const std::string& request) const {
    if (!isHttp()) {
        return request + "\n";
    }
    return "GET " + m_page + " HTTP/1.1\r\nHost: " + m_authority + "\r\nConnection: close\r\n\r\n";
}

}  // namespace top
