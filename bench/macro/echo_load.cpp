// Load generator of the echo rows: one thread, one epoll, closed loop. Each active connection has one request
// under way and sends the next one when the answer is complete; every byte of every answer is compared. It
// shares the processors with the server, so absolute figures hold for this arrangement alone and the ratios
// are what counts.
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "kit/Clocks.h"
#include "kit/Process.h"
#include "kit/Requests.h"
#include "kit/Target.h"

namespace {

struct Options {
    std::uint16_t port = 0;
    std::size_t connections = 64;
    std::size_t active = 0;  // 0 means all of them
    std::size_t size = 64;
    double warmUp = 0.5;
    double seconds = 3;
    pid_t serverPid = 0;
};

[[noreturn]] void die(const char* what) {
    std::fprintf(stderr, "echo_load: %s: %s\n", what, std::strerror(errno));
    std::exit(1);
}

struct Client {
    int fd = -1;
    std::size_t index = 0;
    std::uint64_t number = 0;
    std::size_t sent = 0;
    std::size_t received = 0;
    std::uint64_t startedNs = 0;
    bool waitsForRoom = false;
};

class Load {
public:
    explicit Load(const Options& options)
        : m_options(options),
          m_requests(options.size),
          m_clients(options.connections),
          m_epoll(epoll_create1(EPOLL_CLOEXEC)),
          m_room(std::max<std::size_t>(options.size, 4096)) {}
    ~Load() {
        for (Client& client : m_clients) {
            close(client.fd);
        }
        close(m_epoll);
    }
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

    void connectAndWeigh();
    nlohmann::json measure();

private:
    void connectAll();
    void connectOne(Client& client);
    void greet(Client& client);
    Client& activeClient(std::size_t i);
    void start(Client& client);
    void sendRest(Client& client);
    void receive(Client& client);
    void complete(Client& client);
    void runUntil(std::uint64_t endNs);
    void drain();
    void poll(int timeoutMs);
    void watch(Client& client, int operation, bool forRoom);
    nlohmann::json report(std::uint64_t wallNs, std::uint64_t serverNs, std::uint64_t ownNs);

    const Options m_options;
    const LoadKit::Requests m_requests;
    LoadKit::Target m_target;
    std::vector<Client> m_clients;
    int m_epoll;
    std::vector<char> m_room;
    std::vector<std::uint32_t> m_latenciesNs;
    std::uint64_t m_total = 0;  // requests answered since the first one
    std::size_t m_underWay = 0;
    bool m_recording = false;
    double m_bytesPerConnection = 0;  // of the server
    bool m_stopping = false;
};

void Load::connectAll() {
    if (!m_target.resolve("127.0.0.1", std::to_string(m_options.port))) {
        std::exit(1);
    }
    for (std::size_t i = 0; i < m_clients.size(); ++i) {
        m_clients[i].index = i;
        connectOne(m_clients[i]);
    }
    for (Client& client : m_clients) {
        greet(client);
    }
}

void Load::connectOne(Client& client) {
    LoadKit::Manner manner;
    manner.no_delay = true;
    client.fd = m_target.connect(manner);
    if (client.fd < 0) {
        die("connect");
    }
}

// One request on each connection, also on those that stay idle: what is measured later has no accept in it.
void Load::greet(Client& client) {
    const char* bytes = m_requests.bytes(client.index, client.number);
    const std::size_t size = std::min<std::size_t>(m_requests.size(), 64);
    if (send(client.fd, bytes, size, MSG_NOSIGNAL) != static_cast<ssize_t>(size) ||
        recv(client.fd, m_room.data(), size, MSG_WAITALL) != static_cast<ssize_t>(size) ||
        std::memcmp(bytes, m_room.data(), size) != 0) {
        die("greeting was not answered");
    }
    ++client.number;
    ++m_total;
    if (fcntl(client.fd, F_SETFL, O_NONBLOCK) != 0) {
        die("fcntl");
    }
}

// Active ones are spread over all connections, by an odd stride: an even one would give them all to the same
// loop of a server that deals connections out in turn.
Client& Load::activeClient(std::size_t i) {
    std::size_t stride = m_clients.size() / m_options.active;
    if (stride > 1 && stride % 2 == 0) {
        --stride;
    }
    return m_clients[i * stride];
}

void Load::watch(Client& client, int operation, bool forRoom) {
    client.waitsForRoom = forRoom;
    epoll_event event{};
    event.events = forRoom ? EPOLLIN | EPOLLOUT : EPOLLIN;
    event.data.ptr = &client;
    if (epoll_ctl(m_epoll, operation, client.fd, &event) != 0) {
        die("epoll_ctl");
    }
}

void Load::start(Client& client) {
    client.sent = 0;
    client.received = 0;
    ++m_underWay;
    sendRest(client);
}

void Load::sendRest(Client& client) {
    const char* bytes = m_requests.bytes(client.index, client.number);
    ssize_t sent = send(client.fd, bytes + client.sent, m_requests.size() - client.sent, MSG_NOSIGNAL);
    if (sent < 0 && errno != EAGAIN) {
        die("send");
    }
    client.sent += sent > 0 ? static_cast<std::size_t>(sent) : 0;
    bool needsRoom = client.sent < m_requests.size();
    if (needsRoom != client.waitsForRoom) {
        watch(client, EPOLL_CTL_MOD, needsRoom);
    }
}

void Load::receive(Client& client) {
    ssize_t got = recv(client.fd, m_room.data(), m_room.size(), 0);
    if (got < 0 && errno == EAGAIN) {
        return;
    }
    const auto count = static_cast<std::size_t>(got);
    const char* expected = m_requests.bytes(client.index, client.number) + client.received;
    if (got <= 0 || client.received + count > m_requests.size() ||
        std::memcmp(m_room.data(), expected, count) != 0) {
        die(got <= 0 ? "connection lost" : "answer differs from the request");
    }
    client.received += count;
    if (client.received == m_requests.size()) {
        complete(client);
    }
}

void Load::complete(Client& client) {
    const std::uint64_t time = LoadKit::now();
    if (m_recording) {
        m_latenciesNs.push_back(
            static_cast<std::uint32_t>(std::min<std::uint64_t>(time - client.startedNs, ~0U)));
    }
    ++m_total;
    ++client.number;
    --m_underWay;
    client.startedNs = time;
    if (!m_stopping) {
        start(client);
    }
}

void Load::poll(int timeoutMs) {
    std::array<epoll_event, 512> events;
    int count = epoll_wait(m_epoll, events.data(), static_cast<int>(events.size()), timeoutMs);
    if (count == 0) {
        errno = ETIMEDOUT;
        die("no answer within 10 seconds");
    }
    for (int i = 0; i < count; ++i) {
        const epoll_event& event = events[static_cast<std::size_t>(i)];
        auto& client = *static_cast<Client*>(event.data.ptr);
        if (client.waitsForRoom && (event.events & EPOLLOUT) != 0) {
            sendRest(client);
        }
        if ((event.events & ~static_cast<std::uint32_t>(EPOLLOUT)) != 0) {
            receive(client);
        }
    }
}

void Load::runUntil(std::uint64_t endNs) {
    while (LoadKit::now() < endNs) {
        poll(10000);
    }
}

void Load::drain() {
    m_stopping = true;
    while (m_underWay > 0) {
        poll(10000);
    }
}

nlohmann::json Load::measure() {
    for (std::size_t i = 0; i < m_options.active; ++i) {
        Client& client = activeClient(i);
        watch(client, EPOLL_CTL_ADD, false);
        client.startedNs = LoadKit::now();
        start(client);
    }
    runUntil(LoadKit::now() + static_cast<std::uint64_t>(m_options.warmUp * 1e9));

    m_latenciesNs.reserve(static_cast<std::size_t>(m_options.seconds * 500000));
    m_recording = true;
    const std::uint64_t serverBegin =
        m_options.serverPid > 0 ? LoadKit::processorTime(m_options.serverPid) : 0;
    const std::uint64_t ownBegin = LoadKit::ownProcessorTime();
    const std::uint64_t begin = LoadKit::now();
    runUntil(begin + static_cast<std::uint64_t>(m_options.seconds * 1e9));
    const std::uint64_t wallNs = LoadKit::now() - begin;
    const std::uint64_t serverEnd = m_options.serverPid > 0 ? LoadKit::processorTime(m_options.serverPid) : 0;
    const std::uint64_t ownNs = LoadKit::ownProcessorTime() - ownBegin;
    m_recording = false;
    drain();
    return report(wallNs, serverEnd - serverBegin, ownNs);
}

// Once each has been served: what the server's own memory grew by. The kernel's is not in it.
void Load::connectAndWeigh() {
    const uint64_t before = m_options.serverPid > 0 ? LoadKit::residentBytes(m_options.serverPid) : 0;
    connectAll();
    const uint64_t after = m_options.serverPid > 0 ? LoadKit::residentBytes(m_options.serverPid) : 0;
    m_bytesPerConnection = (static_cast<double>(after) - static_cast<double>(before)) /
                           static_cast<double>(m_options.connections);
}

nlohmann::json Load::report(std::uint64_t wallNs, std::uint64_t serverNs, std::uint64_t ownNs) {
    if (m_latenciesNs.empty()) {
        die("no request was answered while measuring");
    }
    std::sort(m_latenciesNs.begin(), m_latenciesNs.end());
    const auto count = static_cast<double>(m_latenciesNs.size());
    auto percentileUs = [&](double part) {
        return m_latenciesNs[static_cast<std::size_t>(part * (count - 1))] / 1000.0;
    };
    const auto wall = static_cast<double>(wallNs);
    nlohmann::json result;
    result["requests"] = m_latenciesNs.size();
    result["requests_total"] = m_total;
    result["requests_per_s"] = count * 1e9 / wall;
    result["p50_us"] = percentileUs(0.5);
    result["p90_us"] = percentileUs(0.9);
    result["p99_us"] = percentileUs(0.99);
    result["p999_us"] = percentileUs(0.999);
    result["max_us"] = percentileUs(1);
    result["load_cpu_us_per_request"] = static_cast<double>(ownNs) / 1000 / count;
    if (m_options.serverPid > 0) {
        result["server_cpu_us_per_request"] = static_cast<double>(serverNs) / 1000 / count;
        result["server_cores"] = static_cast<double>(serverNs) / wall;
        result["server_bytes_per_connection"] = m_bytesPerConnection;
    }
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("closed-loop load for an echo server, every byte compared; prints JSON");
    app.add_option("--port", options.port, "port on 127.0.0.1")->required();
    app.add_option("--connections", options.connections, "connections to open")->check(CLI::PositiveNumber);
    app.add_option("--active", options.active, "how many of them send requests, 0 for all");
    app.add_option("--size", options.size, "bytes of a request")->check(CLI::PositiveNumber);
    app.add_option("--warm-up", options.warmUp, "seconds before measuring");
    app.add_option("--seconds", options.seconds, "seconds measured");
    app.add_option("--server-pid", options.serverPid,
                   "process whose processor time is charged to the requests");
    CLI11_PARSE(app, argc, argv);
    if (options.active == 0 || options.active > options.connections) {
        options.active = options.connections;
    }
    LoadKit::raiseDescriptorLimit();

    Load load(options);
    load.connectAndWeigh();
    std::printf("%s\n", load.measure().dump().c_str());
    return 0;
}
