// What the echo servers of the benchmark share; see the header.
#include "EchoServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "kit/Process.h"

namespace Bench {

namespace {

[[noreturn]] void die(const char* what) {
    std::perror(what);
    std::exit(1);
}

sigset_t terminationSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

}  // namespace

EchoOptions parseEchoOptions(int argc, char** argv, const char* description) {
    EchoOptions options;
    CLI::App app(description);
    app.add_option("--port", options.port, "TCP port on 127.0.0.1, 0 for any");
    app.add_option("--threads", options.threads, "event loops or workers")->check(CLI::Range(1U, 64U));
    app.add_option("--pools", options.pools, "pools that Reticor spreads connections over, 0: one for all")
        ->check(CLI::Range(0U, 63U));
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::exit(app.exit(error));
    }
    LoadKit::raiseDescriptorLimit();
    return options;
}

int listenOnLoopback(std::uint16_t port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int one = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 ||
        bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(fd, 1024) != 0) {
        die("listen");
    }
    return fd;
}

void prepareConnection(int fd) {
    int one = 1;
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0 || fcntl(fd, F_SETFD, FD_CLOEXEC) != 0 ||
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) != 0) {
        die("connection");
    }
}

void announcePort(int listener) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        die("getsockname");
    }
    announcePort(static_cast<std::uint16_t>(ntohs(address.sin_port)));
}

void announcePort(std::uint16_t port) {
    std::printf("port %u\n", static_cast<unsigned>(port));
    std::fflush(stdout);
}

void blockTerminationSignals() {
    sigset_t set = terminationSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void waitForTermination() {
    sigset_t set = terminationSignals();
    int signal = 0;
    sigwait(&set, &signal);
}

void dealConnections(int listener, unsigned loops, const std::function<void(unsigned loop, int fd)>& deal) {
    sigset_t set = terminationSignals();
    int signals = signalfd(-1, &set, SFD_CLOEXEC);
    if (signals < 0) {
        die("signalfd");
    }
    pollfd watched[2] = {{listener, POLLIN, 0}, {signals, POLLIN, 0}};
    unsigned next = 0;
    while ((watched[1].revents & POLLIN) == 0) {
        for (int fd; (fd = accept(listener, nullptr, nullptr)) >= 0; next = (next + 1) % loops) {
            prepareConnection(fd);
            deal(next, fd);
        }
        if (poll(watched, 2, -1) < 0 && errno != EINTR) {
            die("poll");
        }
    }
    close(signals);
}

HandOver::HandOver() {
    if (pipe2(m_ends, O_NONBLOCK | O_CLOEXEC) != 0) {
        die("pipe2");
    }
}

HandOver::~HandOver() {
    close(m_ends[0]);
    close(m_ends[1]);
}

void HandOver::give(int fd) {
    while (write(m_ends[1], &fd, sizeof fd) != static_cast<ssize_t>(sizeof fd)) {
        std::this_thread::yield();  // the loop empties its full pipe
    }
}

bool HandOver::take(int* fd) {
    return read(m_ends[0], fd, sizeof *fd) == static_cast<ssize_t>(sizeof *fd);
}

void runHandOverLoops(const EchoOptions& options, const std::function<void(HandOver&)>& body) {
    blockTerminationSignals();
    int listener = listenOnLoopback(options.port);
    std::vector<HandOver> handOvers(options.threads);
    std::vector<std::thread> threads;
    for (HandOver& handOver : handOvers) {
        threads.emplace_back([&body, &handOver] { body(handOver); });
    }
    announcePort(listener);
    dealConnections(listener, options.threads, [&](unsigned loop, int fd) { handOvers[loop].give(fd); });
    for (HandOver& handOver : handOvers) {
        handOver.give(HandOver::kStop);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    close(listener);
}

void Unsent::keep(const char* bytes, std::size_t count) {
    m_bytes.assign(bytes, bytes + count);
    m_begin = 0;
}

bool Unsent::flush(int fd) {
    ssize_t sent = send(fd, data(), size(), MSG_NOSIGNAL);
    if (sent < 0) {
        return errno == EAGAIN || errno == EINTR;
    }
    drop(static_cast<std::size_t>(sent));
    return true;
}

bool echoOnce(int fd, char* room, Unsent* unsent) {
    ssize_t got = recv(fd, room, kReadRoom, 0);
    if (got <= 0) {
        return got < 0 && (errno == EAGAIN || errno == EINTR);
    }
    ssize_t sent = send(fd, room, static_cast<std::size_t>(got), MSG_NOSIGNAL);
    if (sent < 0) {
        if (errno != EAGAIN && errno != EINTR) {
            return false;
        }
        sent = 0;
    }
    if (sent < got) {
        unsent->keep(room + sent, static_cast<std::size_t>(got - sent));
    }
    return true;
}

}  // namespace Bench
