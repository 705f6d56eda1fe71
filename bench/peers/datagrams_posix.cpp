// The datagram rows by plain sendto(2) on a connected socket.
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "common/Datagrams.h"

int main(int argc, char** argv) {
    const Bench::DatagramOptions options = Bench::parseDatagramOptions(argc, argv, "datagrams by sendto(2)");
    return Bench::runDatagrams(options, [](std::uint16_t port) {
        const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(port);
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) {
            std::perror("connect");
            std::exit(1);
        }
        return [fd](Bench::DatagramTurn& turn) {
            std::size_t sent = 0;
            for (std::size_t i = 0; i < Bench::kDatagramsPerTurn; ++i) {
                if (::sendto(fd, turn.at(i), Bench::kDatagramBytes, 0, nullptr, 0) > 0) {
                    ++sent;
                } else if (errno != EAGAIN) {
                    std::perror("sendto");
                    std::exit(1);
                }
            }
            return sent;
        };
    });
}
