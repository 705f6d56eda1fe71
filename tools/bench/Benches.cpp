// Benches: a server and its load, or a producer with its receivers, in processes of their own.
#include "bench/Benches.h"

#include <sched.h>

#include <algorithm>

#include <nlohmann/json.hpp>

#include "bench/Child.h"

namespace bench {

namespace {

using nlohmann::json;
using Words = std::vector<std::string>;

constexpr double START_s = 20;  ///< Until a server listens, or has ended; only against hangs.
constexpr unsigned PLACES_OF_A_POOL = 4000;
constexpr unsigned FRAME_BYTES = 20000;
constexpr double MESSAGES_A_SECOND = 1000000;

/// The first processor that this process may use, or the last one; -1 if it is the only one.
int processor(bool first) {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    if (::sched_getaffinity(0, sizeof allowed, &allowed) != 0 || CPU_COUNT(&allowed) < 2) {
        return -1;
    }
    int found = -1;
    for (unsigned i = 0; i < CPU_SETSIZE && (found < 0 || !first); ++i) {
        found = CPU_ISSET(i, &allowed) ? static_cast<int>(i) : found;
    }
    return found;
}

bool readFigures(const Bench& bench, const std::string& line, Figures& figures, std::string& wrong) {
    const json all = json::parse(line, nullptr, false);
    for (const Column& column : bench.columns) {
        const json::json_pointer place(std::string("/") + column.from);
        if (all.is_object() && all.contains(place) && all.at(place).is_number()) {
            figures[column.key] = all.at(place).get<double>();
        }
    }
    if (figures.count(bench.columns[0].key) == 0) {
        wrong = "its figures cannot be read";
        return false;
    }
    return true;
}

/// Runs a part to its end, and reads the line that it prints.
bool runToEnd(const Bench& bench, const std::string& program, const Words& words, int on, double seconds,
              Figures& figures, std::string& wrong) {
    Child part;
    std::string line;
    if (!part.start(program, words, on, wrong)) {
        return false;
    }
    if (!part.readLine(line, 60 + 20 * seconds)) {
        wrong = program + " printed no figures";
        return false;
    }
    return part.end(false, START_s, wrong) && readFigures(bench, line, figures, wrong);
}

struct Scene {
    Words server;
    std::string load;
    Words words;  ///< Of the load, without the server's port and number.
    int server_on = -1;
    int load_on = -1;
};

bool serveAndLoad(const Bench& bench, const Contender& contender, const Scene& scene, double seconds,
                  Figures& figures, std::string& wrong) {
    Child server;
    std::string line;
    if (!server.start(contender.program, scene.server, scene.server_on, wrong)) {
        return false;
    }
    if (!server.readLine(line, START_s) || line.rfind("port ", 0) != 0) {
        wrong = std::string(contender.program) + " does not listen";
        return false;
    }
    Words words{"--port", line.substr(5), "--server-pid", std::to_string(server.pid())};
    words.insert(words.end(), scene.words.begin(), scene.words.end());
    return runToEnd(bench, scene.load, words, scene.load_on, seconds, figures, wrong) &&
           server.end(true, START_s, wrong);
}

bool measureEcho(const Bench& bench, const Contender& contender, const Settings& settings, Figures& figures,
                 std::string& wrong) {
    Scene scene;
    const unsigned pools = (settings.clients + PLACES_OF_A_POOL - 1) / PLACES_OF_A_POOL;
    scene.server = {"--threads", std::to_string(settings.threads), "--pools",
                    std::to_string(pools > 1 ? pools : 0)};
    scene.load = "echo_load";
    scene.words = {"--connections", std::to_string(settings.clients),
                   "--seconds",     std::to_string(settings.seconds),
                   "--warm-up",     std::to_string(std::min(0.5, settings.seconds / 4))};
    return serveAndLoad(bench, contender, scene, settings.seconds, figures, wrong);
}

bool measureFanout(const Bench& bench, const Contender& contender, const Settings& settings, Figures& figures,
                   std::string& wrong) {
    Scene scene;
    const Words stream{"--frame-bytes", std::to_string(FRAME_BYTES), "--gop", "25"};
    scene.server = stream;
    scene.server.insert(scene.server.end(), {"--fps", "25"});
    scene.load = "fanout_load";
    scene.words = stream;
    // Each client begins at a key frame, of which there is one a second.
    scene.words.insert(scene.words.end(), {"--fast", std::to_string(settings.clients), "--warm-up", "1.2",
                                           "--seconds", std::to_string(settings.seconds)});
    scene.server_on = processor(true);
    scene.load_on = processor(false);
    return serveAndLoad(bench, contender, scene, settings.seconds, figures, wrong);
}

uint64_t messagesOf(const Settings& settings) {
    return std::max<uint64_t>(1000, static_cast<uint64_t>(settings.seconds * MESSAGES_A_SECOND));
}

bool measureMessages(const Bench& bench, const Contender& contender, const Settings& settings,
                     Figures& figures, std::string& wrong) {
    const uint64_t messages = messagesOf(settings);
    const Words words{"--threads",   std::to_string(settings.threads),
                      "--receivers", std::to_string(settings.clients),
                      "--messages",  std::to_string(messages),
                      "--burst",     std::to_string(std::min<uint64_t>(messages, 100000)),
                      "--bursts",    "5"};
    return runToEnd(bench, contender.program, words, -1, settings.seconds, figures, wrong);
}

std::string echoScene(const Settings& settings) {
    return std::to_string(settings.clients) + " clients, 64 bytes there and back, each sends the next " +
           "request when it has its answer; " + std::to_string(settings.threads) + " threads";
}

std::string fanoutScene(const Settings& settings) {
    return "one stream of 25 frames a second of " + std::to_string(FRAME_BYTES) + " bytes to " +
           std::to_string(settings.clients) + " clients; 1 thread";
}

std::string messageScene(const Settings& settings) {
    return std::to_string(messagesOf(settings)) + " messages of one producer to " +
           std::to_string(settings.clients) + " receivers in turn; " + std::to_string(settings.threads) +
           " threads";
}

}  // namespace

const std::vector<Bench>& allBenches() {
    static const std::vector<Bench> all{
        {"echo",
         "requests and answers of clients, every byte compared",
         64,
         20000,
         &echoContenders,
         {{"requests_per_s", "requests_per_s", "requests/s", true},
          {"p50_us", "p50_us", "p50 us", false},
          {"p99_us", "p99_us", "p99 us", false},
          {"cpu_us_per_request", "server_cpu_us_per_request", "cpu us/request", false}},
         &measureEcho,
         &echoScene},
        {"fanout",
         "one live stream to many clients, every byte compared",
         100,
         4000,
         &fanoutContenders,
         {{"cpu_us_per_frame", "server_cpu_us_per_frame", "cpu us/frame", false},
          {"frames_per_s", "frames_per_s", "frames/s", true},
          {"delay_p50_us", "fast/p50_us", "delay p50 us", false},
          {"delay_p99_us", "fast/p99_us", "delay p99 us", false}},
         &measureFanout,
         &fanoutScene},
        {"messages",
         "messages of one producer to receivers on a pool, each seen to come once",
         1000,
         100000,
         &messageContenders,
         {{"ns_per_message", "stream/ns_per_message", "ns/message", false},
          {"cpu_ns_per_message", "stream/cpu_ns_per_message", "cpu ns/message", false},
          {"serial_ns_per_message", "serial/ns_per_message", "ns/serial one", false},
          {"first_us", "burst/first_us", "first us", false}},
         &measureMessages,
         &messageScene},
    };
    return all;
}

}  // namespace bench
