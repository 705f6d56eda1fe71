// The datagram rows: one thread sends as fast as it can, to a socket that is read and to one that is not.
// Each library only says how it sends.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Bench {

struct DatagramOptions {
    std::string way = "send";
    double seconds = 2;
    double warmUp = 0.3;
};

// Ends the process with a message if the command line is wrong. `ways` are the values of --way; without any
// there is no such option.
DatagramOptions parseDatagramOptions(int argc, char** argv, const char* description,
                                     const std::vector<std::string>& ways = {});

constexpr std::size_t kDatagramBytes = 1400;
constexpr std::size_t kDatagramsPerTurn = 46;

// The datagrams of one turn, one after another.
class DatagramTurn {
public:
    DatagramTurn() : m_bytes(kDatagramsPerTurn * kDatagramBytes, 'd') {}
    char* at(std::size_t index) { return m_bytes.data() + index * kDatagramBytes; }

private:
    std::vector<char> m_bytes;
};

// Opens what a library needs to send to this port of 127.0.0.1, and gives what sends one turn: it returns how
// many of its datagrams the socket took. The socket's own buffer is the system's.
using DatagramSender = std::function<std::size_t(DatagramTurn&)>;
using DatagramOpener = std::function<DatagramSender(std::uint16_t port)>;

// Runs both rows, and prints the figures as JSON.
int runDatagrams(const DatagramOptions& options, const DatagramOpener& open);

}  // namespace Bench
