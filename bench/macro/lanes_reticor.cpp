// One stream for many clients over lanes, as fast as it goes, and at a rate that grows: frames written in a
// second and processor time of each, with the processor time of the side that reads, which throws all away
// without a copy.
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include <Infra/Log.h>
#include <Infra/Semaphore.h>
#include <Reticor/MediaLanes.h>
#include <Reticor/MediaStreamSender.h>
#include <Reticor/NetThread.h>
#include <Reticor/SockStream.h>

#include "common/Usage.h"

namespace {

using namespace Orvex::Reticor;

struct Options {
    unsigned lanes = 1;
    unsigned clients = 50;
    unsigned frameBytes = 65536;
    unsigned fps = 0;  // as fast as they go
    double seconds = 2;
    double warmUp = 0.5;
};

Options parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i + 1 < argc; i += 2) {
        const double value = std::atof(argv[i + 1]);
        const std::string name = argv[i];
        const auto number = static_cast<unsigned>(value);
        if (name == "--lanes") {
            options.lanes = number;
        } else if (name == "--clients") {
            options.clients = number;
        } else if (name == "--frame-bytes") {
            options.frameBytes = number;
        } else if (name == "--fps") {
            options.fps = number;
        } else if (name == "--seconds") {
            options.seconds = value;
        } else if (name == "--warm-up") {
            options.warmUp = value;
        } else {
            std::fprintf(stderr, "what is %s?\n", argv[i]);
            std::exit(2);
        }
    }
    return options;
}

// The same bytes for every frame.
class Payload : public CMediaPacket {
public:
    explicit Payload(unsigned length) : m_bytes(length, 'x') {}
    int Release() override { return 0; }
    char* GetBuffer() override { return m_bytes.data(); }

private:
    std::vector<char> m_bytes;
};

// A client: its handler is on its lane's pool, where it waits for room.
class Client : public CNetHandler {
public:
    static Client* make(CMediaLanes& lanes, int fd) {
        CMediaLanes::Place place;
        if (lanes.Next(SOCK_READ | SOCK_WRITE, place) != 0) {
            std::fprintf(stderr, "no lane has room\n");
            std::exit(1);
        }
        return new Client(lanes, std::move(place), fd);
    }
    int handle_output(int fd) override { return m_sender->handle_output(fd); }
    int handle_close(CNetHandler* self) override {
        delete self;
        g_gone.post();
        return 0;
    }
    std::uint64_t frames() const { return m_frames.load(std::memory_order_relaxed); }
    void end() {
        m_lanes.DelSender(m_sender);
        m_sender->Detach();
        RemoveSock(m_sock);
        m_sock.Close();
        m_sender->Close();
        m_sender->DecRef();
        Close();
    }
    static void waitForOne() { g_gone.pend(); }

private:
    Client(CMediaLanes& lanes, CMediaLanes::Place place, int fd)
        : CNetHandler(place.GetPool()), m_lanes(lanes), m_place(std::move(place)) {
        m_sock.Attach(fd);
        m_sender->AddRef();
        m_sender->Attach(&m_sock);
        RegisterSock(m_sock, SOCK_READ, 0);
        m_sender->WaitRoom(GetID());
        m_sender->SetGather(true);
        m_sender->AttachSendProc({&Client::onFrame, this});
        m_lanes.AddSender(m_sender, m_place);
    }

    // Inside its lane's lock.
    void onFrame(CMediaPacket*, int, int) { m_frames.store(frames() + 1, std::memory_order_relaxed); }

    static Orvex::Infra::CSemaphore g_gone;
    CMediaLanes& m_lanes;
    const CMediaLanes::Place m_place;
    std::atomic<std::uint64_t> m_frames{0};
    CSockStream m_sock;
    CMediaStreamSender* const m_sender = CMediaStreamSender::Create();
};

Orvex::Infra::CSemaphore Client::g_gone{0};

// Reads everything and looks at nothing, until its parent ends it.
[[noreturn]] void sink(int listener, unsigned clients) {
    const int poll = ::epoll_create1(EPOLL_CLOEXEC);
    sockaddr_storage name{};
    socklen_t length = sizeof name;
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&name), &length);
    for (unsigned i = 0; i < clients; ++i) {
        const int end = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (end < 0 || ::connect(end, reinterpret_cast<sockaddr*>(&name), length) != 0) {
            std::perror("connect");
            std::_Exit(1);
        }
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = end;
        ::epoll_ctl(poll, EPOLL_CTL_ADD, end, &event);
    }
    epoll_event ready[256];
    static char room[4 << 20];
    for (;;) {
        const int count = ::epoll_wait(poll, ready, 256, -1);
        for (int i = 0; i < count; ++i) {
            ::recv(ready[i].data.fd, room, sizeof room, MSG_TRUNC | MSG_DONTWAIT);
        }
    }
}

// A connection of the loopback device, where MSG_TRUNC throws away without a copy.
int acceptOne(int listener) {
    const int size = 131072;
    const int end = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (end < 0) {
        std::perror("accept");
        std::exit(1);
    }
    ::setsockopt(end, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    return end;
}

struct Readings {
    std::uint64_t frames = 0;
    std::uint64_t cpuNs = 0;
    std::uint64_t sinkNs = 0;
    std::uint64_t atNs = 0;
};

std::uint64_t cpuOf(pid_t pid) {
    clockid_t clock = 0;
    timespec time{};
    if (::clock_getcpuclockid(pid, &clock) != 0 || ::clock_gettime(clock, &time) != 0) {
        return 0;
    }
    return static_cast<std::uint64_t>(time.tv_sec) * 1000000000U + static_cast<std::uint64_t>(time.tv_nsec);
}

Readings look(const std::vector<Client*>& clients, pid_t sinkPid) {
    Readings found;
    for (Client* const client : clients) {
        found.frames += client->frames();
    }
    found.cpuNs = Bench::ownCpuNs();
    found.sinkNs = cpuOf(sinkPid);
    found.atNs = Bench::nowNs();
    return found;
}

void sleepNs(std::uint64_t ns) {
    const timespec time{static_cast<time_t>(ns / 1000000000U), static_cast<long>(ns % 1000000000U)};
    ::nanosleep(&time, nullptr);
}

// Puts frames for so long. As fast as they go means: while no client has more than a few of them waiting.
class Producer {
public:
    Producer(CMediaLanes& lanes, const std::vector<Client*>& clients, const Options& options)
        : m_lanes(lanes), m_clients(clients), m_options(options), m_payload(options.frameBytes) {}

    void run(double seconds) {
        const std::uint64_t endNs = Bench::nowNs() + static_cast<std::uint64_t>(seconds * 1e9);
        std::uint64_t dueNs = Bench::nowNs();
        while (Bench::nowNs() < endNs) {
            if (m_options.fps == 0 && someoneWaits()) {
                sleepNs(50000);
                continue;
            }
            m_lanes.Put(&m_payload, static_cast<int>(m_options.frameBytes), MEDIA_MARK_LAST, 1);
            ++m_made;
            if (m_options.fps != 0) {
                dueNs += 1000000000U / m_options.fps;
                const std::uint64_t now = Bench::nowNs();
                sleepNs(dueNs > now ? dueNs - now : 0);
            }
        }
    }

private:
    static constexpr std::uint64_t kMostWaiting = 32;

    bool someoneWaits() const {
        std::uint64_t least = m_made;
        for (const Client* const client : m_clients) {
            least = std::min(least, client->frames());
        }
        return m_made - least >= kMostWaiting;
    }

    CMediaLanes& m_lanes;
    const std::vector<Client*>& m_clients;
    const Options& m_options;
    Payload m_payload;
    std::uint64_t m_made = 0;
};

void print(const Options& options, const Readings& from, const Readings& to, const MediaLanesStats& stats) {
    const double seconds = static_cast<double>(to.atNs - from.atNs) / 1e9;
    const double frames = static_cast<double>(to.frames - from.frames);
    std::printf(
        "{\"lanes\": %u, \"clients\": %u, \"frames_per_second\": %.1f, \"server_cpu_us_per_frame\": %.3f, "
        "\"sink_cpu_us_per_frame\": %.3f, \"server_processors\": %.3f, \"lost_frames\": %llu}\n",
        options.lanes, options.clients, frames / seconds,
        static_cast<double>(to.cpuNs - from.cpuNs) / 1e3 / frames,
        static_cast<double>(to.sinkNs - from.sinkNs) / 1e3 / frames,
        static_cast<double>(to.cpuNs - from.cpuNs) / 1e9 / seconds,
        static_cast<unsigned long long>(stats.lost_frames));
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    Orvex::Infra::setLogLevel(1);
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ::listen(listener, 1024);
    const pid_t sinkPid = ::fork();
    if (sinkPid == 0) {
        sink(listener, options.clients);
    }
    if (CNetThread::CreateThreadPool(1, false) != 0) {
        return 1;
    }
    CMediaLanes lanes;
    if (lanes.Create(options.lanes, 1) != 0) {
        return 1;
    }
    std::vector<Client*> clients;
    for (unsigned i = 0; i < options.clients; ++i) {
        clients.push_back(Client::make(lanes, acceptOne(listener)));
    }
    Producer producer(lanes, clients, options);
    producer.run(options.warmUp);
    const Readings from = look(clients, sinkPid);
    producer.run(options.seconds);
    const Readings to = look(clients, sinkPid);
    MediaLanesStats stats;
    lanes.GetStats(&stats, sizeof stats);
    print(options, from, to, stats);
    for (Client* const client : clients) {
        client->end();
    }
    for (std::size_t i = 0; i < clients.size(); ++i) {
        Client::waitForOne();
    }
    lanes.Destroy();
    ::kill(sinkPid, SIGKILL);  // it has no other end
    ::waitpid(sinkPid, nullptr, 0);
    CNetThread::DestroyThreadPool();
    return 0;
}
