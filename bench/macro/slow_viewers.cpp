// What viewers of slow links get from a CMediaBuffer, without the resume policy and with it in both modes.
//
//   slow_viewers [--seconds N] [--skip N] [--auto-send MS] [--max-lag MS] [--percents 120,95,...]
//
// 25 frames a second, a key frame of 170 KB and level 1 every 50, the others of 17 KB and level 5. For each
// bandwidth, in percent of the stream's, there are three buffers, one without the policy and two with it;
// each has the slow viewer and a fast one. Twice over: the link of a "paced" viewer is a TCP connection that
// is read at its bandwidth, that of a "simulated" one a CSimulatorStream before a connection that is read at
// once. The simulator's bandwidth comes in steps of 128 KiB/s, so there all frames are larger by one factor.
// All run at the same time. Prints a JSON list with an object for each slow viewer.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include <Reticor/Reticor.h>

#include "common/FramePackets.h"
#include "common/Usage.h"

using namespace Orvex::Reticor;
using nlohmann::json;

namespace {

constexpr int GROUP = 50;
constexpr std::uint64_t FRAME_NS = 40000000;
constexpr std::size_t KEY_BYTES = 170000;
constexpr std::size_t OTHER_BYTES = 17000;
constexpr double STREAM_RATE = (KEY_BYTES + (GROUP - 1) * OTHER_BYTES) * 25.0 / GROUP;  // bytes/s
constexpr double SIMULATOR_STEP = 131072;
constexpr double SIMULATOR_SCALE = 20 * SIMULATOR_STEP / STREAM_RATE;  // the stream is 20 steps then
constexpr unsigned KERNEL_BYTES = 131072;
constexpr std::uint64_t PACE_NS = 5000000;

struct Options {
    int seconds = 180;
    int skip = 20;
    unsigned auto_send_ms = 0;
    unsigned max_lag_ms = 1000;
    std::vector<int> percents = {120, 95, 75, 50, 25, 10};
};

struct Header {
    std::uint64_t length;
    std::uint64_t number;
    std::uint64_t made_ns;
};

char g_payload[static_cast<std::size_t>(KEY_BYTES * SIMULATOR_SCALE) + 1];

Bench::PayloadPacket g_payload_packet(g_payload);

struct Arrival {
    std::uint64_t number;
    std::uint64_t made_ns;
    std::uint64_t end_ns;  // its last byte was read
    std::uint64_t offset;  // of its first byte on the wire
};

// Takes a stream of frames apart.
class Parser {
public:
    void take(const char* bytes, std::size_t length) {
        while (length > 0) {
            const std::size_t part = m_at < sizeof m_header ? take_header(bytes, length)
                                                            : std::min<std::size_t>(length, m_end - m_at);
            m_at += part;
            bytes += part;
            length -= part;
            m_total += part;
            if (m_at >= sizeof m_header && m_at == m_end) {
                arrivals.push_back({m_header.number, m_header.made_ns, Bench::nowNs(), m_total - m_end});
                m_at = 0;
            }
        }
    }
    std::vector<Arrival> arrivals;

private:
    std::size_t take_header(const char* bytes, std::size_t length) {
        const std::size_t part = std::min(length, sizeof m_header - m_at);
        std::memcpy(reinterpret_cast<char*>(&m_header) + m_at, bytes, part);
        m_end = sizeof m_header + m_header.length;
        return part;
    }

    Header m_header{};
    std::size_t m_at = 0;
    std::size_t m_end = 0;
    std::uint64_t m_total = 0;
};

[[noreturn]] void die(const char* what) {
    std::perror(what);
    std::exit(1);
}

// A TCP connection over loopback, whose other end is read by a thread at `rate` bytes a second, 0: at once.
class Connection {
public:
    explicit Connection(double rate, unsigned kernel_bytes) : m_rate(rate) {
        CSockAcceptor acceptor;
        CSockAddrIPv4 address("127.0.0.1", 0);
        CSockStream far;
        if (acceptor.Open(address) != 0 || acceptor.GetLocalAddr(&address) != 0) {
            die("listen");
        }
        far.SetBlockOpt(true);
        far.Connect(address, nullptr);
        far.SetSockRecvBuf(16384);
        while (acceptor.Accept(sock, nullptr) != 0) {
            ::usleep(1000);
        }
        sock.SetSockSendBuf(kernel_bytes / 2);  // the kernel doubles it
        m_far = far.Detach();
        m_reader = std::thread([this] { read_all(); });
    }
    ~Connection() {
        end();
        ::close(m_far);
    }
    // Nothing is read any more, and the parser may be looked at.
    void end() {
        if (m_reader.joinable()) {
            ::shutdown(m_far, SHUT_RDWR);
            m_reader.join();
        }
    }

    CSockStream sock;
    Parser parser;

private:
    void read_all() {
        std::vector<char> bytes(1 << 18);
        double credit = 0;
        std::uint64_t last_ns = Bench::nowNs();
        for (;;) {
            std::size_t want = bytes.size();
            if (m_rate > 0) {
                ::usleep(PACE_NS / 1000);
                const std::uint64_t now_ns = Bench::nowNs();
                const double earned = m_rate * static_cast<double>(now_ns - last_ns) / 1e9;
                credit = std::min(credit + earned, earned + 3000);  // an idle link saves nothing up
                last_ns = now_ns;
                want = static_cast<std::size_t>(credit);
            }
            const ssize_t got =
                want == 0 ? -1 : ::recv(m_far, bytes.data(), want, m_rate > 0 ? MSG_DONTWAIT : 0);
            if (got == 0 || (got < 0 && want != 0 && errno != EAGAIN)) {
                return;
            }
            if (got > 0) {
                credit -= static_cast<double>(got);
                parser.take(bytes.data(), static_cast<std::size_t>(got));
            }
        }
    }

    const double m_rate;
    int m_far = -1;
    std::thread m_reader;
};

// One buffer with its slow and its fast viewer.
class Cell {
public:
    Cell(bool simulated, int percent, const char* mode, unsigned max_lag_ms)
        : m_simulated(simulated),
          m_percent(percent),
          m_mode(mode),
          m_scale(simulated ? SIMULATOR_SCALE : 1),
          m_slow_link(simulated ? 0 : STREAM_RATE * percent / 100, kernel_bytes()),
          m_fast_link(0, kernel_bytes()) {
        m_simulator.SetRealSocket(&m_slow_link.sock);
        m_simulator.SetBandWidth(static_cast<unsigned>(percent / 5));
        m_slow->Attach(simulated ? static_cast<CSock*>(&m_simulator) : &m_slow_link.sock);
        if (m_mode != "off") {
            m_slow->SetResumePolicy(max_lag_ms,
                                    m_mode == "strict" ? MediaResume::STRICT : MediaResume::AHEAD);
        }
        m_fast->Attach(&m_fast_link.sock);
        buffer.AddSender(m_fast);
        buffer.AddSender(m_slow);
    }
    ~Cell() {
        for (CMediaStreamSender* sender : {m_slow, m_fast}) {
            buffer.DelSender(sender);
            sender->Detach();
            sender->Close();
        }
    }

    void put(std::uint64_t number) {
        const bool key = number % GROUP == 0;
        const auto length =
            static_cast<std::uint64_t>(static_cast<double>(key ? KEY_BYTES : OTHER_BYTES) * m_scale) -
            sizeof(Header);
        const int level = key ? 1 : 5;
        buffer.Put(new Bench::HeaderPacket<Header>({length, number, Bench::nowNs()}), sizeof(Header),
                   MEDIA_MARK_MORE, level);
        buffer.Put(&g_payload_packet, static_cast<int>(length), MEDIA_MARK_LAST, level);
        m_samples.push_back({Bench::nowNs(), m_slow->GetStats().bytes, held()});
    }

    // Ends the slow viewer's connection, and says what it got.
    json figures(const Options& options, std::uint64_t start_ns);

    CMediaBuffer buffer;

private:
    struct Sample {
        std::uint64_t at_ns;
        std::uint64_t bytes;  // that the socket has taken
        std::uint32_t held;
    };

    std::uint32_t held() {
        const MediaBufferStats stats = buffer.GetStats();
        return std::max(stats.frames, stats.kept_frames);
    }
    unsigned kernel_bytes() const { return static_cast<unsigned>(KERNEL_BYTES * m_scale); }

    const bool m_simulated;
    const int m_percent;
    const std::string m_mode;
    const double m_scale;
    Connection m_slow_link;
    Connection m_fast_link;
    CSimulatorStream m_simulator;
    CMediaStreamSender* m_slow = CMediaStreamSender::Create();
    CMediaStreamSender* m_fast = CMediaStreamSender::Create();
    std::vector<Sample> m_samples;
};

double seconds(std::uint64_t ns) {
    return static_cast<double>(ns) / 1e9;
}

// The value that this share of them lies below.
double at(std::vector<double> values, double share) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1,
                           static_cast<std::size_t>(share * static_cast<double>(values.size())))];
}

double mean(const std::vector<double>& values) {
    double sum = 0;
    for (const double value : values) {
        sum += value;
    }
    return values.empty() ? 0 : sum / static_cast<double>(values.size());
}

// What came of one group of frames: K key, p delivered, . missing.
std::string patternOf(const std::vector<Arrival>& arrivals, std::uint64_t first) {
    std::string pattern(GROUP, '.');
    for (const Arrival& arrival : arrivals) {
        if (arrival.number >= first && arrival.number < first + GROUP) {
            pattern[arrival.number - first] = arrival.number % GROUP == 0 ? 'K' : 'p';
        }
    }
    return pattern;
}

// What is counted while the arrivals are gone through. Times in seconds.
struct Course {
    std::vector<double> lags, delays, gaps;
    std::uint64_t delivered = 0;
    std::uint64_t decoded = 0;
    double first_hole_s = -1;
    std::int64_t last_decoded = -1;
    std::uint64_t expected = 0;
    std::uint64_t picture_ns = 0;

    // Whether it can be decoded: a key frame, or the frame before it could.
    bool follow(const Arrival& arrival) {
        if (arrival.number != expected && first_hole_s < 0) {
            first_hole_s = static_cast<double>(expected) / 25;
        }
        expected = arrival.number + 1;
        const auto number = static_cast<std::int64_t>(arrival.number);
        const bool decodes = number % GROUP == 0 || last_decoded + 1 == number;
        last_decoded = decodes ? number : last_decoded;
        return decodes;
    }
    void count(const Arrival& arrival, bool decodes, double lag_s) {
        ++delivered;
        decoded += decodes ? 1 : 0;
        lags.push_back(lag_s);
        delays.push_back(seconds(arrival.end_ns - arrival.made_ns));
        if (decodes) {
            gaps.push_back(picture_ns == 0 ? 0 : seconds(arrival.end_ns - picture_ns));
            picture_ns = arrival.end_ns;
        }
    }
};

json Cell::figures(const Options& options, std::uint64_t start_ns) {
    m_slow_link.end();
    const std::vector<Arrival>& arrivals = m_slow_link.parser.arrivals;
    const auto first = static_cast<std::uint64_t>(options.skip) * 25 / GROUP * GROUP;
    // The last frames are still on their way when the time is over.
    const auto end = static_cast<std::uint64_t>(options.seconds - std::min(8, options.seconds / 4)) * 25;
    Course course;
    std::size_t sample = 0;
    for (const Arrival& arrival : arrivals) {
        while (sample + 1 < m_samples.size() && m_samples[sample].bytes <= arrival.offset) {
            ++sample;
        }
        const bool decodes = course.follow(arrival);
        if (arrival.number >= first && arrival.number < end) {
            const std::uint64_t begun_ns = std::max(m_samples[sample].at_ns, arrival.made_ns);
            course.count(arrival, decodes, seconds(begun_ns - arrival.made_ns));
        }
    }
    std::vector<double> held;
    for (const Sample& one : m_samples) {
        if (seconds(one.at_ns - start_ns) > options.skip) {
            held.push_back(one.held);
        }
    }
    const auto frames = static_cast<double>(end - first);
    const MediaSenderStats stats = m_slow->GetStats();
    return {{"link", m_simulated ? "simulated" : "paced"},
            {"percent", m_percent},
            {"mode", m_mode},
            {"delivered", static_cast<double>(course.delivered) / frames},
            {"decoded", static_cast<double>(course.decoded) / frames},
            {"first_hole_s", course.first_hole_s},
            {"lag_mean_s", mean(course.lags)},
            {"lag_max_s", at(course.lags, 1)},
            {"delay_p50_s", at(course.delays, 0.5)},
            {"delay_p99_s", at(course.delays, 0.99)},
            {"stall_max_s", at(course.gaps, 1)},
            {"run", static_cast<double>(course.decoded) / (frames / GROUP)},
            {"held_p50", at(held, 0.5)},
            {"held_max", at(held, 1)},
            {"skips", stats.skips},
            {"holes", stats.holes},
            {"pattern", patternOf(arrivals, (first + end) / 2 / GROUP * GROUP)}};
}

void run(const Options& options) {
    std::vector<std::unique_ptr<Cell>> cells;
    for (const bool simulated : {false, true}) {
        for (const char* const mode : {"off", "strict", "ahead"}) {
            for (const int percent : options.percents) {
                cells.push_back(std::make_unique<Cell>(simulated, percent, mode, options.max_lag_ms));
                if (options.auto_send_ms != 0) {
                    cells.back()->buffer.EnableAutoSend(options.auto_send_ms);
                }
            }
        }
    }
    const std::uint64_t start_ns = Bench::nowNs();
    for (std::uint64_t number = 0; number < static_cast<std::uint64_t>(options.seconds) * 25; ++number) {
        const std::uint64_t due_ns = start_ns + number * FRAME_NS;
        while (Bench::nowNs() < due_ns) {
            ::usleep(static_cast<useconds_t>((due_ns - std::min(due_ns, Bench::nowNs())) / 1000 + 1));
        }
        for (const auto& cell : cells) {
            cell->put(number);
        }
    }
    json all = json::array();
    for (const auto& cell : cells) {
        all.push_back(cell->figures(options, start_ns));
    }
    std::puts(all.dump().c_str());
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app{"What viewers of slow links get from a CMediaBuffer"};
    app.add_option("--seconds", options.seconds, "length of the run")->check(CLI::Range(4, 86400));
    app.add_option("--skip", options.skip, "seconds at the beginning that do not count");
    app.add_option("--auto-send", options.auto_send_ms, "interval of the shared timer, 0 without");
    app.add_option("--max-lag", options.max_lag_ms, "limit of the policy in ms");
    app.add_option("--percents", options.percents, "bandwidths in percent of the stream's, in steps of 5")
        ->delimiter(',');
    CLI11_PARSE(app, argc, argv);
    if (CreateThreadPool(2, 0) != 0) {
        return 1;
    }
    run(options);
    return DestroyThreadPool();
}
