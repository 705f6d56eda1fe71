// What viewers of slow links get from a CMediaBuffer, without the resume policy and with it in both modes;
// with senders that wait for room; and with two qualities in the buffer, among which media_relay's ladder
// chooses.
//
//   slow_viewers [--seconds N] [--skip N] [--auto-send MS] [--max-lag MS] [--percents 120,95,...]
//
// 25 frames a second, a key frame of 170 KB and level 1 every 50, the others of 17 KB and level 5. For each
// bandwidth, in percent of the stream's, there is a buffer for each way to send; each has the slow viewer
// and a fast one. Twice over: the link of a "paced" viewer is a TCP connection that is read at its bandwidth,
// that of a "simulated" one a CSimulatorStream before a connection that is read at once, which always has
// room. The simulator's bandwidth comes in steps of 128 KiB/s, so there all frames are larger by one factor.
// Bandwidth 0 is a link whose rate changes. All run at the same time. Prints a JSON list with an object for
// each slow viewer.
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
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
#include "common/QualityLadder.h"
#include "common/RoomOwner.h"
#include "common/Usage.h"

using namespace Orvex::Reticor;
using nlohmann::json;

namespace {

constexpr int GROUP = 50;
constexpr unsigned PROMPT_KEYS = 5;  // before a viewer gets the high quality again
constexpr std::uint64_t FRAME_NS = 40000000;
constexpr std::size_t KEY_BYTES = 170000;
constexpr std::size_t OTHER_BYTES = 17000;
constexpr double STREAM_RATE = (KEY_BYTES + (GROUP - 1) * OTHER_BYTES) * 25.0 / GROUP;  // bytes/s
constexpr double SIMULATOR_STEP = 131072;
constexpr double SIMULATOR_SCALE = 20 * SIMULATOR_STEP / STREAM_RATE;  // the stream is 20 steps then
constexpr unsigned KERNEL_BYTES = 131072;
constexpr std::uint64_t PACE_NS = 5000000;
constexpr int CHANGING = 0;  // in place of percents

// Percent of the stream's rate after so long: 150 for 30 s, then 60, 90, 150 and again, for 20 s each.
double changingPercent(double s) {
    constexpr double ROUND[] = {60, 90, 150};
    return s < 30 ? 150 : ROUND[static_cast<std::size_t>((s - 30) / 20) % 3];
}

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
    std::uint64_t channel;
};

char g_payload[static_cast<std::size_t>(KEY_BYTES * SIMULATOR_SCALE) + 1];

Bench::PayloadPacket g_payload_packet(g_payload);

struct Arrival {
    std::uint64_t number;
    std::uint64_t made_ns;
    std::uint64_t end_ns;  // its last byte was read
    std::uint64_t offset;  // of its first byte on the wire
    bool low;              // quality
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
                arrivals.push_back({m_header.number, m_header.made_ns, Bench::nowNs(), m_total - m_end,
                                    m_header.channel == Bench::LOW_PICTURES});
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

double seconds(std::uint64_t ns) {
    return static_cast<double>(ns) / 1e9;
}

[[noreturn]] void die(const char* what) {
    std::perror(what);
    std::exit(1);
}

// A TCP connection over loopback. Its other end is read at once by a thread of its own, or, paced, by whoever
// calls `pace` every few milliseconds, at `percent` of the stream's rate.
class Connection {
public:
    Connection(bool paced, int percent, unsigned send_bytes, unsigned receive_bytes) : m_percent(percent) {
        CSockAcceptor acceptor;
        CSockAddrIPv4 address("127.0.0.1", 0);
        CSockStream far;
        if (acceptor.Open(address) != 0 || acceptor.GetLocalAddr(&address) != 0) {
            die("listen");
        }
        far.SetBlockOpt(true);
        far.Connect(address, nullptr);
        far.SetSockRecvBuf(receive_bytes / 2);  // the kernel doubles it
        while (acceptor.Accept(sock, nullptr) != 0) {
            ::usleep(1000);
        }
        sock.SetSockSendBuf(send_bytes / 2);
        m_far = far.Detach();
        if (!paced) {
            m_reader = std::thread([this] {
                while (read_some(m_bytes.size(), 0) > 0) {
                }
            });
        }
    }
    ~Connection() {
        end();
        ::close(m_far);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Reads what a paced one may have by now.
    void pace() {
        const std::uint64_t now_ns = Bench::nowNs();
        if (m_start_ns == 0) {
            m_start_ns = m_last_ns = now_ns;
        }
        const double percent =
            m_percent == CHANGING ? changingPercent(seconds(now_ns - m_start_ns)) : m_percent;
        const double earned = STREAM_RATE * percent / 100 * seconds(now_ns - m_last_ns);
        m_credit = std::min(m_credit + earned, earned + 3000);  // an idle link saves nothing up
        m_last_ns = now_ns;
        const std::size_t want = std::min(m_bytes.size(), static_cast<std::size_t>(m_credit));
        const ssize_t got = want == 0 ? 0 : read_some(want, MSG_DONTWAIT);
        m_credit -= got > 0 ? static_cast<double>(got) : 0;
    }
    // Nothing is read any more, and the parser may be looked at. Nobody paces it by then.
    void end() {
        ::shutdown(m_far, SHUT_RDWR);
        if (m_reader.joinable()) {
            m_reader.join();
        }
    }

    CSockStream sock;
    Parser parser;

private:
    ssize_t read_some(std::size_t want, int flags) {
        const ssize_t got = ::recv(m_far, m_bytes.data(), want, flags);
        if (got > 0) {
            parser.take(m_bytes.data(), static_cast<std::size_t>(got));
        }
        return got;
    }

    const int m_percent;
    int m_far = -1;
    std::thread m_reader;
    std::vector<char> m_bytes = std::vector<char>(1 << 18);
    double m_credit = 0;
    std::uint64_t m_start_ns = 0;
    std::uint64_t m_last_ns = 0;
};

struct Setting {
    bool simulated;
    int percent;
    std::string mode;  // off, strict, ahead; room: ahead, and it waits for room; one, two: ahead, qualities
};

// One buffer with its slow and its fast viewer.
class Cell {
public:
    Cell(const Setting& setting, const Options& options)
        : m_setting(setting),
          m_scale(setting.simulated ? SIMULATOR_SCALE : 1),
          m_slow_link(!setting.simulated, setting.percent, send_bytes(), receive_bytes()),
          m_fast_link(false, 0, send_bytes(), receive_bytes()) {
        m_simulator.SetRealSocket(&m_slow_link.sock);
        m_simulator.SetBandWidth(static_cast<unsigned>(setting.percent / 5));
        m_slow->Attach(setting.simulated ? static_cast<CSock*>(&m_simulator) : &m_slow_link.sock);
        if (setting.mode != "off") {
            m_slow->SetResumePolicy(options.max_lag_ms,
                                    setting.mode == "strict" ? MediaResume::STRICT : MediaResume::AHEAD);
        }
        m_fast->Attach(&m_fast_link.sock);
        m_fast->SetSendChannel(Bench::PICTURES);
        if (setting.mode == "room") {
            m_owner = Bench::RoomOwner::create(*m_slow, m_slow_link.sock);
            if (m_owner == nullptr) {
                die("wait for room");
            }
        } else if (setting.mode == "two") {
            m_ladder = std::make_unique<Bench::QualityLadder>(*m_slow, options.max_lag_ms, PROMPT_KEYS);
        }
        if (options.auto_send_ms != 0) {
            buffer.EnableAutoSend(options.auto_send_ms);
        }
        buffer.AddSender(m_fast);
        buffer.AddSender(m_slow);
    }
    ~Cell() {
        for (CMediaStreamSender* sender : {m_slow, m_fast}) {
            buffer.DelSender(sender);
            sender->Detach();
            sender->DetachFilter();
        }
        if (m_owner != nullptr) {
            m_owner->end(m_slow_link.sock);
        }
        m_slow->Close();
        m_fast->Close();
    }
    Cell(const Cell&) = delete;
    Cell& operator=(const Cell&) = delete;

    // The low quality of a picture comes first.
    void put(std::uint64_t number) {
        if (m_ladder != nullptr) {
            put(number, Bench::LOW_PICTURES, m_scale / static_cast<double>(Bench::LOW_DIVISOR));
        }
        put(number, Bench::PICTURES, m_scale);
        if (m_ladder != nullptr) {
            m_ladder->look();
        }
        m_samples.push_back({Bench::nowNs(), m_slow->GetStats().bytes, held()});
    }

    void pace() {
        if (!m_setting.simulated) {
            m_slow_link.pace();
        }
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

    void put(std::uint64_t number, int channel, double scale) {
        const bool key = number % GROUP == 0;
        const auto length =
            static_cast<std::uint64_t>(static_cast<double>(key ? KEY_BYTES : OTHER_BYTES) * scale) -
            sizeof(Header);
        const int level = mediaLevel(channel, key ? 1 : 5);
        buffer.Put(new Bench::HeaderPacket<Header>(
                       {length, number, Bench::nowNs(), static_cast<std::uint64_t>(channel)}),
                   sizeof(Header), MEDIA_MARK_MORE, level);
        buffer.Put(&g_payload_packet, static_cast<int>(length), MEDIA_MARK_LAST, level);
    }
    std::uint32_t held() {
        const MediaBufferStats stats = buffer.GetStats();
        return std::max(stats.frames, stats.kept_frames);
    }
    unsigned send_bytes() const { return static_cast<unsigned>(KERNEL_BYTES * m_scale); }
    // Small frames take more room there than they have bytes.
    unsigned receive_bytes() const { return qualities() ? 65536 : 32768; }
    bool qualities() const { return m_setting.mode == "one" || m_setting.mode == "two"; }

    const Setting m_setting;
    const double m_scale;
    Connection m_slow_link;
    Connection m_fast_link;
    CSimulatorStream m_simulator;
    CMediaStreamSender* m_slow = CMediaStreamSender::Create();
    CMediaStreamSender* m_fast = CMediaStreamSender::Create();
    Bench::RoomOwner* m_owner = nullptr;
    std::unique_ptr<Bench::QualityLadder> m_ladder;
    std::vector<Sample> m_samples;
};

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
    std::uint64_t high = 0;     // of the decoded
    std::uint64_t changes = 0;  // of quality
    double first_hole_s = -1;
    std::int64_t last_decoded[2] = {-1, -1};  // of either quality
    std::uint64_t expected = 0;
    std::uint64_t picture_ns = 0;
    bool picture_low = false;

    // Whether it can be decoded: a key frame, or the frame before it could.
    bool follow(const Arrival& arrival) {
        if (arrival.number != expected && first_hole_s < 0) {
            first_hole_s = static_cast<double>(expected) / 25;
        }
        expected = arrival.number + 1;
        const auto number = static_cast<std::int64_t>(arrival.number);
        std::int64_t& last = last_decoded[arrival.low ? 1 : 0];
        const bool decodes = number % GROUP == 0 || last + 1 == number;
        last = decodes ? number : last;
        return decodes;
    }
    void count(const Arrival& arrival, bool decodes, double lag_s) {
        ++delivered;
        decoded += decodes ? 1 : 0;
        lags.push_back(lag_s);
        delays.push_back(seconds(arrival.end_ns - arrival.made_ns));
        if (decodes) {
            high += arrival.low ? 0 : 1;
            changes += picture_ns != 0 && arrival.low != picture_low ? 1 : 0;
            picture_low = arrival.low;
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
    return {
        {"link", m_setting.simulated ? "simulated" : "paced"},
        {"percent", m_setting.percent},
        {"mode", m_setting.mode},
        {"delivered", static_cast<double>(course.delivered) / frames},
        {"decoded", static_cast<double>(course.decoded) / frames},
        {"first_hole_s", course.first_hole_s},
        {"lag_mean_s", mean(course.lags)},
        {"lag_max_s", at(course.lags, 1)},
        {"delay_p50_s", at(course.delays, 0.5)},
        {"delay_p99_s", at(course.delays, 0.99)},
        {"stall_max_s", at(course.gaps, 1)},
        {"high",
         course.decoded != 0 ? static_cast<double>(course.high) / static_cast<double>(course.decoded) : 0},
        {"changes", course.changes},
        {"run", static_cast<double>(course.decoded) / (frames / GROUP)},
        {"held_p50", at(held, 0.5)},
        {"held_max", at(held, 1)},
        {"skips", stats.skips},
        {"holes", stats.holes},
        {"pattern", patternOf(arrivals, (first + end) / 2 / GROUP * GROUP)}};
}

std::vector<Setting> settingsOf(const Options& options) {
    std::vector<Setting> settings;
    for (const bool simulated : {false, true}) {
        for (const char* const mode : {"off", "strict", "ahead", "room"}) {
            if (simulated && std::strcmp(mode, "room") == 0) {
                continue;  // it always has room
            }
            for (const int percent : options.percents) {
                settings.push_back({simulated, percent, mode});
            }
        }
    }
    for (const int percent : {95, 75, 50, 25, CHANGING}) {
        for (const char* const mode : {"one", "two"}) {
            settings.push_back({false, percent, mode});
        }
    }
    return settings;
}

void run(const Options& options) {
    std::vector<std::unique_ptr<Cell>> cells;
    for (const Setting& setting : settingsOf(options)) {
        cells.push_back(std::make_unique<Cell>(setting, options));
    }
    std::atomic<bool> over{false};
    std::thread pacer([&] {
        while (!over) {
            ::usleep(PACE_NS / 1000);
            for (const auto& cell : cells) {
                cell->pace();
            }
        }
    });
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
    over = true;
    pacer.join();
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
