// MulticastNet: a network of the test's own, in which groups can be joined: a pair of virtual Ethernet
// interfaces in a namespace that the calling thread moves into for good. Multicast does not need the
// machine's network then, and does not leave it.
//
// It needs root, or a system that lets a user make namespaces. Otherwise made() is false and the machine's
// network stays in place, where joining may fail: tests then prove how a failed join is told.
#pragma once

namespace Orvex::Testing {

class MulticastNet {
public:
    static constexpr char FIRST_IPV4[] = "10.77.0.1";   // default for groups
    static constexpr char SECOND_IPV4[] = "10.77.1.1";  // of the other interface
    static constexpr char FIRST_IPV6[] = "fd77::1";

    // Call it before any other thread is started.
    MulticastNet();
    MulticastNet(const MulticastNet&) = delete;
    MulticastNet& operator=(const MulticastNet&) = delete;

    bool made() const { return m_made; }

private:
    bool m_made;
};

}  // namespace Orvex::Testing
