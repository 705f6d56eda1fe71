// CResolverHold: takes the one instance and gives it back.
#include "Socket/address/ResolverHold.h"

#include <cerrno>

#include "Socket/address/GetHostByName.h"

namespace Orvex::Reticor {

CResolverHold::CResolverHold() : m_resolver(CGetHostByName::instance()) {}

CResolverHold::~CResolverHold() {
    const int saved = errno;
    if (m_resolver != nullptr) {
        CGetHostByName::release();
    }
    errno = saved;
}

bool CResolverHold::GetAddressInfo(const char* host, int family, struct sockaddr* result, int result_len,
                                   int timeout) {
    if (m_resolver == nullptr) {
        errno = ENOMEM;
        return false;
    }
    return m_resolver->GetAddressInfo(host, family, result, result_len, timeout);
}

}  // namespace Orvex::Reticor
