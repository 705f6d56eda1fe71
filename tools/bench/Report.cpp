// Report: a table with medians, what they scattered by, and ratios.
#include "bench/Report.h"

#include <algorithm>
#include <cstdio>

#include <nlohmann/json.hpp>

namespace bench {

namespace {

constexpr int NAME_WIDTH = 16;
constexpr int FIGURE_WIDTH = 15;
constexpr int SPREAD_WIDTH = 20;

std::string padded(const std::string& text, int width) {
    const auto wanted = static_cast<size_t>(std::max(width, -width));
    const std::string blanks(wanted > text.size() ? wanted - text.size() : 0, ' ');
    return width < 0 ? text + blanks : blanks + text;
}

/// Three or four figures that count.
std::string number(double value) {
    char room[64];
    std::snprintf(room, sizeof room, value < 10 ? "%.2f" : value < 1000 ? "%.1f" : "%.0f", value);
    return room;
}

std::string seconds(double value) {
    char room[64];
    std::snprintf(room, sizeof room, "%g", value);
    return room;
}

/// Of medians, in the first column: above 1 is better, whichever way that counts.
bool ratio(const Column& column, const Outcome& outcome, const Outcome* best, double& found) {
    Spread own;
    Spread other;
    if (best == nullptr || !outcome.spread(column, own) || !best->spread(column, other)) {
        return false;
    }
    const double above = column.more_is_better ? own.median : other.median;
    const double below = column.more_is_better ? other.median : own.median;
    found = below > 0 ? above / below : 0;
    return below > 0;
}

std::string headLine(const Bench& bench) {
    std::string line = padded("", -NAME_WIDTH) + padded(bench.columns[0].head, FIGURE_WIDTH) +
                       padded("least to most", SPREAD_WIDTH) + padded("ratio", 7);
    for (size_t i = 1; i < bench.columns.size(); ++i) {
        line += padded(bench.columns[i].head, FIGURE_WIDTH);
    }
    return line + "\n";
}

std::string outcomeLine(const Bench& bench, const Outcome& outcome, const Outcome* best) {
    std::string line = padded(outcome.contender.name, -NAME_WIDTH);
    Spread first;
    if (!outcome.spread(bench.columns[0], first)) {
        return line + "  not built in\n";
    }
    double found = 0;
    const bool has_ratio = ratio(bench.columns[0], outcome, best, found);
    line += padded(number(first.median), FIGURE_WIDTH) +
            padded(number(first.least) + " to " + number(first.most), SPREAD_WIDTH) +
            padded(has_ratio ? number(found) : "-", 7);
    for (size_t i = 1; i < bench.columns.size(); ++i) {
        Spread spread;
        line += padded(outcome.spread(bench.columns[i], spread) ? number(spread.median) : "-", FIGURE_WIDTH);
    }
    return line + "\n";
}

std::string machineText(const Machine& machine) {
    std::string text =
        std::to_string(machine.processors) + (machine.processors == 1 ? " processor" : " processors") +
        (machine.model.empty() ? "" : " (" + machine.model + ")") + ", Linux " + machine.kernel + ", load " +
        number(machine.load_before) + " before and " + number(machine.load_after) + " after\n";
    if (machine.load_before > 0.5) {
        text +=
            "something else ran on this machine: the figures are worth little, the ratios somewhat more\n";
    }
    return text;
}

}  // namespace

std::string reportText(const Bench& bench, const Settings& settings, const Result& result) {
    const Outcome* const best = bestPeer(bench, result);
    std::string text = std::string(bench.name) + ": " + bench.scene(settings) + "\n" +
                       machineText(result.machine) + "medians of " + std::to_string(settings.rounds) +
                       (settings.rounds == 1 ? " round" : " rounds") + " of " + seconds(settings.seconds) +
                       " s, in which all take turns; servers and loads share the processors\n\n" +
                       headLine(bench);
    for (const Outcome& outcome : result.outcomes) {
        text += outcomeLine(bench, outcome, best);
    }
    if (best == nullptr) {
        return text + "\nno peer is built in\n";
    }
    return text + "\nratio: to the best peer, " + best->contender.name + ", by " + bench.columns[0].head +
           "; above 1 is better\n";
}

std::string reportJson(const Bench& bench, const Settings& settings, const Result& result) {
    using nlohmann::json;
    const Outcome* const best = bestPeer(bench, result);
    json rows = json::array();
    for (const Outcome& outcome : result.outcomes) {
        json row{{"name", outcome.contender.name},
                 {"peer", outcome.contender.is_peer},
                 {"built_in", outcome.contender.is_built_in()}};
        for (const Column& column : bench.columns) {
            Spread spread;
            if (outcome.spread(column, spread)) {
                row["figures"][column.key] = {
                    {"median", spread.median}, {"least", spread.least}, {"most", spread.most}};
            }
        }
        double found = 0;
        if (ratio(bench.columns[0], outcome, best, found)) {
            row["ratio"] = found;
        }
        rows.push_back(row);
    }
    const Machine& machine = result.machine;
    json all{{"bench", bench.name},
             {"clients", settings.clients},
             {"seconds", settings.seconds},
             {"rounds", settings.rounds},
             {"threads", settings.threads},
             {"ratio_of", bench.columns[0].key},
             {"machine",
              {{"processors", machine.processors},
               {"model", machine.model},
               {"kernel", machine.kernel},
               {"load_before", machine.load_before},
               {"load_after", machine.load_after}}},
             {"rows", rows}};
    all["best_peer"] = best != nullptr ? json(best->contender.name) : json();
    return all.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

std::string listText() {
    std::string text;
    for (const Bench& bench : allBenches()) {
        text += padded(bench.name, -10) + bench.what + "\n";
        for (const Contender& contender : bench.contenders()) {
            text += padded("", -10) + padded(contender.name, -NAME_WIDTH) +
                    (contender.is_built_in() ? "built in" : "not built in") + "\n";
        }
    }
    return text;
}

}  // namespace bench
