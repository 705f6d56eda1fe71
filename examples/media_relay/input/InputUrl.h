// InputUrl: how inputs are named.
#pragma once

#include <string>

namespace relay {

/// What the name of an input says, taken apart. Only the name decides: nothing is told by looking at bytes.
///
///     test                                     the test picture
///     -, FILE                                  standard input; a file, or a pipe that has a name
///     udp://[@]ADDRESS:PORT[?iface=IP&source=IP]   datagrams that carry a transport stream as bytes
///     rtp://[@]ADDRESS:PORT[?iface=IP&source=IP]   the same within RTP
///     http://HOST[:PORT]/PATH                  a transport stream that a server sends
struct InputUrl {
    enum class Kind { Test, File, Udp, Rtp, Http };

    Kind kind = Kind::Test;
    std::string text;  // as it was given
    std::string host;  // of UDP and RTP: the address to listen at, or a group; without the brackets of IPv6
    unsigned short port = 0;
    std::string path;       // of HTTP, with its query
    std::string interface;  // address of the interface on which a group is joined; empty: the system's choice
    std::string source;     // the one sender whose datagrams to the group are wanted; empty: any
};

/// Fills `url`. The result is empty, or what is wrong with `text`, as the end of a sentence that begins with
/// it. Looks no name up.
std::string parseInputUrl(const std::string& text, InputUrl& url);

}  // namespace relay
