// CGetHostByName: turns a host name or numeric text into one address of a wanted family.
#pragma once

#include <Infra/Mutex.h>
#include <Infra/ThreadAnnotations.h>

struct sockaddr;

namespace Orvex::Reticor {

/// The resolver holds no data. One instance exists while anybody uses it; CResolverHold takes and gives it
/// back.
class CGetHostByName {
public:
    /// Adds a user, and makes the instance for the first one. Null if there is no memory, and then there is
    /// nothing to release. Any thread.
    static CGetHostByName* instance();

    /// Takes a user away; the last one takes the instance along. Any thread.
    static void release();

    /// Writes the first address of `host` to `result` and returns true. For AF_INET6 `result` is a
    /// sockaddr_in6 and the family field is set in any case; any other family counts as AF_INET, and `result`
    /// is a sockaddr_in whose port is left alone. A `result_len` that is too small for that is refused. Any
    /// thread.
    ///
    /// Blocks for as long as the system's resolver does; `timeout`, in milliseconds, is what the caller hopes
    /// for and is not enforced. Numeric texts never reach the name service. After a false result errno holds
    /// the code of the failed look-up: EAI_*, which is negative, or the system's error for EAI_SYSTEM.
    ///
    /// For AF_INET6, a name without IPv6 addresses gives its IPv4 address as a mapped one, of which bytes 10
    /// to 15 are written and the others are left alone. A failure writes a log line, for AF_INET it does not.
    bool GetAddressInfo(const char* host, int family, struct sockaddr* result, int result_len, int timeout);

private:
    CGetHostByName() = default;
    ~CGetHostByName() = default;

    static Infra::CMutex sm_mutex;
    static CGetHostByName* sm_instance INFRA_GUARDED_BY(sm_mutex);
    static int sm_use_count INFRA_GUARDED_BY(sm_mutex);
};

}  // namespace Orvex::Reticor
