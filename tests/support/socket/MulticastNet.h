// MulticastNet: a network of the test's own, in which groups can be joined: a pair of virtual Ethernet
// interfaces in a namespace that the calling thread moves into for good. Multicast does not need the
// machine's network then, and does not leave it.
//
// It needs root, or a system that lets a user make namespaces. Otherwise made() is false and the machine's
// network stays in place, where joining may fail: tests then prove how a failed join is told.
#pragma once

#include <string>

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

    // What can be changed later, in a network of our own alone; false if the system refuses.

    // One more pair of interfaces.
    bool addPair(const char* first, const char* second, const char* first_ipv4);
    // From now on no route leads to IPv4 groups.
    bool removeRoute();
    bool setUp(const char* name, bool on);
    bool setMulticast(const char* name, bool on);
    // One of /proc/sys/net/ipv4.
    bool set(const std::string& setting, int value);
    // A datagram of any sender, 64 bytes at most, goes out of the interface, and comes in at its other end.
    bool inject(const char* name, const char* source, const char* group, unsigned short port,
                const std::string& bytes);

private:
    bool m_made;
};

}  // namespace Orvex::Testing
