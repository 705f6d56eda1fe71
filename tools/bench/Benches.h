// Benches: what is measured, and by which figures it is told.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "bench/Programs.h"

namespace bench {

struct Settings {
    std::string bench;
    double seconds = 2;    ///< Of each measurement.
    unsigned clients = 0;  ///< 0: the benchmark's own number.
    unsigned rounds = 3;
    unsigned threads = 2;
    bool json = false;
};

/// A figure of a measurement.
struct Column {
    const char* key;   ///< In JSON.
    const char* from;  ///< In what the part prints, with slashes between its levels.
    const char* head;  ///< Of the column.
    bool more_is_better;
};

using Figures = std::map<std::string, double>;  ///< By `Column::key`; what a part does not tell is not there.

struct Bench {
    const char* name;
    const char* what;  ///< In a sentence.
    unsigned clients;  ///< Unless they are given,
    unsigned most_clients;
    const std::vector<Contender>& (*contenders)();
    std::vector<Column> columns;  ///< The first one is what ratios are of.
    /// One measurement. False, with the reason in `wrong`, if it cannot be had.
    bool (*measure)(const Bench& bench, const Contender& contender, const Settings& settings,
                    Figures& figures, std::string& wrong);
    /// What each measurement is, in words.
    std::string (*scene)(const Settings& settings);
};

const std::vector<Bench>& allBenches();

}  // namespace bench
