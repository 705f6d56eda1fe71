// Transport: a list of offers, each one a list of words.

#include "media_relay/rtsp/Transport.h"

#include <Reticor/StrParser.h>

namespace relay {

namespace {

using Orvex::Reticor::CStrParser;

/// Up to the next `end`, which is passed as well.
std::string cut(std::string& text, char end) {
    const size_t at = text.find(end);
    std::string piece = text.substr(0, at);
    text.erase(0, at == std::string::npos ? at : at + 1);
    piece.erase(0, piece.find_first_not_of(" \t"));
    piece.erase(piece.find_last_not_of(" \t") + 1);
    return piece;
}

/// "5000-5001", or the first of them alone.
bool readPorts(const std::string& text, Transport& transport) {
    CStrParser parser((text + "\n").c_str());  // a number at the very end would leave the cursor after it
    const unsigned port = parser.ConsumeUint32();
    if (parser.GetStatus() != 0 || port < 1 || port > 65534) {
        return false;
    }
    unsigned reportPort = port + 1;
    if (parser.Expect('-') != -1) {
        reportPort = parser.ConsumeUint32();
    }
    if (parser.GetStatus() != 0 || parser.GetCurChar() != '\n' || reportPort < 1 || reportPort > 65535) {
        return false;
    }
    transport.port = static_cast<unsigned short>(port);
    transport.reportPort = static_cast<unsigned short>(reportPort);
    return true;
}

Transport read(std::string offer) {
    constexpr char PORTS[] = "client_port=";
    Transport transport;
    const std::string way = cut(offer, ';');
    if (way == "RTP/AVP/TCP") {
        transport.kind = Transport::TCP;
        return transport;
    }
    if (way != "RTP/AVP" && way != "RTP/AVP/UDP") {
        return transport;
    }
    bool multicast = false;
    bool ports = false;
    while (!offer.empty()) {
        const std::string word = cut(offer, ';');
        multicast = multicast || word == "multicast";
        if (word.rfind(PORTS, 0) == 0) {
            ports = readPorts(word.substr(sizeof PORTS - 1), transport);
        }
    }
    transport.kind = ports && !multicast ? Transport::UDP : Transport::NONE;
    return transport;
}

}  // namespace

Transport chooseTransport(const std::string& offers) {
    std::string rest = offers;
    while (!rest.empty()) {
        const Transport transport = read(cut(rest, ','));
        if (transport.kind != Transport::NONE) {
            return transport;
        }
    }
    return {};
}

}  // namespace relay
