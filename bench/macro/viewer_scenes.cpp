// What late viewers get by each rule, in virtual time, over some hundred scenes of streams and links: from a
// plain model, and from the library, whose clock and socket are the scene's.
//
//   viewer_scenes [--check] [--kind NAME]
//
// Prints a JSON list with an object for each scene. With --check it prints what is not as it should be
// instead, and where library and model do not agree, and fails if there is anything.
#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include <Reticor/Reticor.h>

#include "common/FramePackets.h"
#include "common/QualityLadder.h"
#include "common/ViewerModel.h"

using namespace Bench;
using namespace Orvex::Reticor;
using nlohmann::json;

namespace {

// What is compared. The last column is the policy as it is, the one before it the same without regard to
// what can be left out, the third one that with frames that grow old by ticks.
struct Column {
    const char* name;
    ViewerPolicy policy;
};

constexpr Column COLUMNS[] = {
    {"off", {LateRule::NONE, false, false}},   {"strict", {LateRule::STRICT, false, false}},
    {"aged", {LateRule::AHEAD, false, false}}, {"plain", {LateRule::AHEAD, true, false}},
    {"policy", {LateRule::AHEAD, true, true}},
};
constexpr std::size_t OFF = 0, STRICT = 1, AGED = 2, POLICY = 4;

// The library has no frames that grow old for who steps ahead.
bool libraryHas(const Column& column) {
    return column.policy.rule != LateRule::AHEAD || column.policy.keep;
}

struct Row {
    ViewerScene scene;
    std::vector<ViewerFigures> by_column;  // of the model
    std::vector<ViewerFigures> library;
    // With two qualities, and the policy as it is.
    ViewerFigures ladder;
    ViewerFigures library_ladder;
};

// What stands before the C library's functions for this thread, while a scene is played.
struct Stage {
    bool plays = false;
    std::int64_t now_us = 0;
    int socket = -1;
    class LibraryViewer* viewer = nullptr;
};
thread_local Stage t_stage;

struct Header {
    std::uint32_t frame;
    std::uint32_t bytes;  // of the frame, this included
};

// A buffer of the library with one viewer, whose socket is the scene's link.
class LibraryViewer {
public:
    LibraryViewer(const ViewerScene& scene, const ViewerPolicy& policy)
        : m_scene(scene), m_stream(streamOf(scene)), m_link(scene, rateOf(scene, m_stream)) {
        int ends[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) {
            std::perror("socketpair");
            std::exit(1);
        }
        m_far = ends[1];
        m_sock.Attach(ends[0]);
        // Time begins late enough that no age is before its beginning.
        t_stage = {true, START_US, ends[0], this};
        m_sender->Attach(&m_sock);
        if (policy.rule != LateRule::NONE) {
            m_sender->SetResumePolicy(
                scene.max_lag_ms, policy.rule == LateRule::AHEAD ? MediaResume::AHEAD : MediaResume::STRICT,
                scene.hard_lag_ms);
        }
        m_buffer.SetDisposableLevel(policy.layers ? LEVEL_LAYER : 0);
        if (scene.two_qualities) {
            m_ladder = std::make_unique<QualityLadder>(*m_sender, scene.max_lag_ms, scene.prompt_keys);
        }
        if (scene.start_cache) {
            m_buffer.SetStartCache(15000, 1 << 26);
        }
        come(0);
    }
    ~LibraryViewer() {
        m_buffer.DelSender(m_sender);
        m_sender->Detach();
        m_sender->DetachFilter();
        m_sender->Close();
        m_sock.Close();
        ::close(m_far);
        t_stage = Stage();
    }
    LibraryViewer(const LibraryViewer&) = delete;
    LibraryViewer& operator=(const LibraryViewer&) = delete;

    ViewerFigures play();
    // What has arrived, the times being those of the scene.
    const std::vector<FrameArrival>& arrivals() const { return m_link.arrivals; }
    const StreamFrame& frame(const FrameArrival& arrival) const { return m_stream[arrival.frame]; }

    // What sendmsg is here.
    ssize_t take(const iovec* pieces, std::size_t count) {
        std::size_t taken = 0;
        for (std::size_t i = 0; i < count; ++i) {
            const std::size_t part = std::min(pieces[i].iov_len, m_link.room());
            read(static_cast<const char*>(pieces[i].iov_base), part);
            taken += part;
            if (part < pieces[i].iov_len) {
                break;
            }
        }
        if (taken == 0) {
            errno = EAGAIN;
            return -1;
        }
        return static_cast<ssize_t>(taken);
    }

private:
    static constexpr std::int64_t START_US = 1000000000;

    // Before what happens at this time.
    void come(std::int64_t now_us) {
        const auto comes_us = static_cast<std::int64_t>(m_scene.comes_s * 1e6);
        if (!m_came && comes_us <= now_us) {
            m_came = true;
            t_stage.now_us = START_US + comes_us;
            m_link.advance(comes_us);
            m_buffer.AddSender(m_sender);
        }
    }

    void put(std::size_t index) {
        const StreamFrame& frame = m_stream[index];
        const int level = mediaLevel(frame.channel, frame.level);
        const Header header = {static_cast<std::uint32_t>(index), static_cast<std::uint32_t>(frame.bytes)};
        m_buffer.Put(new Bench::HeaderPacket<Header>(header), sizeof header, MEDIA_MARK_MORE, level);
        m_buffer.Put(&m_payload, static_cast<int>(frame.bytes - sizeof header), MEDIA_MARK_LAST, level);
    }

    // Bytes of frames, one after another.
    void read(const char* bytes, std::size_t length) {
        m_link.take(length);
        for (std::size_t part = 0; length > 0; bytes += part, length -= part) {
            part = std::min(length, (m_at < sizeof m_header ? sizeof m_header : m_header.bytes) - m_at);
            if (m_at < sizeof m_header) {
                std::memcpy(reinterpret_cast<char*>(&m_header) + m_at, bytes, part);
            }
            m_at += part;
            if (m_at >= sizeof m_header && m_at == m_header.bytes) {
                m_link.ends(m_header.frame);
                m_at = 0;
            }
        }
    }

    const ViewerScene& m_scene;
    const std::vector<StreamFrame> m_stream;
    ViewerLink m_link;
    std::vector<char> m_bytes = std::vector<char>(1000000);
    Bench::PayloadPacket m_payload{m_bytes.data()};
    Header m_header{};
    std::size_t m_at = 0;
    bool m_came = false;
    int m_far = -1;
    CSockStream m_sock;
    CMediaStreamSender* const m_sender = CMediaStreamSender::Create();
    CMediaBuffer m_buffer;
    std::unique_ptr<QualityLadder> m_ladder;
};

ViewerFigures LibraryViewer::play() {
    double most = 0;
    std::int64_t next_tick_us = m_scene.auto_send_ms * 1000;
    std::size_t next = 0;
    while (next < m_stream.size()) {
        const bool ticks = m_scene.auto_send_ms != 0 && next_tick_us < m_stream[next].made_us;
        const std::int64_t now_us = ticks ? next_tick_us : m_stream[next].made_us;
        come(now_us);
        t_stage.now_us = START_US + now_us;
        m_link.advance(now_us);
        if (ticks) {
            next_tick_us += m_scene.auto_send_ms * 1000;
            m_buffer.do_send();
        } else {
            put(next++);
        }
        if (m_ladder != nullptr) {
            m_ladder->look();
        }
        const MediaBufferStats stats = m_buffer.GetStats();
        most = std::max(most, static_cast<double>(std::max(stats.bytes, stats.kept_bytes)));
    }
    m_link.advance(m_stream.back().made_us + 60000000);
    ViewerFigures figures = figuresOf(m_scene, m_stream, m_link.arrivals);
    figures.held_bytes = most;
    return figures;
}

json toJson(const ViewerFigures& figures) {
    return {
        {"shown", figures.shown},         {"freeze_s", figures.freeze_s}, {"lag_p50_s", figures.lag_p50_s},
        {"lag_p99_s", figures.lag_p99_s}, {"step_s", figures.step_s},     {"in_time", figures.in_time},
        {"waste", figures.waste},         {"sound", figures.sound},       {"held_bytes", figures.held_bytes},
        {"high", figures.high},           {"changes", figures.changes}};
}

// Whether the frames that others need, alone on the link, are never later than the limit.
bool carriesTheRest(const ViewerScene& scene) {
    const std::vector<StreamFrame> stream = streamOf(scene);
    const double rate = rateOf(scene, stream) * scene.percent / 100;
    double free_s = 0;  // from when on the link is free
    for (const StreamFrame& frame : stream) {
        const double made_s = static_cast<double>(frame.made_us) / 1e6;
        if (!frame.disposable) {
            if (free_s - made_s > scene.max_lag_ms / 1000.0) {
                return false;
            }
            free_s = std::max(free_s, made_s) + static_cast<double>(frame.bytes) / rate;
        }
    }
    return scene.outage_s == 0;
}

// The viewer of a scene with sound without it, on a link that has the sound's bytes less.
ViewerFigures withoutSound(const ViewerScene& scene) {
    ViewerScene silent = scene;
    silent.sound = false;
    const double all = rateOf(scene, streamOf(scene));
    const double pictures = rateOf(silent, streamOf(silent));
    silent.percent = 100 * (scene.percent / 100 * all - (all - pictures)) / pictures;
    return modelViewer(silent, COLUMNS[POLICY].policy).figures;
}

json toJson(const Row& row) {
    json found = {{"kind", row.scene.kind},
                  {"group_s", row.scene.group_s},
                  {"fps", row.scene.fps},
                  {"key_bytes", row.scene.key_bytes},
                  {"layered", row.scene.layered},
                  {"with_sound", row.scene.sound},
                  {"percent", row.scene.percent},
                  {"outage_s", row.scene.outage_s},
                  {"kernel_bytes", row.scene.kernel_bytes},
                  {"auto_send_ms", row.scene.auto_send_ms},
                  {"max_lag_ms", row.scene.max_lag_ms},
                  {"prompt_keys", row.scene.prompt_keys}};
    for (std::size_t i = 0; i < row.by_column.size(); ++i) {
        found["model"][COLUMNS[i].name] = toJson(row.by_column[i]);
        if (libraryHas(COLUMNS[i])) {
            found["library"][COLUMNS[i].name] = toJson(row.library[i]);
        }
    }
    found["hard_lag_ms"] = row.scene.hard_lag_ms;
    found["changing"] = !row.scene.changes.empty();
    if (row.scene.layered) {
        found["carries_the_rest"] = carriesTheRest(row.scene);
    }
    if (row.scene.sound) {
        found["model"]["silent"] = toJson(withoutSound(row.scene));
    }
    if (row.scene.two_qualities) {
        found["model"]["ladder"] = toJson(row.ladder);
        found["library"]["ladder"] = toJson(row.library_ladder);
    }
    return found;
}

std::string nameOf(const ViewerScene& scene) {
    char name[160];
    std::snprintf(name, sizeof name,
                  "%s: group %g s, %d/s, key %zu, kernel %zu, auto-send %d, limit %u, link %g %%",
                  scene.kind.c_str(), scene.group_s, scene.fps, scene.key_bytes, scene.kernel_bytes,
                  scene.auto_send_ms, scene.max_lag_ms, scene.percent);
    return name;
}

class Check {
public:
    // Prints and counts it if `figure` is above `most`.
    void atMost(const Row& row, const char* what, double figure, double most) {
        if (figure > most + 1e-9) {
            std::printf("%s: %s %.3f, not %.3f\n", nameOf(row.scene).c_str(), what, figure, most);
            ++m_count;
        }
    }
    int count() const { return m_count; }

private:
    int m_count = 0;
};

constexpr double SHARE_SLACK = 0.02;
constexpr double FREEZE_SLACK_S = 0.1;

constexpr double SOUND_SLACK = 0.01;

// Who gives up sound has more for the picture.
void checkAgainst(Check& check, const Row& row, std::size_t column) {
    const ViewerFigures& own = row.by_column[POLICY];
    const ViewerFigures& other = row.by_column[column];
    if (other.sound < 1 - SOUND_SLACK) {
        return;
    }
    const std::string name = COLUMNS[column].name;
    check.atMost(row, ("share missed against " + name).c_str(), other.shown - own.shown, SHARE_SLACK);
    check.atMost(row, ("freeze against " + name).c_str(), own.freeze_s, other.freeze_s + FREEZE_SLACK_S);
}

// Without disposable frames: as good as the other columns.
void checkPlain(Check& check, const Row& row) {
    checkAgainst(check, row, STRICT);
    checkAgainst(check, row, AGED);
    const double in_time_s = row.scene.max_lag_ms / 1000.0 + 0.5;
    if (row.scene.outage_s == 0 && row.by_column[OFF].lag_p99_s <= in_time_s) {
        checkAgainst(check, row, OFF);
    }
}

// With them: steady. On a quarter of the rate a picture a second is what comes, whatever is left out.
void checkLayered(Check& check, const Row& row) {
    const ViewerFigures& own = row.by_column[POLICY];
    double best_lag_s = 1e9;
    for (const ViewerFigures& other : row.by_column) {
        check.atMost(row, "freeze", own.freeze_s, other.freeze_s + FREEZE_SLACK_S);
        // Little lag is not an art for those who freeze instead.
        if (other.freeze_s <= own.freeze_s + FREEZE_SLACK_S) {
            best_lag_s = std::min(best_lag_s, other.lag_p99_s);
        }
    }
    if (row.scene.percent >= 50) {
        check.atMost(row, "lag p99", own.lag_p99_s, best_lag_s + 0.5);
    }
    if (carriesTheRest(row.scene)) {
        check.atMost(row, "step", own.step_s, 0.1);
    }
}

// Sound goes through, and the picture is as on a link that is without the sound, and without its bytes.
void checkSound(Check& check, const Row& row) {
    const ViewerFigures& own = row.by_column[POLICY];
    const ViewerFigures without = withoutSound(row.scene);
    ViewerScene silent = row.scene;
    silent.sound = false;
    const double all = rateOf(row.scene, streamOf(row.scene));
    const double pictures = rateOf(silent, streamOf(silent));
    check.atMost(row, "sound missed", 1 - own.sound, SOUND_SLACK);
    check.atMost(row, "share against no sound", std::abs(without.shown - own.shown), 0.02);
    // The sound of what is stepped over goes first.
    const double sound_s = own.step_s * (all - pictures) / (all * row.scene.percent / 100);
    check.atMost(row, "freeze against no sound", own.freeze_s,
                 without.freeze_s + std::max(sound_s, row.scene.group_s == 2 ? 0.1 : 0.4));
}

// The library does what the model does.
void checkSame(Check& check, const Row& row, const std::string& name, const ViewerFigures& model,
               const ViewerFigures& library) {
    const auto differ = [&](const char* what, double one, double other, double most) {
        check.atMost(row, (name + ": " + what + ", library and model").c_str(), std::abs(one - other), most);
    };
    differ("share", library.shown, model.shown, 0.01);
    differ("freeze", library.freeze_s, model.freeze_s, 0.15);
    differ("lag p99", library.lag_p99_s, model.lag_p99_s, 0.15);
    differ("high quality", library.high, model.high, 0.01);
    differ("changes", library.changes, model.changes, 2);
}

void checkLibrary(Check& check, const Row& row) {
    for (std::size_t i = 0; i < row.by_column.size(); ++i) {
        if (libraryHas(COLUMNS[i])) {
            checkSame(check, row, COLUMNS[i].name, row.by_column[i], row.library[i]);
        }
    }
    if (row.scene.two_qualities) {
        checkSame(check, row, "two qualities", row.ladder, row.library_ladder);
    }
}

void check(Check& check, const Row& row) {
    checkLibrary(check, row);
    if (row.scene.hard_lag_ms != 0) {
        return;  // Whoever wants that prefers a freeze.
    }
    row.scene.layered ? checkLayered(check, row) : checkPlain(check, row);
    if (row.scene.sound) {
        checkSound(check, row);
    }
    check.atMost(row, "waste", row.by_column[POLICY].waste, 0);
}

Row play(const ViewerScene& scene) {
    Row row{scene, {}, {}, {}, {}};
    ViewerScene one = scene;
    one.two_qualities = false;
    for (const Column& column : COLUMNS) {
        row.by_column.push_back(modelViewer(one, column.policy).figures);
        row.library.push_back(libraryHas(column) ? LibraryViewer(one, column.policy).play()
                                                 : ViewerFigures());
    }
    if (scene.two_qualities) {
        ModelLadder ladder(scene.max_lag_ms, scene.prompt_keys);
        row.ladder = modelViewer(scene, COLUMNS[POLICY].policy, &ladder).figures;
        row.library_ladder = LibraryViewer(scene, COLUMNS[POLICY].policy).play();
    }
    return row;
}

double meanOf(const std::vector<double>& values) {
    double sum = 0;
    for (const double value : values) {
        sum += value;
    }
    return values.empty() ? -1 : sum / static_cast<double>(values.size());
}

// How long a viewer waits for its first picture, and until it is live, that is until a picture arrives
// within two frame times. It comes at ten places of a group, half a frame after the last one.
json coming(double group_s, double percent, bool start_cache) {
    std::vector<double> first_s, live_s;
    for (int i = 0; i < 10; ++i) {
        ViewerScene scene;
        scene.group_s = group_s;
        scene.percent = percent;
        scene.start_cache = start_cache;
        scene.comes_s = 20.02 + std::floor(group_s * 25 * (i + 0.5) / 10) / 25;
        scene.seconds = 90;
        LibraryViewer viewer(scene, COLUMNS[POLICY].policy);
        viewer.play();
        for (const FrameArrival& arrival : viewer.arrivals()) {
            const std::int64_t lag_us = arrival.at_us - viewer.frame(arrival).made_us;
            const double since_s = static_cast<double>(arrival.at_us) / 1e6 - scene.comes_s;
            if (&arrival == &viewer.arrivals().front()) {
                first_s.push_back(since_s);
            }
            if (lag_us <= 2 * 1000000 / scene.fps) {
                live_s.push_back(since_s);
                break;
            }
        }
    }
    json row = {{"kind", "coming"},
                {"group_s", group_s},
                {"percent", percent},
                {"start_cache", start_cache},
                {"first_mean_s", meanOf(first_s)},
                {"first_worst_s", *std::max_element(first_s.begin(), first_s.end())}};
    if (live_s.size() == first_s.size()) {
        row["live_mean_s"] = meanOf(live_s);
        row["live_worst_s"] = *std::max_element(live_s.begin(), live_s.end());
    }
    return row;
}

void comings(json& rows) {
    for (const double group_s : {2.0, 10.0}) {
        for (const double percent : {50.0, 95.0, 120.0, 150.0, 200.0, 300.0, 1000.0}) {
            for (const bool start_cache : {false, true}) {
                rows.push_back(coming(group_s, percent, start_cache));
            }
        }
    }
}

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
    if (clock == CLOCK_MONOTONIC && t_stage.plays) {
        now->tv_sec = static_cast<time_t>(t_stage.now_us / 1000000);
        now->tv_nsec = static_cast<long>(t_stage.now_us % 1000000 * 1000);
        return 0;
    }
    static auto* const real =
        reinterpret_cast<decltype(::clock_gettime)*>(::dlsym(RTLD_NEXT, "clock_gettime"));
    return real(clock, now);
}

extern "C" ssize_t sendmsg(int socket, const msghdr* message, int flags) {
    if (t_stage.plays && socket == t_stage.socket) {
        return t_stage.viewer->take(message->msg_iov, message->msg_iovlen);
    }
    static auto* const real = reinterpret_cast<decltype(::sendmsg)*>(::dlsym(RTLD_NEXT, "sendmsg"));
    return real(socket, message, flags);
}

int main(int argc, char** argv) {
    bool checking = false;
    std::string kind;
    CLI::App app{"What late viewers get by each rule"};
    app.add_flag("--check", checking, "prints what is not as it should be");
    app.add_option("--kind", kind, "scenes of this kind only");
    CLI11_PARSE(app, argc, argv);
    if (CreateThreadPool(2, 0) != 0) {
        return 1;
    }
    Check found;
    json rows = json::array();
    for (const ViewerScene& scene : viewerScenes()) {
        if (!kind.empty() && scene.kind != kind) {
            continue;
        }
        const Row row = play(scene);
        if (checking) {
            check(found, row);
        } else {
            rows.push_back(toJson(row));
        }
    }
    if (!checking) {
        if (kind.empty() || kind == "coming") {
            comings(rows);
        }
        std::puts(rows.dump().c_str());
    }
    DestroyThreadPool();
    return found.count() != 0 ? 1 : 0;
}
