// Target: whom reticor-top asks.
#pragma once

#include <sys/socket.h>

#include <string>
#include <vector>

namespace top {

/// A statistics socket by its path, or the page of a relay by its URL.
class Target {
public:
    struct Address {
        sockaddr_storage bytes{};
        socklen_t length = 0;
    };

    /// Takes a path or an http URL apart, and looks a host name up: blocks for that. False if it is neither,
    /// or there is no such host; `wrong` says why.
    bool resolve(const std::string& text, std::string& wrong);

    const std::string& text() const { return m_text; }
    bool isHttp() const { return !m_page.empty(); }
    /// What to try, in turn.
    const std::vector<Address>& addresses() const { return m_addresses; }
    /// What is sent to ask `request`. A page knows only its figures.
    std::string bytesOf(const std::string& request) const;

private:
    bool resolve_path(std::string& wrong);
    bool resolve_url(std::string& wrong);

    std::string m_text;
    std::string m_authority;  // host and port, as in the URL
    std::string m_page;       // of a URL, with its slash
    std::vector<Address> m_addresses;
};

}  // namespace top
