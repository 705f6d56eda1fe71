// The datagram rows; see the header.
#include "Datagrams.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <thread>

#include "Usage.h"

namespace Bench {

namespace {

// The other end. It takes many with one call and copies the first byte of each alone, so that it is the
// sender that is measured.
class Sink {
public:
    Sink() : m_fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        sockaddr_in own{};
        own.sin_family = AF_INET;
        own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof own;
        auto* const address = reinterpret_cast<sockaddr*>(&own);
        if (m_fd < 0 || ::bind(m_fd, address, length) != 0 || ::getsockname(m_fd, address, &length) != 0) {
            std::perror("a socket for datagrams");
            std::exit(1);
        }
        m_port = ntohs(own.sin_port);
    }
    ~Sink() {
        stop();
        ::close(m_fd);
    }
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;

    std::uint16_t port() const { return m_port; }
    std::uint64_t arrived() const { return m_arrived.load(std::memory_order_relaxed); }
    void read() {
        m_thread = std::thread([this] { run(); });
    }
    void stop() {
        m_ends = true;
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }

private:
    void run() {
        constexpr unsigned kMany = 64;
        std::array<char, kMany> bytes;
        std::array<iovec, kMany> pieces;
        std::array<mmsghdr, kMany> messages{};
        for (unsigned i = 0; i < kMany; ++i) {
            pieces[i] = {&bytes[i], 1};
            messages[i].msg_hdr.msg_iov = &pieces[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        while (!m_ends) {
            const int taken = ::recvmmsg(m_fd, messages.data(), kMany, 0, nullptr);
            if (taken > 0) {
                m_arrived.fetch_add(static_cast<std::uint64_t>(taken), std::memory_order_relaxed);
            } else {
                pollfd readable{m_fd, POLLIN, 0};
                ::poll(&readable, 1, 10);
            }
        }
    }

    const int m_fd;
    std::uint16_t m_port = 0;
    std::atomic<std::uint64_t> m_arrived{0};
    std::atomic<bool> m_ends{false};
    std::thread m_thread;
};

void sendFor(double seconds, const DatagramSender& send, std::uint64_t& sent) {
    DatagramTurn turn;
    const std::uint64_t end = nowNs() + static_cast<std::uint64_t>(seconds * 1e9);
    while (nowNs() < end) {
        sent += send(turn);
    }
}

nlohmann::json runRow(const DatagramOptions& options, const DatagramOpener& open, bool reads) {
    Sink sink;
    if (reads) {
        sink.read();
    }
    const DatagramSender send = open(sink.port());
    std::uint64_t sent = 0;
    sendFor(options.warmUp, send, sent);
    const std::uint64_t arrivedBefore = sink.arrived();
    const std::uint64_t cpuBefore = threadCpuNs();
    const std::uint64_t begin = nowNs();
    sent = 0;
    sendFor(options.seconds, send, sent);
    const double seconds = static_cast<double>(nowNs() - begin) / 1e9;
    nlohmann::json figures;
    figures["sent_per_s"] = static_cast<double>(sent) / seconds;
    figures["cpu_ns"] = static_cast<double>(threadCpuNs() - cpuBefore) / static_cast<double>(sent);
    if (reads) {
        figures["arrived_per_s"] = static_cast<double>(sink.arrived() - arrivedBefore) / seconds;
    }
    return figures;
}

}  // namespace

DatagramOptions parseDatagramOptions(int argc, char** argv, const char* description,
                                     const std::vector<std::string>& ways) {
    DatagramOptions options;
    CLI::App app{description};
    if (!ways.empty()) {
        options.way = ways.front();
        app.add_option("--way", options.way, "how they are sent")->check(CLI::IsMember(ways));
    }
    app.add_option("--seconds", options.seconds, "of each row")->check(CLI::PositiveNumber);
    app.add_option("--warm-up", options.warmUp, "seconds before")->check(CLI::PositiveNumber);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::exit(app.exit(error));
    }
    return options;
}

int runDatagrams(const DatagramOptions& options, const DatagramOpener& open) {
    nlohmann::json figures;
    figures["read"] = runRow(options, open, true);
    figures["unread"] = runRow(options, open, false);
    std::puts(figures.dump(2).c_str());
    return 0;
}

}  // namespace Bench
