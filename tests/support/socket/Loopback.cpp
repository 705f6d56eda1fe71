// Loopback: helpers of the socket tests.
#include "support/socket/Loopback.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <fstream>

#include "support/Eventually.h"

namespace Orvex::Testing {

using Reticor::CSock;
using Reticor::CSockAcceptor;
using Reticor::CSockAddrIPv4;
using Reticor::CSockStream;

namespace {

constexpr unsigned loopback_ip = 0x7F000001;

std::atomic<int> signals_handled{0};

void countSignal(int) {
    ++signals_handled;
}

}  // namespace

bool waitFor(int handle, short events) {
    pollfd entry{};
    entry.fd = handle;
    entry.events = events;
    return eventually([&] { return ::poll(&entry, 1, 100) == 1; });
}

unsigned short openOnLoopback(CSockAcceptor& acceptor) {
    CSockAddrIPv4 local(loopback_ip, 0);
    if (acceptor.Open(local) != 0 || acceptor.GetLocalAddr(&local) != 0) {
        return 0;
    }
    return local.GetPort();
}

bool acceptInto(CSockAcceptor& acceptor, CSockStream& stream) {
    return waitFor(acceptor.GetHandle(), POLLIN) && acceptor.Accept(stream, nullptr) == 0;
}

LoopbackPair::LoopbackPair() {
    CSockAcceptor acceptor;
    const unsigned short port = openOnLoopback(acceptor);
    connected = port != 0 && client.Connect(CSockAddrIPv4(loopback_ip, port), nullptr) == 0 &&
                acceptInto(acceptor, server) && waitFor(client.GetHandle(), POLLOUT);
}

void LoopbackPair::shrink() {
    for (CSockStream* stream : {&client, &server}) {
        stream->SetSockSendBuf(16 * 1024);
        stream->SetSockRecvBuf(16 * 1024);
    }
}

std::size_t fill(CSockStream& stream) {
    static const std::string chunk = pattern(64 * 1024);
    std::size_t total = 0;
    pollfd entry{};
    entry.fd = stream.GetHandle();
    entry.events = POLLOUT;
    do {
        int sent = 0;
        do {
            sent = stream.Send(chunk.data(), static_cast<unsigned>(chunk.size()));
            total += sent > 0 ? static_cast<std::size_t>(sent) : 0;
        } while (sent > 0);
        // The peer's kernel goes on taking bytes for a moment, so that room appears once more.
    } while (::poll(&entry, 1, 100) == 1 && (entry.revents & (POLLERR | POLLHUP)) == 0);
    while (stream.Send("x", 1) == 1) {
        ++total;
    }
    return total;
}

std::string receive(CSockStream& stream, std::size_t total) {
    std::string all;
    std::vector<char> buffer(64 * 1024);
    while (all.size() < total && waitFor(stream.GetHandle(), POLLIN)) {
        const int received = stream.Recv(buffer.data(), static_cast<unsigned>(buffer.size()));
        if (received < 0) {
            break;
        }
        all.append(buffer.data(), static_cast<std::size_t>(received));
    }
    return all;
}

void closeWithReset(CSock& sock) {
    linger at_once{};
    at_once.l_onoff = 1;
    ::setsockopt(sock.GetHandle(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    sock.Close();
}

unsigned short refusingPort(CSock& holder) {
    const int handle = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(loopback_ip);
    CSockAddrIPv4 local;
    if (holder.Attach(handle) != 0 || ::bind(handle, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        holder.GetLocalAddr(&local) != 0) {
        return 0;
    }
    return local.GetPort();
}

bool isOpen(int handle) {
    return ::fcntl(handle, F_GETFD) != -1;
}

bool isNonBlocking(int handle) {
    return (::fcntl(handle, F_GETFL) & O_NONBLOCK) != 0;
}

bool isCloseOnExec(int handle) {
    return (::fcntl(handle, F_GETFD) & FD_CLOEXEC) != 0;
}

std::vector<std::string> texts(const LogCapture& log) {
    std::vector<std::string> all;
    for (const CapturedLine& line : log.lines()) {
        all.push_back(std::to_string(line.level) + " " + line.text);
    }
    return all;
}

std::string pattern(std::size_t length) {
    std::string bytes(length, '\0');
    for (std::size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<char>((i * 2654435761u) >> 13);
    }
    return bytes;
}

NoDescriptors::NoDescriptors() {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    m_limit_before = limit.rlim_cur;
    limit.rlim_cur = 64;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    m_fillers.reserve(64);
    for (int handle = ::open("/dev/null", O_RDONLY | O_CLOEXEC); handle != -1;
         handle = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) {
        m_fillers.push_back(handle);
    }
}

NoDescriptors::~NoDescriptors() {
    for (const int handle : m_fillers) {
        ::close(handle);
    }
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = m_limit_before;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

Interrupter::Interrupter() {
    struct sigaction action {};
    action.sa_handler = countSignal;
    ::sigemptyset(&action.sa_mask);
    ::sigaction(SIGUSR1, &action, nullptr);
}

bool Interrupter::waitUntilAsleep(int kernel_id) {
    return eventually([&] {
        std::ifstream file("/proc/self/task/" + std::to_string(kernel_id) + "/stat");
        std::string number;
        std::string name;
        std::string state;
        // The name of a test program holds no blank, so that the state is the third word.
        file >> number >> name >> state;
        return state == "S";
    });
}

bool Interrupter::interrupt(pthread_t thread, int kernel_id, int times) {
    for (int i = 0; i < times; ++i) {
        if (!waitUntilAsleep(kernel_id)) {
            return false;
        }
        const int before = signals_handled;
        ::pthread_kill(thread, SIGUSR1);
        if (!eventually([&] { return signals_handled > before; })) {
            return false;
        }
    }
    return true;
}

}  // namespace Orvex::Testing
