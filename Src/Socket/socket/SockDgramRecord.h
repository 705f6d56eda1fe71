// What a CSockDgram holds besides its handle.
#pragma once

#include <memory>

#include <Reticor/SockAddr.h>
#include <Reticor/SockDgram.h>

namespace Orvex::Reticor {

// The addresses are of the class of their family, never of the storage class.
struct CSockDgram::Record {
    std::unique_ptr<CSockAddr> m_remote_addr;     // the peer set by SetRemote, or null
    std::unique_ptr<CSockAddr> m_multicast_addr;  // the group joined by Open, or null
    bool m_is_ipv4 = true;                        // family of the socket
};

}  // namespace Orvex::Reticor
