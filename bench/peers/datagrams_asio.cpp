// The datagram rows on standalone asio: a non-blocking send on a connected socket.
#include "common/Datagrams.h"

#include <asio.hpp>
#include <memory>

using asio::ip::udp;

int main(int argc, char** argv) {
    const Bench::DatagramOptions options = Bench::parseDatagramOptions(argc, argv, "datagrams by asio");
    asio::io_context context;
    return Bench::runDatagrams(options, [&context](std::uint16_t port) {
        auto sock = std::make_shared<udp::socket>(context, udp::v4());
        sock->connect(udp::endpoint(asio::ip::address_v4::loopback(), port));
        sock->non_blocking(true);
        return [sock](Bench::DatagramTurn& turn) {
            std::size_t sent = 0;
            for (std::size_t i = 0; i < Bench::kDatagramsPerTurn; ++i) {
                asio::error_code error;
                sock->send(asio::buffer(turn.at(i), Bench::kDatagramBytes), 0, error);
                if (error && error != asio::error::would_block) {
                    throw asio::system_error(error);
                }
                sent += error ? 0 : 1;
            }
            return sent;
        };
    });
}
