// relay_load: the clients of script/demo. Watches the test picture of media_relay with clients that are fast,
// slow, and stalled, verifies every picture that comes, prints a line per second and a verdict at the end.
//
// The program knows nothing of the library; it stands on the system's calls alone, so that no error can be on
// both sides.
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "kit/Clocks.h"
#include "kit/EndSignals.h"
#include "kit/Multipart.h"
#include "kit/Process.h"
#include "kit/Target.h"

namespace {

using LoadKit::MultipartReader;
using LoadKit::now;
using LoadKit::processorTime;

constexpr uint64_t kSecond = 1000000000;  // ns
constexpr uint64_t kStep = kSecond / 50;  // how often a slow client reads
constexpr int kSlowRoom = 16384;          // bytes that the kernel takes for a client that is not fast
// And for a fast one: some seconds of pictures, so that one whose process waits for a processor is not
// taken for slow.
constexpr int kFastRoom = 1 << 22;
constexpr double kSettle = 2;      // s, before which memory still settles
constexpr double kStallSlack = 4;  // s; a stalled client is gone so long after its time at the latest
constexpr unsigned kLooks =
    3;  // so often the relay has told why a client is slow, before it is judged by that

struct Options {
    std::string host = "127.0.0.1";
    std::string port;
    pid_t pid = 0;
    size_t fast = 4;
    size_t slow = 1;
    size_t stalled = 1;
    double slowRate = 150000;  // bytes a second
    double stallTimeout = 3;   // s; the relay's
    double seconds = 15;
    double memory = 16;  // MiB that the relay may grow by, once all clients are there
};

enum class Pace { Fast, Slow, Stalled };

struct Client {
    Pace pace = Pace::Fast;
    int fd = -1;
    MultipartReader reader;
    uint64_t received = 0;  // bytes, heads included
    bool closed = false;    // by the relay
    double closedAfter = 0;
    std::string address;     // as the relay sees it
    unsigned looks = 0;      // at what the relay tells of it,
    unsigned slowLooks = 0;  // and of them those at which it reads too slowly by itself
    std::string verdict;     // the last one, also when it was hung up on,
    std::string why;         // and in a sentence
};

class Load {
public:
    explicit Load(const Options& options) : m_options(options), m_room(1 << 18) {}
    ~Load();
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

    int run();  // the program's result: 0 if all is as it should be

private:
    int connectTo(int receiveBytes) const;
    bool openClient(Pace pace);
    bool openAll();
    void poll(uint64_t until);
    void feed(Client& client);
    void hungUp(Client& client);
    size_t budget(const Client& client) const;
    void printHead() const;
    void printRow();
    double memory() const;
    nlohmann::json askRelay() const;
    void readVerdicts(const nlohmann::json& stats);
    void printVerdicts() const;
    double seconds() const { return static_cast<double>(now() - m_begin) / kSecond; }
    uint64_t sum(Pace pace, uint64_t (MultipartReader::*field)() const) const;
    std::string complaint() const;
    std::string describeStalled() const;
    int printVerdict() const;

    const Options m_options;
    LoadKit::Target m_target;
    LoadKit::EndSignals m_signals;
    std::vector<Client> m_clients;
    std::vector<char> m_room;
    bool m_stopped = false;
    uint64_t m_begin = 0;
    uint64_t m_rowBegin = 0;
    uint64_t m_rowFrames = 0;
    uint64_t m_rowBytes = 0;
    uint64_t m_rowProcessor = 0;
    double m_settled = 0;  // MiB of the relay, once that stands still; 0 before
    double m_highest = 0;
};

Load::~Load() {
    for (const Client& client : m_clients) {
        if (client.fd >= 0) {
            close(client.fd);
        }
    }
}

/// A connection that blocks, or -1. `receiveBytes` 0 leaves the kernel's buffer as it is.
int Load::connectTo(int receiveBytes) const {
    LoadKit::Manner manner;
    manner.receive_bytes = receiveBytes;
    manner.patience_s = 5;
    const int fd = m_target.connect(manner);
    if (fd < 0) {
        std::perror("relay_load: connect");
    }
    return fd;
}

/// Of this end, as the other one sees it.
std::string addressOf(int fd) {
    sockaddr_storage own{};
    socklen_t size = sizeof own;
    char host[NI_MAXHOST];
    char port[NI_MAXSERV];
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&own), &size) != 0 ||
        getnameinfo(reinterpret_cast<const sockaddr*>(&own), size, host, sizeof host, port, sizeof port,
                    NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
        return "";
    }
    return std::string(host) + ":" + port;
}

bool Load::openClient(Pace pace) {
    Client client;
    client.pace = pace;
    client.fd = connectTo(pace == Pace::Fast ? kFastRoom : kSlowRoom);
    const std::string request = "GET /live.mjpg HTTP/1.1\r\nHost: " + m_options.host + "\r\n\r\n";
    if (client.fd < 0 || send(client.fd, request.data(), request.size(), MSG_NOSIGNAL) !=
                             static_cast<ssize_t>(request.size())) {
        return false;
    }
    client.address = addressOf(client.fd);
    m_clients.push_back(std::move(client));
    return true;
}

bool Load::openAll() {
    bool good = m_target.resolve(m_options.host, m_options.port);
    for (size_t i = 0; good && i < m_options.fast; ++i) {
        good = openClient(Pace::Fast);
    }
    for (size_t i = 0; good && i < m_options.slow; ++i) {
        good = openClient(Pace::Slow);
    }
    for (size_t i = 0; good && i < m_options.stalled; ++i) {
        good = openClient(Pace::Stalled);
    }
    return good;
}

/// Bytes that this client may read now.
size_t Load::budget(const Client& client) const {
    if (client.pace == Pace::Fast) {
        return m_room.size();
    }
    if (client.pace == Pace::Stalled) {
        return 0;
    }
    const auto allowed = static_cast<uint64_t>(seconds() * m_options.slowRate);
    return allowed > client.received ? std::min(m_room.size(), static_cast<size_t>(allowed - client.received))
                                     : 0;
}

void Load::feed(Client& client) {
    const ssize_t got = recv(client.fd, m_room.data(), budget(client), MSG_DONTWAIT);
    if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) {
        hungUp(client);
    } else if (got > 0) {
        client.received += static_cast<uint64_t>(got);
        client.reader.put(m_room.data(), static_cast<size_t>(got));
    }
}

void Load::hungUp(Client& client) {
    client.closed = true;
    client.closedAfter = seconds();
    close(client.fd);
    client.fd = -1;
}

void Load::poll(uint64_t until) {
    std::vector<pollfd> ready{{m_signals.fd(), POLLIN, 0}};
    for (const Client& client : m_clients) {
        // A slow client looks at its socket by the clock, and what hangs up shows without being asked for.
        ready.push_back({client.fd, static_cast<short>(client.pace == Pace::Fast ? POLLIN : 0), 0});
    }
    const uint64_t time = now();
    const uint64_t step = std::min(until > time ? until - time : 0, kStep);
    ::poll(ready.data(), ready.size(), static_cast<int>((step + 999999) / 1000000));
    m_stopped = m_signals.take() || m_stopped;
    for (size_t i = 0; i < m_clients.size(); ++i) {
        Client& client = m_clients[i];
        if (client.fd < 0) {
            continue;
        }
        if ((ready[i + 1].revents & (POLLHUP | POLLERR)) != 0) {
            hungUp(client);
        } else if (budget(client) > 0 && (ready[i + 1].revents != 0 || client.pace == Pace::Slow)) {
            feed(client);
        }
    }
}

uint64_t Load::sum(Pace pace, uint64_t (MultipartReader::*field)() const) const {
    uint64_t total = 0;
    for (const Client& client : m_clients) {
        total += client.pace == pace ? (client.reader.*field)() : 0;
    }
    return total;
}

/// Resident memory of the relay in MiB; 0 if it cannot be read.
double Load::memory() const {
    return static_cast<double>(LoadKit::residentBytes(m_options.pid)) / (1 << 20);
}

/// What the relay says of itself; null if it does not answer.
nlohmann::json Load::askRelay() const {
    const int fd = connectTo(0);
    const std::string request = "GET /stats.json HTTP/1.1\r\nHost: relay\r\n\r\n";
    std::string answer;
    std::array<char, 8192> room;
    if (fd >= 0 && send(fd, request.data(), request.size(), MSG_NOSIGNAL) > 0) {
        for (ssize_t got; (got = recv(fd, room.data(), room.size(), 0)) > 0;) {
            answer.append(room.data(), static_cast<size_t>(got));
        }
    }
    if (fd >= 0) {
        close(fd);
    }
    const size_t body = answer.find("\r\n\r\n");
    auto stats = nlohmann::json::parse(body == std::string::npos ? "" : answer.substr(body), nullptr, false);
    return stats.is_object() ? stats : nlohmann::json();
}

std::string bufferText(const nlohmann::json& stats) {
    if (!stats.contains("buffer")) {
        return "-";
    }
    char text[64];
    std::snprintf(text, sizeof text, "%3d fr %5.2f MB", stats["buffer"].value("frames", 0),
                  stats["buffer"].value("bytes", 0.0) / 1e6);
    return text;
}

/// Of clients that are there, and of those that the relay has hung up on.
void Load::readVerdicts(const nlohmann::json& stats) {
    for (const char* const list : {"clients", "ended"}) {
        const nlohmann::json rows = stats.value(list, nlohmann::json::array());
        for (Client& client : m_clients) {
            const auto row = std::find_if(rows.begin(), rows.end(), [&](const nlohmann::json& one) {
                return one.value("address", "") == client.address;
            });
            if (row != rows.end()) {
                client.verdict = row->value("verdict", "");
                client.why = row->value("why", "");
                client.looks += client.verdict == "unknown" || client.verdict == "waiting" ? 0 : 1;
                client.slowLooks += client.verdict == "slow_reader" ? 1 : 0;
            }
        }
    }
}

/// What the relay told last of those that are not fast.
void Load::printVerdicts() const {
    for (const Client& client : m_clients) {
        if (client.pace != Pace::Fast && !client.why.empty()) {
            std::printf("the relay says of a %s client: %s\n", client.pace == Pace::Slow ? "slow" : "stalled",
                        client.why.c_str());
        }
    }
}

std::string Load::describeStalled() const {
    size_t dropped = 0;
    for (const Client& client : m_clients) {
        dropped += client.pace == Pace::Stalled && client.closed ? 1 : 0;
    }
    return std::to_string(m_options.stalled - dropped) + " on, " + std::to_string(dropped) + " dropped";
}

void Load::printHead() const {
    std::printf("%6s | %-27s | %-22s | %-16s | %s\n", "", "fast", "slow", "stalled", "relay");
    std::printf("%6s | %9s %8s %8s | %9s %12s | %16s | %5s %7s %16s\n", "time", "frames/s", "MB/s", "missed",
                "frames", "missed", "clients", "CPU", "MiB", "buffer");
    std::fflush(stdout);
}

void Load::printRow() {
    const uint64_t time = now();
    const double passed = static_cast<double>(time - m_rowBegin) / kSecond;
    const uint64_t frames = sum(Pace::Fast, &MultipartReader::frames);
    const uint64_t bytes = sum(Pace::Fast, &MultipartReader::bytes);
    const uint64_t processor = processorTime(m_options.pid);
    const double resident = memory();
    const nlohmann::json stats = askRelay();
    readVerdicts(stats);
    if (m_settled == 0 && seconds() >= std::min(kSettle, m_options.seconds / 2)) {
        m_settled = resident;
    }
    m_highest = std::max(m_highest, resident);
    std::printf("%5.1fs | %9.0f %8.2f %8ju | %9ju %12ju | %16s | %4.0f%% %7.1f %16s\n", seconds(),
                static_cast<double>(frames - m_rowFrames) / passed,
                static_cast<double>(bytes - m_rowBytes) / passed / 1e6,
                static_cast<uintmax_t>(sum(Pace::Fast, &MultipartReader::missed)),
                static_cast<uintmax_t>(sum(Pace::Slow, &MultipartReader::frames)),
                static_cast<uintmax_t>(sum(Pace::Slow, &MultipartReader::missed)), describeStalled().c_str(),
                static_cast<double>(processor - m_rowProcessor) / passed / 1e7, resident,
                bufferText(stats).c_str());
    std::fflush(stdout);
    m_rowBegin = time;
    m_rowFrames = frames;
    m_rowBytes = bytes;
    m_rowProcessor = processor;
}

/// What is not as it should be; empty if all is well.
std::string Load::complaint() const {
    for (size_t i = 0; i < m_clients.size(); ++i) {
        const Client& client = m_clients[i];
        const std::string name = "client " + std::to_string(i + 1);
        if (!client.reader.isGood()) {
            return name + " got bytes that are not those of a picture";
        }
        if (client.pace == Pace::Fast && client.reader.missed() > 0) {
            return name + ", a fast one, missed " + std::to_string(client.reader.missed()) + " frames";
        }
        if (client.pace != Pace::Stalled && (client.closed || client.reader.frames() == 0)) {
            return name + (client.closed ? " was hung up on" : " got no frame");
        }
        const double time = client.closed ? client.closedAfter : seconds();
        if (client.pace == Pace::Stalled && client.closed && time < m_options.stallTimeout) {
            return name + " was hung up on before its time";
        }
        if (client.pace == Pace::Stalled && !client.closed && time > m_options.stallTimeout + kStallSlack) {
            return name + ", a stalled one, was not dropped";
        }
        if (client.pace == Pace::Stalled && client.closed && client.looks != 0 &&
            client.verdict != "stalled") {
            return name + ", a stalled one, was told to be " + client.verdict + ": " + client.why;
        }
        if (client.pace == Pace::Slow && client.looks >= kLooks && client.reader.missed() > 0 &&
            client.slowLooks * 2 < client.looks) {
            return name + ", a slow one, was told to be " + client.verdict + ": " + client.why;
        }
    }
    return m_settled > 0 && m_highest - m_settled > m_options.memory ? "the relay's memory grows" : "";
}

int Load::printVerdict() const {
    const std::string wrong = complaint();
    const char* early = m_stopped ? " (stopped early)" : "";
    std::printf("\n");
    printVerdicts();
    if (m_stopped && sum(Pace::Fast, &MultipartReader::frames) == 0) {
        std::printf("verdict: stopped before the first frame; there was nothing to verify\n");
        return 130;
    }
    if (!wrong.empty()) {
        std::printf("verdict: FAIL%s: %s\n", early, wrong.c_str());
        return 1;
    }
    const uint64_t bytes =
        sum(Pace::Fast, &MultipartReader::bytes) + sum(Pace::Slow, &MultipartReader::bytes);
    const uint64_t slow = sum(Pace::Slow, &MultipartReader::frames);
    const uint64_t missed = sum(Pace::Slow, &MultipartReader::missed);
    std::printf(
        "verdict: PASS%s: %ju bytes of pictures verified; %zu fast clients missed no frame, slow ones "
        "%ju of %ju; stalled ones: %s; the relay's memory grew by %.1f MiB\n",
        early, static_cast<uintmax_t>(bytes), m_options.fast, static_cast<uintmax_t>(missed),
        static_cast<uintmax_t>(slow + missed), describeStalled().c_str(),
        m_settled > 0 ? m_highest - m_settled : 0.0);
    return 0;
}

int Load::run() {
    if (!openAll()) {
        return 1;
    }
    printHead();
    m_begin = m_rowBegin = now();
    m_rowProcessor = processorTime(m_options.pid);
    const uint64_t end = m_begin + static_cast<uint64_t>(m_options.seconds * static_cast<double>(kSecond));
    while (now() < end && !m_stopped) {
        poll(std::min(end, m_rowBegin + kSecond));
        if (now() >= m_rowBegin + kSecond) {
            printRow();
        }
    }
    readVerdicts(askRelay());
    return printVerdict();
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app{"Watches media_relay with fast, slow and stalled clients, and verifies every picture."};
    app.add_option("--host", options.host, "where the relay listens")->capture_default_str();
    app.add_option("--port", options.port, "its port")->required();
    app.add_option("--pid", options.pid, "its process, to tell its memory and processor time");
    app.add_option("--fast", options.fast, "clients that take all there is")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    app.add_option("--slow", options.slow, "clients that take --slow-rate")
        ->check(CLI::Range(0, 1000))
        ->capture_default_str();
    app.add_option("--stalled", options.stalled, "clients that take nothing")
        ->check(CLI::Range(0, 1000))
        ->capture_default_str();
    app.add_option("--slow-rate", options.slowRate, "bytes per second of a slow client")
        ->check(CLI::Range(1000.0, 1e9))
        ->capture_default_str();
    app.add_option("--stall-timeout", options.stallTimeout, "s after which the relay drops a stalled client")
        ->capture_default_str();
    app.add_option("--memory", options.memory, "MiB that the relay may grow by, once all clients are there")
        ->capture_default_str();
    app.add_option("--seconds", options.seconds, "how long to watch")
        ->check(CLI::Range(0.1, 1e6))
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    return Load(options).run();
}
