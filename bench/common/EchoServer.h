// What the echo servers of the benchmark share: options, listening socket, dealing out of connections and the
// end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace Bench {

struct EchoOptions {
    std::uint16_t port = 0;  // 0 lets the system choose
    unsigned threads = 2;    // event loops, or workers of the pool
    unsigned pools = 0;      // Reticor: private pools that connections are spread over, 0: all on one pool
};

// Room for one read. Every server reads with the same room, and at most once per report of its loop.
constexpr std::size_t kReadRoom = 65536;

// Ends the process with a message if the command line is wrong.
EchoOptions parseEchoOptions(int argc, char** argv, const char* description);

// A non-blocking listening socket on the loopback address. Ends the process if there is none to be had.
int listenOnLoopback(std::uint16_t port);

// Non-blocking, close-on-exec, no delay: the state in which every server takes over a connection.
void prepareConnection(int fd);

// Prints "port N" for the one who started the server.
void announcePort(int listener);
void announcePort(std::uint16_t port);

// Blocks SIGINT and SIGTERM in the caller and in all threads that it starts later.
void blockTerminationSignals();

// Sleeps until SIGINT or SIGTERM arrives.
void waitForTermination();

// Accepts on the calling thread and deals the connections out in turn, until SIGINT or SIGTERM arrives.
// Servers with a loop per thread are fed by it: in turn, since a listening socket per loop (SO_REUSEPORT)
// spreads connections by a hash, and with 16 of them one loop may well get 12.
void dealConnections(int listener, unsigned loops, const std::function<void(unsigned loop, int fd)>& deal);

// A pipe by which connections reach a loop of a library whose objects belong to the loop's own thread.
class HandOver {
public:
    static constexpr int kStop = -1;  // what the loop reads when it shall end

    HandOver();
    ~HandOver();
    HandOver(const HandOver&) = delete;
    HandOver& operator=(const HandOver&) = delete;

    int readEnd() const { return m_ends[0]; }
    void give(int fd);
    // False when nothing is waiting.
    bool take(int* fd);

private:
    int m_ends[2] = {-1, -1};
};

// Runs `threads` loops, feeds them with connections and joins them after the termination signal.
// `body(handOver)` is a whole loop and returns once it has taken kStop.
void runHandOverLoops(const EchoOptions& options, const std::function<void(HandOver&)>& body);

// Bytes of a connection that the kernel did not take at once.
class Unsent {
public:
    bool empty() const { return m_begin == m_bytes.size(); }
    const char* data() const { return m_bytes.data() + m_begin; }
    std::size_t size() const { return m_bytes.size() - m_begin; }
    void keep(const char* bytes, std::size_t count);
    void drop(std::size_t sent) { m_begin += sent; }
    // Sends what it can. False if the connection is broken; true with empty() telling whether all is sent.
    bool flush(int fd);

private:
    std::vector<char> m_bytes;
    std::size_t m_begin = 0;
};

// Reads once and sends back what came. False when the peer has closed or the connection is broken.
bool echoOnce(int fd, char* room, Unsent* unsent);

}  // namespace Bench
