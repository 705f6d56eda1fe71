// demo_load: the clients of script/demo. Opens many connections to an echo server, keeps one request under
// way on each, compares every byte that comes back, prints a line per second and a verdict at the end.
//
// Every request is different, and follows from connection and number: an answer that is late, doubled, mixed
// up or another connection's does not compare equal. The program knows nothing of the library; it stands on
// the system's calls alone, so that no error can be on both sides.
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "kit/Clocks.h"
#include "kit/EndSignals.h"
#include "kit/Histogram.h"
#include "kit/Process.h"
#include "kit/Requests.h"
#include "kit/Target.h"

namespace {

using LoadKit::Histogram;
using LoadKit::now;
using LoadKit::processorTime;

constexpr uint64_t kSecond = 1000000000;      // ns
constexpr uint64_t kPatience = 10 * kSecond;  // for connecting, and for the last answers
constexpr size_t kConnectingAtOnce = 500;     // fewer than a listener's backlog

struct Options {
    std::string host = "127.0.0.1";
    std::string port;
    size_t connections = 1000;
    size_t bytes = 64;
    double seconds = 10;
    pid_t pid = 0;
};

enum class State { Idle, Connecting, Connected, Lost };

struct Client {
    int fd = -1;
    size_t index = 0;
    State state = State::Idle;
    bool underWay = false;  // a request waits for its answer
    uint64_t number = 0;    // of the request
    size_t sent = 0;        // bytes of it
    size_t received = 0;
    uint64_t started = 0;
    uint32_t interest = 0;
};

class Load {
public:
    explicit Load(const Options& options)
        : m_options(options), m_requests(options.bytes), m_clients(options.connections), m_room(65536) {}
    ~Load();
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

    int run();  // the program's result: 0 if every byte was verified

private:
    bool open();
    void connectMore();
    void connected(Client& client);
    void start(Client& client);
    void send(Client& client);
    void receive(Client& client);
    void verify(Client& client, const char* bytes, size_t count);
    void answered(Client& client);
    void lose(Client& client, const char* why, int error);
    void watch(Client& client, uint32_t interest);
    void poll(uint64_t until);  // waits for something to do, until then at the longest, and does it
    void takeSignal();
    void connectAll();
    void measure();
    void drain();  // the answers that are still under way are verified too
    void printHead() const;
    void printRow();
    int printVerdict() const;

    const Options m_options;
    const LoadKit::Requests m_requests;
    std::vector<Client> m_clients;
    std::vector<char> m_room;
    LoadKit::Target m_target;
    LoadKit::EndSignals m_signals;
    int m_epoll = -1;
    size_t m_next = 0;        // client to connect next
    size_t m_connecting = 0;  // clients in this state, and so on
    size_t m_connected = 0;
    size_t m_lost = 0;
    size_t m_underWay = 0;
    size_t m_wrong = 0;  // answers that differed
    uint64_t m_bytesSent = 0;
    uint64_t m_bytesVerified = 0;
    std::string m_firstTrouble;
    bool m_stopped = false;    // by a signal
    bool m_impatient = false;  // by another one later
    uint64_t m_stoppedAt = 0;
    bool m_running = false;  // answered clients send the next request
    Histogram m_all;
    Histogram m_row;
    uint64_t m_begin = 0;
    uint64_t m_rowBegin = 0;
    uint64_t m_rowProcessor = 0;
    uint64_t m_processor = 0;  // of the server while measuring
};

Load::~Load() {
    for (const Client& client : m_clients) {
        if (client.fd >= 0) {
            close(client.fd);
        }
    }
    if (m_epoll >= 0) {
        close(m_epoll);
    }
}

bool Load::open() {
    const uint64_t descriptors = LoadKit::raiseDescriptorLimit();
    if (descriptors < m_options.connections + 16) {
        std::fprintf(
            stderr,
            "demo_load: this process may open %ju descriptors (ulimit -Hn), too few for %zu connections\n",
            static_cast<uintmax_t>(descriptors), m_options.connections);
        return false;
    }
    m_epoll = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = nullptr;
    if (m_epoll < 0 || epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_signals.fd(), &event) != 0) {
        std::perror("demo_load: epoll");
        return false;
    }
    return m_target.resolve(m_options.host, m_options.port);
}

void Load::watch(Client& client, uint32_t interest) {
    if (client.interest == interest) {
        return;
    }
    epoll_event event{};
    event.events = interest;
    event.data.ptr = &client;
    epoll_ctl(m_epoll, client.interest == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, client.fd, &event);
    client.interest = interest;
}

void Load::lose(Client& client, const char* why, int error) {
    if (m_firstTrouble.empty()) {
        m_firstTrouble = "connection " + std::to_string(client.index) + ": " + why;
        if (error != 0) {
            m_firstTrouble += std::string(", ") + std::strerror(error);
        }
    }
    if (client.state == State::Connecting) {
        --m_connecting;
    }
    if (client.state == State::Connected) {
        --m_connected;
    }
    if (client.underWay) {
        --m_underWay;
    }
    ++m_lost;
    client.underWay = false;
    client.state = State::Lost;
    if (client.fd >= 0) {
        close(client.fd);
    }
    client.fd = -1;
}

void Load::connectMore() {
    while (m_next < m_clients.size() && m_connecting < kConnectingAtOnce) {
        Client& client = m_clients[m_next];
        client.index = m_next++;
        client.state = State::Connecting;
        ++m_connecting;
        LoadKit::Manner manner;
        manner.blocking = false;
        manner.no_delay = true;
        client.fd = m_target.connect(manner);
        if (client.fd < 0) {
            lose(client, "connect", errno);
            continue;
        }
        watch(client, EPOLLOUT);
    }
}

void Load::connected(Client& client) {
    int error = 0;
    socklen_t length = sizeof error;
    getsockopt(client.fd, SOL_SOCKET, SO_ERROR, &error, &length);
    if (error != 0) {
        return lose(client, "connect", error);
    }
    client.state = State::Connected;
    --m_connecting;
    ++m_connected;
    watch(client, EPOLLIN);
}

void Load::start(Client& client) {
    client.sent = 0;
    client.received = 0;
    client.underWay = true;
    client.started = now();
    ++m_underWay;
    send(client);
}

void Load::send(Client& client) {
    const char* bytes = m_requests.bytes(client.index, client.number);
    const ssize_t sent =
        ::send(client.fd, bytes + client.sent, m_requests.size() - client.sent, MSG_NOSIGNAL);
    if (sent < 0 && errno != EAGAIN && errno != EINTR) {
        return lose(client, "send", errno);
    }
    if (sent > 0) {
        client.sent += static_cast<size_t>(sent);
        m_bytesSent += static_cast<uint64_t>(sent);
    }
    watch(client, client.sent < m_requests.size() ? EPOLLIN | EPOLLOUT : EPOLLIN);
}

void Load::receive(Client& client) {
    const ssize_t got = recv(client.fd, m_room.data(), m_room.size(), 0);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (got < 0) {
        return lose(client, "receive", errno);
    }
    if (got == 0) {
        return lose(client, "closed by the server", 0);
    }
    verify(client, m_room.data(), static_cast<size_t>(got));
}

void Load::verify(Client& client, const char* bytes, size_t count) {
    const char* expected = m_requests.bytes(client.index, client.number) + client.received;
    if (!client.underWay || client.received + count > client.sent ||
        std::memcmp(bytes, expected, count) != 0) {
        ++m_wrong;
        return lose(client, "the answer differs from the request", 0);
    }
    client.received += count;
    m_bytesVerified += count;
    if (client.received == m_requests.size()) {
        answered(client);
    }
}

void Load::answered(Client& client) {
    const uint64_t latency = now() - client.started;
    m_all.add(latency);
    m_row.add(latency);
    ++client.number;
    client.underWay = false;
    --m_underWay;
    if (m_running) {
        start(client);
    }
}

void Load::takeSignal() {
    if (!m_signals.take()) {
        return;
    }
    if (!m_stopped) {
        m_stoppedAt = now();
    }
    m_stopped = true;
    m_impatient = now() - m_stoppedAt > kSecond / 2;  // one Ctrl-C can arrive as two signals
}

void Load::poll(uint64_t until) {
    const uint64_t time = now();
    const uint64_t left_ms = until > time ? (until - time + 999999) / 1000000 : 0;
    std::array<epoll_event, 512> events;
    const int count =
        epoll_wait(m_epoll, events.data(), static_cast<int>(events.size()), static_cast<int>(left_ms));
    for (int i = 0; i < count; ++i) {
        const epoll_event& event = events[static_cast<size_t>(i)];
        if (event.data.ptr == nullptr) {
            takeSignal();
            continue;
        }
        Client& client = *static_cast<Client*>(event.data.ptr);
        if (client.state == State::Connecting) {
            connected(client);
            continue;
        }
        if (client.state == State::Connected && (event.events & EPOLLOUT) != 0) {
            send(client);
        }
        if (client.state == State::Connected && (event.events & ~uint32_t{EPOLLOUT}) != 0) {
            receive(client);
        }
    }
}

void Load::connectAll() {
    const uint64_t deadline = now() + kPatience;
    connectMore();
    while (m_connecting > 0 && now() < deadline && !m_stopped) {
        poll(deadline);
        connectMore();
    }
    for (Client& client : m_clients) {
        if (client.state == State::Connecting && !m_stopped) {
            lose(client, "connect", ETIMEDOUT);
        }
    }
}

void Load::printHead() const {
    std::printf("%6s %12s %12s %10s %10s %10s %10s %12s\n", "time", "connections", "requests/s", "p50 us",
                "p99 us", "p99.9 us", "max us", "CPU us/req");
    std::fflush(stdout);
}

void Load::printRow() {
    const uint64_t time = now();
    const double seconds = static_cast<double>(time - m_rowBegin) / kSecond;
    const uint64_t processor = processorTime(m_options.pid);
    const uint64_t used = processor > m_rowProcessor ? processor - m_rowProcessor : 0;
    m_processor += used;
    if (seconds > 0.2) {  // what is shorter tells nothing
        char cpu[32] = "-";
        if (m_options.pid != 0 && m_row.total() > 0) {
            std::snprintf(cpu, sizeof cpu, "%.2f",
                          static_cast<double>(used) / 1000 / static_cast<double>(m_row.total()));
        }
        std::printf("%5.1fs %12zu %12.0f %10.0f %10.0f %10.0f %10.0f %12s\n",
                    static_cast<double>(time - m_begin) / kSecond, m_connected,
                    static_cast<double>(m_row.total()) / seconds, m_row.percentile(0.5),
                    m_row.percentile(0.99), m_row.percentile(0.999), m_row.max(), cpu);
        std::fflush(stdout);
    }
    m_row = Histogram();
    m_rowBegin = time;
    m_rowProcessor = processor;
}

void Load::measure() {
    printHead();
    m_begin = m_rowBegin = now();
    m_rowProcessor = processorTime(m_options.pid);
    m_running = true;
    for (Client& client : m_clients) {
        if (client.state == State::Connected) {
            start(client);
        }
    }
    const uint64_t end = m_begin + static_cast<uint64_t>(m_options.seconds * static_cast<double>(kSecond));
    while (now() < end && !m_stopped && m_connected > 0) {
        poll(std::min(end, m_rowBegin + kSecond));
        if (now() >= m_rowBegin + kSecond) {
            printRow();
        }
    }
    m_running = false;
}

void Load::drain() {
    const uint64_t deadline = now() + kPatience;
    while (m_underWay > 0 && now() < deadline && !m_impatient) {
        poll(deadline);
    }
    if (m_row.total() > 0) {
        printRow();
    }
}

int Load::printVerdict() const {
    const uint64_t missing = m_bytesSent - m_bytesVerified;
    const bool nothing = m_all.total() == 0;
    const bool good = m_lost == 0 && missing == 0 && m_wrong == 0 && !nothing;
    const char* early = m_stopped ? " (stopped early)" : "";
    std::printf("\n");
    if (nothing && m_stopped && m_lost == 0) {
        std::printf("verdict: stopped before the first answer; there was nothing to verify\n");
        return 130;
    }
    if (!nothing && m_options.pid != 0) {
        std::printf(
            "all: p50 %.0f us, p99 %.0f us, p99.9 %.0f us, max %.0f us; server CPU %.2f us per request\n",
            m_all.percentile(0.5), m_all.percentile(0.99), m_all.percentile(0.999), m_all.max(),
            static_cast<double>(m_processor) / 1000 / static_cast<double>(m_all.total()));
    }
    if (good) {
        std::printf(
            "verdict: PASS%s: %zu connections, %ju requests, %ju bytes sent; every byte came back and was "
            "verified\n",
            early, m_connected, static_cast<uintmax_t>(m_all.total()), static_cast<uintmax_t>(m_bytesSent));
        return 0;
    }
    std::printf(
        "verdict: FAIL%s: %zu of %zu connections lost, %zu wrong answers, %ju of %ju bytes not "
        "verified%s%s\n",
        early, m_lost, m_clients.size(), m_wrong, static_cast<uintmax_t>(missing),
        static_cast<uintmax_t>(m_bytesSent),
        m_firstTrouble.empty() ? "" : "; first trouble: ", m_firstTrouble.c_str());
    return 1;
}

int Load::run() {
    if (!open()) {
        return 1;
    }
    connectAll();
    if (!m_stopped && m_connected > 0) {
        measure();
    }
    drain();
    return printVerdict();
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app{"Drives an echo server with many connections and verifies every byte that comes back."};
    app.add_option("--host", options.host, "where the server listens")->capture_default_str();
    app.add_option("--port", options.port, "its port")->required();
    app.add_option("--connections", options.connections, "connections to open")
        ->check(CLI::Range(1, 1000000))
        ->capture_default_str();
    app.add_option("--bytes", options.bytes, "bytes of a request")
        ->check(CLI::Range(1, 1 << 24))
        ->capture_default_str();
    app.add_option("--seconds", options.seconds, "how long requests are sent")
        ->check(CLI::Range(0.1, 1e6))
        ->capture_default_str();
    app.add_option("--pid", options.pid, "the server's process, to tell its processor time per request");
    CLI11_PARSE(app, argc, argv);
    return Load(options).run();
}
