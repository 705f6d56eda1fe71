// Transport: how a client wants its packets (RFC 2326, 12.39).
#pragma once

#include <string>

namespace relay {

struct Transport {
    enum Kind { NONE, TCP, UDP };

    Kind kind = NONE;
    unsigned short port = 0;        // of the client, for packets; of UDP
    unsigned short reportPort = 0;  // and for reports
};

/// The first of the ways that a client offers which we know: over its connection, or by datagrams to
/// itself.
Transport chooseTransport(const std::string& offers);

}  // namespace relay
