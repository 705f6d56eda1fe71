// PeerSeam: lets connections look as if they came from another address. This program defines getpeername
// itself and passes it on.
#pragma once

#include <atomic>
#include <cstdint>

namespace Orvex::Testing {

// While it lives, getpeername reports this IPv4 address on every thread. One at a time.
class PeerSeam {
public:
    explicit PeerSeam(const char* address);
    ~PeerSeam();
    PeerSeam(const PeerSeam&) = delete;
    PeerSeam& operator=(const PeerSeam&) = delete;
};

}  // namespace Orvex::Testing
