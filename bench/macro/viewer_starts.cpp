// What a viewer that comes to a buffer with a start cache waits for, what many that come at once cost
// others, and what SetKernelLag does to the lag of a slow one. Real sockets over loopback, 25 frames a
// second, key frames of 170 KB, others of 17 KB.
//
//   viewer_starts [--seconds N]     0: without the slow ones
//
// Prints a JSON list with an object for each figure.
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

#include <Reticor/Reticor.h>

#include "common/FramePackets.h"
#include "common/RoomOwner.h"
#include "common/Usage.h"

using namespace Orvex::Reticor;
using Bench::nowNs;
using nlohmann::json;

namespace {

constexpr std::size_t KEY_BYTES = 170000;
constexpr std::size_t OTHER_BYTES = 17000;
constexpr std::uint64_t FRAME_NS = 40000000;

struct Header {
    std::uint64_t length;
    std::uint64_t number;
    std::uint64_t made_ns;
};

char g_payload[KEY_BYTES];

Bench::PayloadPacket g_payload_packet(g_payload);

struct Arrival {
    std::uint64_t number;
    std::uint64_t made_ns;
    std::uint64_t end_ns;
};

[[noreturn]] void die(const char* what) {
    std::perror(what);
    std::exit(1);
}

// A viewer: a sender, and a thread that reads the other end, at `rate` bytes a second; 0: at once. Those of a
// crowd are to be on other machines: their threads come after all others.
class Viewer {
public:
    explicit Viewer(double rate = 0, int receive_bytes = 0, bool of_crowd = false) : m_rate(rate) {
        CSockAcceptor acceptor;
        CSockAddrIPv4 address("127.0.0.1", 0);
        CSockStream far;
        if (acceptor.Open(address) != 0 || acceptor.GetLocalAddr(&address) != 0) {
            die("listen");
        }
        far.SetBlockOpt(true);
        far.Connect(address, nullptr);
        if (receive_bytes != 0) {
            far.SetSockRecvBuf(static_cast<unsigned>(receive_bytes));
        }
        while (acceptor.Accept(m_sock, nullptr) != 0) {
            ::usleep(1000);
        }
        m_far = far.Detach();
        sender->Attach(&m_sock);
        m_reader = std::thread([this, of_crowd] {
            if (of_crowd) {
                ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), 19);
            }
            read_all();
        });
    }
    ~Viewer() {
        end();
        sender->Detach();
        if (m_owner != nullptr) {
            m_owner->end(m_sock);
        }
        m_sock.Close();
        sender->Close();
        ::close(m_far);
    }
    void end() {
        if (m_reader.joinable()) {
            ::shutdown(m_far, SHUT_RDWR);
            m_reader.join();
        }
    }
    void wait_room() {
        m_owner = Bench::RoomOwner::create(*sender, m_sock);
        if (m_owner == nullptr) {
            die("wait for room");
        }
    }
    std::vector<Arrival> arrivals() {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_arrivals;
    }

    CMediaStreamSender* const sender = CMediaStreamSender::Create();

private:
    void read_all() {
        std::vector<char> bytes(1 << 18);
        double credit = 0;
        std::uint64_t last_ns = nowNs();
        for (;;) {
            std::size_t want = bytes.size();
            if (m_rate > 0) {
                ::usleep(5000);
                const std::uint64_t now_ns = nowNs();
                const double earned = m_rate * static_cast<double>(now_ns - last_ns) / 1e9;
                credit = std::min(credit + earned, earned + 3000);
                last_ns = now_ns;
                want = std::min(want, static_cast<std::size_t>(credit));
            }
            const ssize_t got =
                want == 0 ? -1 : ::recv(m_far, bytes.data(), want, m_rate > 0 ? MSG_DONTWAIT : 0);
            if (got == 0 || (got < 0 && want != 0 && errno != EAGAIN)) {
                return;
            }
            if (got > 0) {
                credit -= static_cast<double>(got);
                take(bytes.data(), static_cast<std::size_t>(got));
            }
        }
    }
    void take(const char* bytes, std::size_t length) {
        for (std::size_t part = 0; length > 0; bytes += part, length -= part) {
            const std::size_t end =
                m_at < sizeof m_header ? sizeof m_header : sizeof m_header + m_header.length;
            part = std::min(length, end - m_at);
            if (m_at < sizeof m_header) {
                std::memcpy(reinterpret_cast<char*>(&m_header) + m_at, bytes, part);
            }
            m_at += part;
            if (m_at >= sizeof m_header && m_at == sizeof m_header + m_header.length) {
                const std::lock_guard<std::mutex> guard(m_mutex);
                m_arrivals.push_back({m_header.number, m_header.made_ns, nowNs()});
                m_at = 0;
            }
        }
    }

    const double m_rate;
    Bench::RoomOwner* m_owner = nullptr;
    CSockStream m_sock;
    int m_far = -1;
    std::thread m_reader;
    Header m_header{};
    std::size_t m_at = 0;
    std::mutex m_mutex;
    std::vector<Arrival> m_arrivals;
};

// A producer with groups of so many frames.
class Camera {
public:
    explicit Camera(std::uint64_t group) : m_group(group) {}

    void put() {
        begin();
        finish();
    }
    // The first packet of a frame, and the last one.
    void begin() {
        m_key = m_number % m_group == 0;
        m_length = (m_key ? KEY_BYTES : OTHER_BYTES) - sizeof(Header);
        buffer.Put(new Bench::HeaderPacket<Header>({m_length, m_number, nowNs()}), sizeof(Header),
                   MEDIA_MARK_MORE, level());
    }
    void finish() {
        buffer.Put(&g_payload_packet, static_cast<int>(m_length), MEDIA_MARK_LAST, level());
        ++m_number;
    }
    // In real time, for so many frames.
    void run(std::uint64_t frames) {
        std::uint64_t due_ns = nowNs();
        for (std::uint64_t i = 0; i < frames; ++i) {
            due_ns += FRAME_NS;
            while (nowNs() < due_ns) {
                ::usleep(static_cast<useconds_t>((due_ns - nowNs()) / 1000 + 1));
            }
            put();
        }
    }
    std::uint64_t number() const { return m_number; }

    CMediaBuffer buffer;

private:
    int level() const { return m_key ? 1 : 5; }

    const std::uint64_t m_group;
    std::uint64_t m_number = 0;
    std::uint64_t m_length = 0;
    bool m_key = false;
};

void come(Camera& camera, Viewer& viewer) {
    viewer.sender->SetResumePolicy(1000);
    camera.buffer.AddSender(viewer.sender);
}

double ms(std::uint64_t ns) {
    return static_cast<double>(ns) / 1e6;
}

// A row with what a figure was in several rounds.
json inRounds(json row, std::vector<double> rounds) {
    std::sort(rounds.begin(), rounds.end());
    row["rounds"] = rounds.size();
    row["median_ms"] = rounds[rounds.size() / 2];
    row["worst_ms"] = rounds.back();
    return row;
}

// Waits for a first frame.
double first_ms(Viewer& viewer, std::uint64_t from_ns) {
    for (int i = 0; i < 20000; ++i) {
        const std::vector<Arrival> found = viewer.arrivals();
        if (!found.empty()) {
            return ms(found.front().end_ns - from_ns);
        }
        ::usleep(100);
    }
    die("no first frame");
}

// The first picture, between two frames of a stream that stands still, and while a frame is being filled.
json first_picture(std::uint64_t group, bool filling) {
    Camera camera(group);
    camera.buffer.SetStartCache(60000, 1 << 26);
    for (std::uint64_t i = 0; i + 1 < group; ++i) {
        camera.put();
    }
    if (filling) {
        camera.begin();
    }
    std::vector<double> rounds;
    for (int i = 0; i < 20; ++i) {
        Viewer viewer;
        const std::uint64_t from_ns = nowNs();
        come(camera, viewer);
        rounds.push_back(first_ms(viewer, from_ns));
        camera.buffer.DelSender(viewer.sender);
    }
    if (filling) {
        camera.finish();
    }
    MediaStartStats stats;
    camera.buffer.GetStartStats(&stats);
    return inRounds({{"what", "first picture"},
                     {"filling", filling},
                     {"group_s", static_cast<double>(group) / 25},
                     {"held_bytes", stats.bytes}},
                    rounds);
}

// Until nothing is older than two frames, with a group of 10 s, without anything but the frames to go on.
json live() {
    std::vector<double> rounds;
    for (int i = 0; i < 9; ++i) {
        Camera camera(250);
        camera.buffer.SetStartCache(60000, 1 << 26);
        for (int frame = 0; frame < 220; ++frame) {
            camera.put();
        }
        Viewer viewer;
        const std::uint64_t from_ns = nowNs();
        const std::uint64_t before = camera.number();
        come(camera, viewer);
        camera.run(25);
        ::usleep(50000);
        const std::vector<Arrival> found = viewer.arrivals();
        const auto first = std::find_if(found.begin(), found.end(), [before](const Arrival& arrival) {
            return arrival.number >= before && arrival.end_ns - arrival.made_ns < 2 * FRAME_NS;
        });
        if (first == found.end()) {
            die("not live after a second");
        }
        rounds.push_back(ms(first->end_ns - from_ns));
        camera.buffer.DelSender(viewer.sender);
    }
    return inRounds({{"what", "live"}, {"group_s", 10}}, rounds);
}

// What the slowest of another viewer's frames takes while so many come at once.
double crowd_ms(int count, bool wait_room) {
    Camera camera(250);
    camera.buffer.SetStartCache(60000, 1 << 26);
    for (int frame = 0; frame < 220; ++frame) {
        camera.put();
    }
    Viewer other;
    come(camera, other);
    std::vector<std::unique_ptr<Viewer>> crowd;
    for (int i = 0; i < count; ++i) {
        crowd.push_back(std::make_unique<Viewer>(0, 0, true));
        if (wait_room) {
            crowd.back()->wait_room();
        }
    }
    std::thread joins([&] {
        ::usleep(300000);
        for (const auto& one : crowd) {
            come(camera, *one);
        }
    });
    camera.run(25);
    joins.join();
    std::vector<Arrival> found = other.arrivals();
    for (int i = 0; i < 5000 && found.back().number + 1 != camera.number(); ++i) {
        ::usleep(1000);
        found = other.arrivals();
    }
    if (found.size() != camera.number()) {
        die("another viewer misses frames");
    }
    double worst = 0;
    for (const Arrival& arrival : found) {
        worst = std::max(worst, arrival.number >= 227 ? ms(arrival.end_ns - arrival.made_ns) : 0);
    }
    for (const auto& one : crowd) {
        camera.buffer.DelSender(one->sender);
    }
    camera.buffer.DelSender(other.sender);
    return worst;
}

// In turns, so that what else the machine has to do is the same for all.
void crowds(json& rows) {
    struct Kind {
        int count;
        bool wait_room;
        std::vector<double> rounds;
    };
    Kind kinds[] = {{0, false, {}}, {100, false, {}}, {100, true, {}}};
    for (int i = 0; i < 15; ++i) {
        for (Kind& kind : kinds) {
            kind.rounds.push_back(crowd_ms(kind.count, kind.wait_room));
        }
    }
    for (const Kind& kind : kinds) {
        json row = inRounds(
            {{"what", "another viewer's frames"}, {"joiners", kind.count}, {"wait_room", kind.wait_room}},
            kind.rounds);
        row["above_20_ms"] =
            std::count_if(kind.rounds.begin(), kind.rounds.end(), [](double ms) { return ms > 20; });
        rows.push_back(row);
    }
}

// The lag of pictures on a link that is read at a share of the stream's rate.
json kernel_lag(int percent, int receive_bytes, unsigned limit_ms, int seconds) {
    constexpr std::uint64_t GROUP = 100;
    constexpr double RATE = (KEY_BYTES + (GROUP - 1) * OTHER_BYTES) * 25.0 / GROUP;
    Camera camera(GROUP);
    Viewer viewer(RATE * percent / 100, receive_bytes);
    viewer.sender->SetKernelLag(limit_ms);
    come(camera, viewer);
    camera.run(static_cast<std::uint64_t>(seconds) * 25);
    ::usleep(500000);
    std::vector<double> lags;
    const std::vector<Arrival> found = viewer.arrivals();
    std::uint64_t shown = 0;
    for (const Arrival& arrival : found) {
        if (arrival.number >= 250) {
            lags.push_back(ms(arrival.end_ns - arrival.made_ns));
            ++shown;
        }
    }
    std::sort(lags.begin(), lags.end());
    camera.buffer.DelSender(viewer.sender);
    const auto all = static_cast<double>(camera.number() - 250);
    return {{"what", "kernel lag"},
            {"percent", percent},
            {"receive_buffer", receive_bytes},
            {"kernel_lag_ms", limit_ms},
            {"shown", static_cast<double>(shown) / all},
            {"lag_p99_ms", lags.empty() ? -1 : lags[lags.size() * 99 / 100]}};
}

}  // namespace

int main(int argc, char** argv) {
    int seconds = 60;
    CLI::App app{"What a viewer that comes waits for, and what lies in the kernel"};
    app.add_option("--seconds", seconds, "length of the runs on slow links");
    CLI11_PARSE(app, argc, argv);
    if (CreateThreadPool(2, 0) != 0) {
        return 1;
    }
    json rows = json::array();
    for (const std::uint64_t group : {50U, 250U, 1500U}) {
        rows.push_back(first_picture(group, false));
        rows.push_back(first_picture(group, true));
    }
    rows.push_back(live());
    crowds(rows);
    std::vector<std::thread> runs;
    std::mutex mutex;
    for (const int percent : seconds > 0 ? std::vector<int>{50, 200, 1000} : std::vector<int>{}) {
        for (const int receive_bytes : {16384, 0}) {
            for (const unsigned limit_ms : {0U, 100U}) {
                runs.emplace_back([&, percent, receive_bytes, limit_ms] {
                    const json row = kernel_lag(percent, receive_bytes, limit_ms, seconds);
                    const std::lock_guard<std::mutex> guard(mutex);
                    rows.push_back(row);
                });
            }
        }
    }
    for (std::thread& run : runs) {
        run.join();
    }
    std::puts(rows.dump(1).c_str());
    DestroyThreadPool();
    return 0;
}
