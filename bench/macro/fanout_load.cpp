// Clients of a fan-out server: fast ones, rate-limited ones and ones that never read. One thread, one epoll.
// Every byte of every frame is compared with what it must be, sequence numbers are followed, and delays are
// taken from the time in the header.
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
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "common/Fanout.h"
#include "common/Usage.h"
#include "kit/Clocks.h"
#include "kit/Process.h"
#include "kit/Target.h"

namespace {

struct Options {
    std::uint16_t port = 0;
    std::size_t fast = 100;
    std::size_t slow = 0;
    double slowRate = 100000;  // bytes a second
    std::size_t stuck = 0;
    std::size_t frameBytes = 20000;
    std::uint64_t gop = 50;
    double warmUp = 0.5;
    double seconds = 3;
    pid_t serverPid = 0;
    std::string control;  // the pipe to perf, which counts while frames are counted
    std::string answer;   // and the one from it
    std::string counts;   // the file of bench/preload/CountInside.cpp
};

[[noreturn]] void die(const std::string& what) {
    std::fprintf(stderr, "fanout_load: %s\n", what.c_str());
    std::exit(1);
}

enum class Kind { Fast, Slow, Stuck };

struct Client {
    int fd = -1;
    Kind kind = Kind::Fast;
    std::size_t received = 0;  // bytes of the frame under way, header included
    std::array<unsigned char, Bench::FrameHeader::kSize> bytes{};  // its header
    Bench::FrameHeader header;
    bool started = false;    // a frame has come
    std::uint64_t next = 0;  // the number that should come next
    double budget = 0;       // bytes that a slow client may read now
};

// What came while measuring.
struct Tally {
    std::uint64_t frames = 0;
    std::uint64_t missing = 0;  // frames left out between two that came
    std::vector<std::uint32_t> delaysUs;

    nlohmann::json percentiles() {
        nlohmann::json result;
        result["frames"] = frames;
        result["missing"] = missing;
        if (!delaysUs.empty()) {
            std::sort(delaysUs.begin(), delaysUs.end());
            auto part = [&](double p) {
                return delaysUs[static_cast<std::size_t>(p * static_cast<double>(delaysUs.size() - 1))];
            };
            result["p50_us"] = part(0.5);
            result["p99_us"] = part(0.99);
            result["max_us"] = part(1);
        }
        return result;
    }
};

struct InsideCounts {
    std::uint64_t allocations = 0;
    std::uint64_t copiedBytes = 0;
    std::uint64_t writes = 0;
    std::uint64_t full = 0;  // of them
};

class Load {
public:
    explicit Load(const Options& options)
        : m_options(options),
          m_table(Bench::PayloadTable::kSize),
          m_clients(options.fast + options.slow + options.stuck),
          m_epoll(epoll_create1(EPOLL_CLOEXEC)),
          m_room(131072) {}
    ~Load() {
        for (Client& client : m_clients) {
            close(client.fd);
        }
        close(m_epoll);
    }
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

    void connectAll();
    nlohmann::json measure();

private:
    static constexpr std::uint64_t kTickNs = 20000000;  // slow clients read so often

    void connectOne(Client& client);
    void readFast(Client& client);
    void readSlow(std::uint64_t now);
    void consume(Client& client, const char* bytes, std::size_t count, std::uint64_t now);
    void beginFrame(Client& client, std::uint64_t now);
    void compare(const Client& client, const char* bytes, std::size_t offset, std::size_t count) const;
    void completeFrame(Client& client, std::uint64_t now);
    [[noreturn]] void complain(const Client& client, const char* what) const;
    void runUntil(std::uint64_t endNs);
    void runToLull();
    void control(const char* command) const;
    InsideCounts insideCounts() const;
    std::uint64_t serverCpuNs() const;

    const Options m_options;
    const Bench::PayloadTable m_table;
    LoadKit::Target m_target;
    std::vector<Client> m_clients;
    int m_epoll;
    std::vector<char> m_room;
    std::uint64_t m_tickNs = 0;  // the last one
    bool m_recording = false;
    std::uint64_t m_total = 0;  // whole frames since the first one
    Tally m_fast;
    Tally m_slow;
};

void Load::connectAll() {
    if (!m_target.resolve("127.0.0.1", std::to_string(m_options.port))) {
        std::exit(1);
    }
    for (std::size_t i = 0; i < m_clients.size(); ++i) {
        const std::size_t slowOnes = m_options.fast + m_options.slow;
        m_clients[i].kind = i < m_options.fast ? Kind::Fast : i < slowOnes ? Kind::Slow : Kind::Stuck;
        connectOne(m_clients[i]);
    }
    m_tickNs = Bench::nowNs();
}

// Clients that do not keep up get a small window and segments of a real link's size, so that what they lag
// behind is the server's doing and not this machine's memory.
void Load::connectOne(Client& client) {
    LoadKit::Manner manner;
    if (client.kind != Kind::Fast) {
        manner.receive_bytes = 16384;
        manner.segment_bytes = 1448;
    }
    client.fd = m_target.connect(manner);
    if (client.fd < 0) {
        die(std::string("connect: ") + std::strerror(errno));
    }
    epoll_event event{};  // the others are only watched for errors
    event.events = client.kind == Kind::Fast ? static_cast<std::uint32_t>(EPOLLIN) : 0;
    event.data.ptr = &client;
    epoll_ctl(m_epoll, EPOLL_CTL_ADD, client.fd, &event);
}

void Load::complain(const Client& client, const char* what) const {
    die("client " + std::to_string(&client - m_clients.data()) + ", frame " +
        std::to_string(client.header.sequence) + ", byte " + std::to_string(client.received) + ": " + what);
}

void Load::readFast(Client& client) {
    const ssize_t got = recv(client.fd, m_room.data(), m_room.size(), MSG_DONTWAIT);
    if (got < 0 && errno == EAGAIN) {
        return;
    }
    if (got <= 0) {
        complain(client, "connection lost");
    }
    consume(client, m_room.data(), static_cast<std::size_t>(got), Bench::nowNs());
}

void Load::readSlow(std::uint64_t now) {
    const double seconds = static_cast<double>(now - m_tickNs) * 1e-9;
    m_tickNs = now;
    for (std::size_t i = m_options.fast; i < m_options.fast + m_options.slow; ++i) {
        Client& client = m_clients[i];
        const double most = m_options.slowRate / 10;  // saved up over a time with nothing to read
        client.budget = std::min(client.budget + m_options.slowRate * seconds, most);
        const auto size = std::min(static_cast<std::size_t>(client.budget), m_room.size());
        const ssize_t got = size == 0 ? 0 : recv(client.fd, m_room.data(), size, MSG_DONTWAIT);
        if (size != 0 && (got == 0 || (got < 0 && errno != EAGAIN))) {
            complain(client, "connection lost");
        }
        if (got > 0) {
            client.budget -= static_cast<double>(got);
            consume(client, m_room.data(), static_cast<std::size_t>(got), now);
        }
    }
}

void Load::consume(Client& client, const char* bytes, std::size_t count, std::uint64_t now) {
    constexpr std::size_t kHeader = Bench::FrameHeader::kSize;
    while (count > 0) {
        std::size_t part = 0;
        if (client.received < kHeader) {
            part = std::min(count, kHeader - client.received);
            std::memcpy(client.bytes.data() + client.received, bytes, part);
            client.received += part;
            if (client.received == kHeader) {
                beginFrame(client, now);
            }
        } else {
            const std::size_t offset = client.received - kHeader;
            part = std::min({count, m_options.frameBytes - offset, Bench::PayloadTable::kSize});
            compare(client, bytes, offset, part);
            client.received += part;
        }
        if (client.received == kHeader + m_options.frameBytes) {
            completeFrame(client, now);
        }
        bytes += part;
        count -= part;
    }
}

void Load::beginFrame(Client& client, std::uint64_t now) {
    const std::uint64_t sentBefore = client.header.sentNs;
    Bench::FrameHeader& header = client.header;
    if (!header.read(client.bytes.data()) || header.length != m_options.frameBytes) {
        complain(client, "not a header of such a frame");
    }
    const bool key = header.sequence % m_options.gop == 0;
    if (header.level != (key ? Bench::kKeyLevel : Bench::kOtherLevel)) {
        complain(client, "wrong level");
    }
    if (header.sentNs > now || header.sentNs < sentBefore) {
        complain(client, "impossible time");
    }
    if (client.started ? header.sequence < client.next : !key) {
        complain(client, client.started ? "out of order" : "the first frame is no key frame");
    }
}

void Load::compare(const Client& client, const char* bytes, std::size_t offset, std::size_t count) const {
    if (std::memcmp(bytes, m_table.window(client.header.sequence, offset), count) != 0) {
        complain(client, "wrong payload");
    }
}

void Load::completeFrame(Client& client, std::uint64_t now) {
    ++m_total;
    if (m_recording) {
        Tally& tally = client.kind == Kind::Fast ? m_fast : m_slow;
        ++tally.frames;
        tally.missing += client.started ? client.header.sequence - client.next : 0;
        tally.delaysUs.push_back(static_cast<std::uint32_t>((now - client.header.sentNs) / 1000));
    }
    client.started = true;
    client.next = client.header.sequence + 1;
    client.received = 0;
}

void Load::runUntil(std::uint64_t endNs) {
    std::array<epoll_event, 512> events;
    std::uint64_t heardNs = Bench::nowNs();
    for (std::uint64_t now = heardNs; now < endNs; now = Bench::nowNs()) {
        const int count = epoll_wait(m_epoll, events.data(), static_cast<int>(events.size()),
                                     m_options.slow > 0 ? static_cast<int>(kTickNs / 1000000) : 100);
        for (int i = 0; i < count; ++i) {
            Client& client = *static_cast<Client*>(events[static_cast<std::size_t>(i)].data.ptr);
            if (client.kind != Kind::Fast) {
                complain(client, "connection lost");
            }
            readFast(client);
        }
        now = Bench::nowNs();
        if (m_options.slow > 0 && now - m_tickNs >= kTickNs) {
            readSlow(now);
        }
        heardNs = count > 0 ? now : heardNs;
        if (m_options.fast > 0 && now - heardNs > 10000000000U) {
            die("nothing came for 10 seconds");
        }
    }
}

// To a moment between two frames, where one is to be had: what is measured from one such moment to another
// holds whole frames of all clients.
void Load::runToLull() {
    for (int tries = 0; tries < 20; ++tries) {
        const std::uint64_t before = m_total;
        runUntil(Bench::nowNs() + 10000000);
        if (m_total == before) {
            return;
        }
    }
}

void Load::control(const char* command) const {
    if (m_options.control.empty()) {
        return;
    }
    const int to = open(m_options.control.c_str(), O_WRONLY | O_CLOEXEC);
    const int from = open(m_options.answer.c_str(), O_RDONLY | O_CLOEXEC);
    const auto length = static_cast<ssize_t>(std::strlen(command));
    char done[16];
    if (to < 0 || write(to, command, std::strlen(command)) != length || read(from, done, sizeof done) <= 0) {
        die("no answer from " + m_options.control);
    }
    close(to);
    close(from);
}

InsideCounts Load::insideCounts() const {
    InsideCounts result;
    if (!m_options.counts.empty()) {
        std::ifstream file(m_options.counts, std::ios::binary);
        if (!file.read(reinterpret_cast<char*>(&result), sizeof result)) {
            die("no counts in " + m_options.counts);
        }
    }
    return result;
}

std::uint64_t Load::serverCpuNs() const {
    return m_options.serverPid > 0 ? LoadKit::processorTime(m_options.serverPid) : 0;
}

nlohmann::json Load::measure() {
    runUntil(Bench::nowNs() + static_cast<std::uint64_t>(m_options.warmUp * 1e9));
    m_fast.delaysUs.reserve(static_cast<std::size_t>(m_options.seconds * 200000));
    runToLull();
    control("enable\n");
    m_recording = true;
    const InsideCounts countsBegin = insideCounts();
    const std::uint64_t serverBegin = serverCpuNs();
    const std::uint64_t ownBegin = LoadKit::ownProcessorTime();
    const std::uint64_t begin = Bench::nowNs();
    runUntil(begin + static_cast<std::uint64_t>(m_options.seconds * 1e9));
    runToLull();
    const auto wall = static_cast<double>(Bench::nowNs() - begin);
    const auto server = static_cast<double>(serverCpuNs() - serverBegin);
    const auto own = static_cast<double>(LoadKit::ownProcessorTime() - ownBegin);
    const InsideCounts countsEnd = insideCounts();
    control("disable\n");

    const auto frames = static_cast<double>(m_fast.frames + m_slow.frames);
    if (m_options.fast > 0 && m_fast.frames == 0) {
        die("no frame came while measuring");
    }
    nlohmann::json result;
    result["fast"] = m_fast.percentiles();
    if (m_options.slow > 0) {
        result["slow"] = m_slow.percentiles();
    }
    result["frames"] = m_fast.frames + m_slow.frames;
    result["frames_total"] = m_total;
    result["frames_per_s"] = frames * 1e9 / wall;
    result["load_cores"] = own / wall;
    if (m_options.serverPid > 0) {
        result["server_cpu_us_per_frame"] = server / 1000 / frames;
        result["server_cores"] = server / wall;
        result["server_resident_kib"] = LoadKit::residentBytes(m_options.serverPid) / 1024;
    }
    if (!m_options.counts.empty()) {
        const auto bytes = frames * static_cast<double>(m_options.frameBytes);
        result["allocations_per_frame"] =
            static_cast<double>(countsEnd.allocations - countsBegin.allocations) / frames;
        result["copied_per_byte"] =
            static_cast<double>(countsEnd.copiedBytes - countsBegin.copiedBytes) / bytes;
        result["writes_per_frame"] = static_cast<double>(countsEnd.writes - countsBegin.writes) / frames;
        result["full_writes"] = countsEnd.full - countsBegin.full;
    }
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("clients of a fan-out server, every byte compared; prints JSON");
    app.add_option("--port", options.port, "port on 127.0.0.1")->required();
    app.add_option("--fast", options.fast, "clients that read all they can");
    app.add_option("--slow", options.slow, "clients that read at a fixed rate");
    app.add_option("--slow-rate", options.slowRate, "that rate, bytes a second")->check(CLI::PositiveNumber);
    app.add_option("--stuck", options.stuck, "clients that never read");
    app.add_option("--frame-bytes", options.frameBytes, "bytes of a payload")->check(CLI::PositiveNumber);
    app.add_option("--gop", options.gop, "every so many frames one is a key frame")
        ->check(CLI::PositiveNumber);
    app.add_option("--warm-up", options.warmUp, "seconds before measuring");
    app.add_option("--seconds", options.seconds, "seconds measured");
    app.add_option("--server-pid", options.serverPid, "process whose processor time and memory is reported");
    app.add_option("--control", options.control, "pipe to perf, which counts only while frames are counted");
    app.add_option("--answer", options.answer, "pipe by which perf says that it has done so");
    app.add_option("--counts", options.counts, "file in which that process counts allocations and copies");
    CLI11_PARSE(app, argc, argv);
    LoadKit::raiseDescriptorLimit();

    Load load(options);
    load.connectAll();
    std::printf("%s\n", load.measure().dump().c_str());
    return 0;
}
