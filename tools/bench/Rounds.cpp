// Rounds: one contender after the other.
#include "bench/Rounds.h"

#include <sched.h>
#include <stdlib.h>
#include <sys/utsname.h>

#include <algorithm>
#include <fstream>

namespace bench {

namespace {

double loadNow() {
    double load = 0;
    return ::getloadavg(&load, 1) == 1 ? load : 0;
}

Machine lookAtMachine() {
    Machine machine;
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    machine.processors = ::sched_getaffinity(0, sizeof allowed, &allowed) == 0
                             ? static_cast<unsigned>(CPU_COUNT(&allowed))
                             : 1;
    machine.load_before = loadNow();
    utsname system{};
    machine.kernel = ::uname(&system) == 0 ? system.release : "";
    std::ifstream processors("/proc/cpuinfo");
    for (std::string line; machine.model.empty() && std::getline(processors, line);) {
        if (line.rfind("model name", 0) == 0 && line.find(": ") != std::string::npos) {
            machine.model = line.substr(line.find(": ") + 2);
        }
    }
    return machine;
}

}  // namespace

Spread Spread::of(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    const double median = values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
    return {median, values.front(), values.back()};
}

bool Outcome::spread(const Column& column, Spread& found) const {
    std::vector<double> values;
    for (const Figures& figures : rounds) {
        if (const auto value = figures.find(column.key); value != figures.end()) {
            values.push_back(value->second);
        }
    }
    if (values.empty()) {
        return false;
    }
    found = Spread::of(values);
    return true;
}

bool measure(const Bench& bench, const Settings& settings, Result& result, std::string& wrong) {
    result.machine = lookAtMachine();
    for (const Contender& contender : bench.contenders()) {
        result.outcomes.push_back({contender, {}});
    }
    const size_t count = result.outcomes.size();
    for (unsigned round = 0; round < settings.rounds; ++round) {
        for (size_t turn = 0; turn < count; ++turn) {
            Outcome& outcome = result.outcomes[(turn + round) % count];
            Figures figures;
            if (!outcome.contender.is_built_in()) {
                continue;
            }
            if (!bench.measure(bench, outcome.contender, settings, figures, wrong)) {
                wrong = std::string(outcome.contender.name) + ": " + wrong;
                return false;
            }
            outcome.rounds.push_back(figures);
        }
    }
    result.machine.load_after = loadNow();
    return true;
}

const Outcome* bestPeer(const Bench& bench, const Result& result) {
    const Column& column = bench.columns[0];
    const Outcome* best = nullptr;
    Spread found;
    Spread highest;
    for (const Outcome& outcome : result.outcomes) {
        if (!outcome.contender.is_peer || !outcome.spread(column, found)) {
            continue;
        }
        if (best == nullptr ||
            (column.more_is_better ? found.median > highest.median : found.median < highest.median)) {
            best = &outcome;
            highest = found;
        }
    }
    return best;
}

}  // namespace bench
