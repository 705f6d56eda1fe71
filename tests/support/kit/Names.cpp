// Names: getaddrinfo(3) of this test program.
#include "support/kit/Names.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netdb.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>

namespace Orvex::Testing {

Names& names() {
    static Names* const sm_names = new Names;  // a look-up may outlast everything
    return *sm_names;
}

namespace {

/// One entry of a list, with its address behind it.
addrinfo* make_entry(const std::string& text, int port) {
    auto* const entry = static_cast<addrinfo*>(std::calloc(1, sizeof(addrinfo) + sizeof(sockaddr_in6)));
    auto* const four = reinterpret_cast<sockaddr_in*>(entry + 1);
    auto* const six = reinterpret_cast<sockaddr_in6*>(entry + 1);
    const bool is_six = text.find(':') != std::string::npos;
    entry->ai_family = is_six ? AF_INET6 : AF_INET;
    entry->ai_addr = reinterpret_cast<sockaddr*>(entry + 1);
    entry->ai_addrlen = is_six ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    four->sin_family = static_cast<sa_family_t>(entry->ai_family);
    four->sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(entry->ai_family, text.c_str(),
              is_six ? static_cast<void*>(&six->sin6_addr) : static_cast<void*>(&four->sin_addr));
    return entry;
}

bool ends_with(std::string_view text, std::string_view end) {
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

void hang() {
    Names& all = names();
    const int now = ++all.looking;
    int most = all.most;
    while (most < now && !all.most.compare_exchange_weak(most, now)) {
    }
    all.let_go.pend();
    --all.looking;
}

}  // namespace
}  // namespace Orvex::Testing

using Orvex::Testing::names;

// These stand before the C library's.
extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result) {
    using Real = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
    const std::string_view name = node;
    if (name == "hangs.test") {
        Orvex::Testing::hang();
        return EAI_AGAIN;
    }
    if (name == "listed.test") {
        addrinfo** end = result;
        for (const auto& address : names().addresses) {
            *end = Orvex::Testing::make_entry(address.first, address.second);
            end = &(*end)->ai_next;
        }
        ++names().lists;
        return 0;
    }
    if (Orvex::Testing::ends_with(name, "nobody.test")) {
        return EAI_NONAME;
    }
    return reinterpret_cast<Real>(dlsym(RTLD_NEXT, "getaddrinfo"))(node, service, hints, result);
}

extern "C" void freeaddrinfo(addrinfo* list) {
    using Real = void (*)(addrinfo*);
    if (list != nullptr && list->ai_addr == reinterpret_cast<sockaddr*>(list + 1) &&
        list->ai_canonname == nullptr && list->ai_socktype == 0) {
        while (list != nullptr) {
            std::free(std::exchange(list, list->ai_next));
        }
        --names().lists;
        return;
    }
    reinterpret_cast<Real>(dlsym(RTLD_NEXT, "freeaddrinfo"))(list);
}
