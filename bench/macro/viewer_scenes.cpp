// What late viewers get by each rule, in virtual time, over some hundred scenes of streams and links.
//
//   viewer_scenes [--check]
//
// Prints a JSON list with an object for each scene. With --check it prints what is not as it should be
// instead, and fails if there is anything.
#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "common/ViewerModel.h"

using namespace Bench;
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

struct Row {
    ViewerScene scene;
    std::vector<ViewerFigures> by_column;
};

json toJson(const ViewerFigures& figures) {
    return {
        {"shown", figures.shown},         {"freeze_s", figures.freeze_s}, {"lag_p50_s", figures.lag_p50_s},
        {"lag_p99_s", figures.lag_p99_s}, {"step_s", figures.step_s},     {"in_time", figures.in_time},
        {"waste", figures.waste},         {"sound", figures.sound},       {"held_bytes", figures.held_bytes}};
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
                  {"max_lag_ms", row.scene.max_lag_ms}};
    for (std::size_t i = 0; i < row.by_column.size(); ++i) {
        found["columns"][COLUMNS[i].name] = toJson(row.by_column[i]);
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
    ViewerScene silent = row.scene;
    silent.sound = false;
    const double all = rateOf(row.scene, streamOf(row.scene));
    const double pictures = rateOf(silent, streamOf(silent));
    silent.percent = 100 * (row.scene.percent / 100 * all - (all - pictures)) / pictures;
    const ViewerFigures without = modelViewer(silent, COLUMNS[POLICY].policy).figures;
    check.atMost(row, "sound missed", 1 - own.sound, SOUND_SLACK);
    check.atMost(row, "share against no sound", std::abs(without.shown - own.shown), 0.02);
    // The sound of what is stepped over goes first.
    const double sound_s = own.step_s * (all - pictures) / (all * row.scene.percent / 100);
    check.atMost(row, "freeze against no sound", own.freeze_s,
                 without.freeze_s + std::max(sound_s, row.scene.group_s == 2 ? 0.1 : 0.4));
}

void check(Check& check, const Row& row) {
    row.scene.layered ? checkLayered(check, row) : checkPlain(check, row);
    if (row.scene.sound) {
        checkSound(check, row);
    }
    check.atMost(row, "waste", row.by_column[POLICY].waste, 0);
}

}  // namespace

int main(int argc, char** argv) {
    bool checking = false;
    CLI::App app{"What late viewers get by each rule"};
    app.add_flag("--check", checking, "prints what is not as it should be");
    CLI11_PARSE(app, argc, argv);
    Check found;
    json rows = json::array();
    for (const ViewerScene& scene : viewerScenes()) {
        Row row{scene, {}};
        for (const Column& column : COLUMNS) {
            row.by_column.push_back(modelViewer(scene, column.policy).figures);
        }
        if (checking) {
            check(found, row);
        } else {
            rows.push_back(toJson(row));
        }
    }
    if (!checking) {
        std::puts(rows.dump().c_str());
    }
    return found.count() != 0 ? 1 : 0;
}
