// InputUrl: schemes, authorities and arguments (RFC 3986).

#include "media_relay/input/InputUrl.h"

#include <arpa/inet.h>
#include <algorithm>
#include <array>

namespace relay {

namespace {

constexpr unsigned short kHttpPort = 80;

/// A number of 1 to 65535 in digits alone; 0 if it is none.
unsigned short portOf(const std::string& text) {
    const bool digits = !text.empty() && text.size() <= 5 &&
                        std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
    const unsigned long number = digits ? std::stoul(text) : 0;
    return number <= 65535 ? static_cast<unsigned short>(number) : static_cast<unsigned short>(0);
}

/// The family of a numeric address, 0 if it is none.
int familyOf(const std::string& ip) {
    std::array<unsigned char, 16> bytes{};
    for (const int family : {AF_INET, AF_INET6}) {
        if (inet_pton(family, ip.c_str(), bytes.data()) == 1) {
            return family;
        }
    }
    return 0;
}

bool isGroup(const std::string& ip) {
    std::array<unsigned char, 16> bytes{};
    if (inet_pton(AF_INET, ip.c_str(), bytes.data()) == 1) {
        return bytes[0] >> 4 == 14;
    }
    return inet_pton(AF_INET6, ip.c_str(), bytes.data()) == 1 && bytes[0] == 0xFF;
}

/// "HOST", "HOST:PORT", "[IPV6]" or "[IPV6]:PORT". A port that is not there stays as it is.
std::string parseAuthority(const std::string& text, InputUrl& url) {
    const bool bracket = !text.empty() && text[0] == '[';
    const size_t close = bracket ? text.find(']') : 0;
    if (close == std::string::npos) {
        return "has a [ without a ]";
    }
    const size_t colon = text.find(':', close);
    url.host = bracket ? text.substr(1, close - 1) : text.substr(0, colon);
    if (bracket && (familyOf(url.host) != AF_INET6 || (close + 1 != text.size() && colon != close + 1))) {
        return "has no IPv6 address between [ and ], followed by a port";
    }
    if (colon != std::string::npos) {
        url.port = portOf(text.substr(colon + 1));
        if (url.port == 0) {
            return "has no port from 1 to 65535";
        }
    }
    return "";
}

std::string parseArgument(const std::string& text, InputUrl& url) {
    const size_t equal = std::min(text.find('='), text.size());
    const std::string name = text.substr(0, equal);
    const std::string value = text.substr(std::min(equal + 1, text.size()));
    if (name != "iface" && name != "source") {
        return "has an argument that is neither iface=IP nor source=IP";
    }
    if (familyOf(value) != familyOf(url.host)) {
        return "has a " + name + " that is no address of the kind of the group's";
    }
    (name == "iface" ? url.interface : url.source) = value;
    return isGroup(url.host) ? "" : "has " + name + ", which is for groups alone";
}

/// What follows "udp://".
std::string parseDatagrams(const std::string& text, InputUrl& url) {
    const size_t mark = std::min(text.find('?'), text.size());
    const size_t begin = text.compare(0, 1, "@") == 0 ? 1 : 0;
    std::string wrong = parseAuthority(text.substr(begin, mark - begin), url);
    if (wrong.empty() && familyOf(url.host) == 0) {
        wrong = "has no numeric address to listen at";
    }
    if (wrong.empty() && url.port == 0) {
        wrong = "has no port";
    }
    for (size_t at = mark + 1; wrong.empty() && at <= text.size();) {
        const size_t end = std::min(text.find('&', at), text.size());
        wrong = parseArgument(text.substr(at, end - at), url);
        at = end + 1;
    }
    return wrong;
}

/// What follows "http://".
std::string parseHttp(const std::string& text, InputUrl& url) {
    const size_t slash = std::min(text.find_first_of("/?"), text.size());
    url.port = kHttpPort;
    const std::string wrong = parseAuthority(text.substr(0, slash), url);
    if (!wrong.empty()) {
        return wrong;
    }
    url.path = text.substr(slash, text.find('#') - std::min(slash, text.find('#')));
    if (url.path.empty() || url.path[0] != '/') {
        url.path.insert(0, "/");
    }
    if (url.host.empty() || url.host.find('@') != std::string::npos) {
        return url.host.empty() ? "has no host" : "has a user, which is not supported";
    }
    const bool plain = std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 0x7F; });
    return plain ? "" : "has bytes that are to be written as %XX";
}

}  // namespace

std::string parseInputUrl(const std::string& text, InputUrl& url) {
    url = InputUrl();
    url.text = text;
    if (text.empty()) {
        return "is empty";
    }
    const size_t mark = text.find("://");
    if (mark == std::string::npos || text.find('/') < mark) {
        url.kind = text == "test" ? InputUrl::Kind::Test : InputUrl::Kind::File;
        return "";
    }
    const std::string scheme = text.substr(0, mark);
    const std::string rest = text.substr(mark + 3);
    if (scheme == "http") {
        url.kind = InputUrl::Kind::Http;
        return parseHttp(rest, url);
    }
    if (scheme == "udp" || scheme == "rtp") {
        url.kind = scheme == "udp" ? InputUrl::Kind::Udp : InputUrl::Kind::Rtp;
        return parseDatagrams(rest, url);
    }
    return "begins with none of udp://, rtp:// and http://";
}

}  // namespace relay
