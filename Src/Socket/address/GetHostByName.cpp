// Name resolution over getaddrinfo, which is safe from any thread; gethostbyname shares one result among all.
#include "Socket/address/GetHostByName.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include <Infra/LockClasses.h>
#include <Infra/Log.h>

#include "Socket/address/IpLiteral.h"
#include "Socket/address/SockError.h"

namespace Orvex::Reticor {

namespace {

struct FreeList {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using AddressList = std::unique_ptr<addrinfo, FreeList>;

// Dotted numbers and texts with a colon are addresses or slips of the pen, "1.2.3.256", and no names: nobody
// is asked for them.
bool is_numeric(const char* host) {
    return host[std::strspn(host, "0123456789.")] == '\0' || std::strchr(host, ':') != nullptr;
}

// One question to the platform. Null on failure, with the code in errno.
AddressList look_up(const char* host, int family) {
    addrinfo* list = nullptr;
    int code = EAI_NONAME;
    if (host != nullptr && *host != '\0') {
        addrinfo hints{};
        hints.ai_family = family;
        hints.ai_socktype = SOCK_STREAM;
        hints.ai_flags = is_numeric(host) ? AI_NUMERICHOST : 0;
        code = getaddrinfo(host, nullptr, &hints, &list);
    }
    if (code == 0) {
        return AddressList(list);
    }
    if (code != EAI_SYSTEM) {
        errno = code;
    }
    return nullptr;
}

const addrinfo* first_of(const AddressList& list, int family) {
    const addrinfo* entry = list.get();
    while (entry != nullptr && (entry->ai_family != family || entry->ai_addr == nullptr)) {
        entry = entry->ai_next;
    }
    return entry;
}

// Returns false with the code of the failed look-up in errno.
bool find_ipv4(const char* host, in_addr& address) {
    if (parse_ipv4_literal(host, address)) {
        return true;
    }
    const AddressList list = look_up(host, AF_INET);
    const addrinfo* entry = first_of(list, AF_INET);
    if (entry == nullptr) {
        return false;
    }
    sockaddr_in found;
    std::memcpy(&found, entry->ai_addr, sizeof found);
    address = found.sin_addr;
    return true;
}

// Returns false with the code of the failed look-up in errno.
bool find_ipv6(const char* host, sockaddr_in6& record) {
    record.sin6_family = AF_INET6;
    if (const AddressList list = look_up(host, AF_INET6)) {
        // A list without an entry of the family is an answer too; the record then holds its family only.
        if (const addrinfo* entry = first_of(list, AF_INET6)) {
            std::memcpy(&record, entry->ai_addr, sizeof record);
        }
        return true;
    }
    const int error = errno;
    in_addr address;
    if (parse_ipv6_literal(host, record)) {
        return true;
    }
    if (find_ipv4(host, address)) {
        write_mapped_address(address, record);
        return true;
    }
    errno = error;
    return false;
}

}  // namespace

Infra::CMutex CGetHostByName::sm_mutex{Infra::LockClass::RESOLVER};
CGetHostByName* CGetHostByName::sm_instance = nullptr;
int CGetHostByName::sm_use_count = 0;

CGetHostByName* CGetHostByName::instance() {
    Infra::CGuard guard(sm_mutex);
    if (sm_instance == nullptr) {
        sm_instance = new (std::nothrow) CGetHostByName;
    }
    if (sm_instance != nullptr) {
        ++sm_use_count;
    }
    return sm_instance;
}

void CGetHostByName::release() {
    Infra::CGuard guard(sm_mutex);
    if (sm_use_count > 0 && --sm_use_count == 0) {
        delete sm_instance;
        sm_instance = nullptr;
    }
}

bool CGetHostByName::GetAddressInfo(const char* host, int family, struct sockaddr* result, int result_len,
                                    int /*timeout*/) {
    const bool wants_ipv6 = family == AF_INET6;
    const size_t needed = wants_ipv6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    if (result == nullptr || result_len < 0 || static_cast<size_t>(result_len) < needed) {
        errno = EINVAL;
        return false;
    }
    if (!wants_ipv6) {
        auto& record = *reinterpret_cast<sockaddr_in*>(result);
        if (!find_ipv4(host, record.sin_addr)) {
            return false;
        }
        record.sin_family = AF_INET;
        return true;
    }
    if (find_ipv6(host, *reinterpret_cast<sockaddr_in6*>(result))) {
        return true;
    }
    const int error = errno;
    INFRA_LOG_STATIC(2, "getaddrinfo error:%s\n", GetSockErrorText(error).c_str());
    errno = error;
    return false;
}

}  // namespace Orvex::Reticor
