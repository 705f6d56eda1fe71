// Helpers of the socket tests: connected pairs on loopback, waits for readiness, and threads that interrupt.
#pragma once

#include <string>
#include <vector>

#include <Reticor/SockAcceptor.h>
#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockStream.h>

#include "support/LogCapture.h"

namespace Orvex::Testing {

// Waits for poll(2) events of a descriptor, with a deadline that only stops a hang.
bool waitFor(int handle, short events);

// Opens on 127.0.0.1 with a port of the system's choice, and returns the port; 0 on failure.
unsigned short openOnLoopback(Reticor::CSockAcceptor& acceptor);

// Accepts the next connection, waiting for it.
bool acceptInto(Reticor::CSockAcceptor& acceptor, Reticor::CSockStream& stream);

// Two connected streams, both non-blocking.
struct LoopbackPair {
    LoopbackPair();
    // Fixes small buffers at both ends, so that a megabyte is more than they take.
    void shrink();

    Reticor::CSockStream client;
    Reticor::CSockStream server;
    bool connected = false;
};

// Sends until the kernels of both ends take no more, and returns how many bytes they took.
std::size_t fill(Reticor::CSockStream& stream);

// Receives until nothing has come for as long as `total` is not reached, with a deadline; returns the bytes.
std::string receive(Reticor::CSockStream& stream, std::size_t total);

// Closes a descriptor so that the peer sees a reset and not an orderly close.
void closeWithReset(Reticor::CSock& sock);

// A loopback port that nobody listens on: it is bound by `holder` meanwhile.
unsigned short refusingPort(Reticor::CSock& holder);

bool isOpen(int handle);
bool isNonBlocking(int handle);
bool isCloseOnExec(int handle);

// Level and text of each captured line, for comparing all of them at once.
std::vector<std::string> texts(const LogCapture& log);

// Bytes that tell their own place, so that loss, doubling and mixing show.
std::string pattern(std::size_t length);

// Lowers the limit of open descriptors and uses all of them up while it lives.
class NoDescriptors {
public:
    NoDescriptors();
    ~NoDescriptors();
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

private:
    std::vector<int> m_fillers;
    unsigned long m_limit_before;
};

// Sends SIGUSR1 to a thread, with a handler without SA_RESTART.
class Interrupter {
public:
    Interrupter();
    // Waits until the thread with this kernel id sleeps in a system call, and interrupts it `times` times,
    // each time waiting until the handler has run. False if that did not happen.
    bool interrupt(pthread_t thread, int kernel_id, int times);
    // Only waits until the thread sleeps.
    static bool waitUntilAsleep(int kernel_id);
};

}  // namespace Orvex::Testing
