// The datagram rows on Reticor: one call for each datagram, for a list of them, or for a message that the
// kernel cuts.
#include <sys/uio.h>

#include <array>
#include <cstdlib>
#include <memory>

#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockDgram.h>

#include "common/Datagrams.h"

namespace {

using namespace Orvex::Reticor;

std::size_t taken(int result) {
    if (result < 0) {
        std::exit(1);  // A line on standard error says why.
    }
    return static_cast<std::size_t>(result);
}

std::size_t sendEach(CSockDgram& sock, Bench::DatagramTurn& turn) {
    std::size_t sent = 0;
    for (std::size_t i = 0; i < Bench::kDatagramsPerTurn; ++i) {
        sent += taken(sock.Send(turn.at(i), Bench::kDatagramBytes, nullptr)) != 0 ? 1 : 0;
    }
    return sent;
}

std::size_t sendMany(CSockDgram& sock, Bench::DatagramTurn& turn) {
    std::array<iovec, Bench::kDatagramsPerTurn> list;
    for (std::size_t i = 0; i < list.size(); ++i) {
        list[i] = {turn.at(i), Bench::kDatagramBytes};
    }
    return taken(sock.SendMany(list.data(), static_cast<int>(list.size()), nullptr));
}

std::size_t sendSegments(CSockDgram& sock, Bench::DatagramTurn& turn) {
    const iovec all = {turn.at(0), Bench::kDatagramsPerTurn * Bench::kDatagramBytes};
    return taken(sock.SendSegments(&all, 1, Bench::kDatagramBytes, nullptr)) / Bench::kDatagramBytes;
}

}  // namespace

int main(int argc, char** argv) {
    const Bench::DatagramOptions options =
        Bench::parseDatagramOptions(argc, argv, "datagrams by CSockDgram", {"send", "many", "segments"});
    const auto way = options.way == "send" ? sendEach : options.way == "many" ? sendMany : sendSegments;
    return Bench::runDatagrams(options, [way](std::uint16_t port) {
        auto sock = std::make_shared<CSockDgram>();
        const CSockAddrIPv4 to("127.0.0.1", port);
        if (sock->Open(nullptr) != 0 || sock->SetRemote(&to) != 0) {
            std::exit(1);
        }
        return [way, sock](Bench::DatagramTurn& turn) { return way(*sock, turn); };
    });
}
