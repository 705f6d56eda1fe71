// Names: what the names of a test stand for. Each ends with ".test", which no name service knows.
#pragma once

#include <atomic>
#include <string>
#include <utility>
#include <vector>

#include <Infra/Semaphore.h>

namespace Orvex::Testing {

/// Answers getaddrinfo(3) of the whole test program, for the process; a case runs in one of its own.
///
/// "listed.test" has the addresses that stand here; what ends with "nobody.test" has none; "hangs.test" is
/// looked up until it is let go, and has none then either. Everything else is the system's.
struct Names {
    std::vector<std::pair<std::string, int>> addresses;  ///< IPv4 or IPv6, and the port.
    Infra::CSemaphore let_go{0};
    std::atomic<int> looking{0};  ///< Look-ups of "hangs.test" that are under way.
    std::atomic<int> most{0};     ///< The most at a time.
    std::atomic<int> lists{0};    ///< Answers of the system that were given and not freed.
};

Names& names();

}  // namespace Orvex::Testing
