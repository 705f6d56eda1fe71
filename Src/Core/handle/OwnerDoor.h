// OwnerDoor: registers a socket on a handler from outside of it, for helper objects that a handler owns.
#pragma once

#include <Reticor/NetHandler.h>

namespace Orvex::Reticor {

class CSock;

/// The three operations are protected in CNetHandler: what is registered on a handler is its own affair. A
/// helper that works on behalf of a handler comes through here. The checks are CNetHandler's own; above all
/// nothing can be registered on a closed handler. The caller holds a reference on `owner`, and no lock while
/// it drops that.
class OwnerDoor {
public:
    static int Register(CNetHandler& owner, CSock& sock, unsigned int mask, int timeout_us) {
        return owner.RegisterSock(sock, mask, timeout_us);
    }
    static int Unregister(CNetHandler& owner, CSock& sock, unsigned int mask) {
        return owner.UnregisterSock(sock, mask);
    }
    static int Remove(CNetHandler& owner, CSock& sock) { return owner.RemoveSock(sock); }
};

}  // namespace Orvex::Reticor
