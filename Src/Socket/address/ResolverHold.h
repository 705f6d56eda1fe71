// CResolverHold: one use of the resolver.
#pragma once

struct sockaddr;

namespace Orvex::Reticor {

class CGetHostByName;

/// What the address classes hope for, in milliseconds; the resolver takes its own time.
constexpr int RESOLVE_LIMIT_MS = 2000;

/// One use of the resolver. Its end leaves errno alone, which may hold the code of a failed look-up.
class CResolverHold {
public:
    CResolverHold();
    ~CResolverHold();
    CResolverHold(const CResolverHold&) = delete;
    CResolverHold& operator=(const CResolverHold&) = delete;

    /// CGetHostByName::GetAddressInfo, false if there is no instance.
    bool GetAddressInfo(const char* host, int family, struct sockaddr* result, int result_len, int timeout);

private:
    CGetHostByName* const m_resolver;
};

}  // namespace Orvex::Reticor
