// Rounds: measurements that take turns, and what they have in common.
#pragma once

#include <string>
#include <vector>

#include "bench/Benches.h"

namespace bench {

/// Of several measurements. The middle of an even number is the mean of the two in the middle.
struct Spread {
    double median = 0;
    double least = 0;
    double most = 0;

    /// Of at least one.
    static Spread of(std::vector<double> values);
};

struct Outcome {
    Contender contender;
    std::vector<Figures> rounds;  ///< None of one that is not built in.

    /// False if none of the rounds has told that figure.
    bool spread(const Column& column, Spread& found) const;
};

/// What the machine was while it was measured.
struct Machine {
    unsigned processors = 0;  ///< That this process may use.
    double load_before = 0;   ///< Of the last minute.
    double load_after = 0;
    std::string model;   ///< Of the processor; empty if it does not tell.
    std::string kernel;  ///< Its release.
};

struct Result {
    std::vector<Outcome> outcomes;
    Machine machine;
};

/// Every contender in each round, each time another one first, so that whatever else the machine does meets
/// all of them. False, with the reason in `wrong`, if one cannot be measured.
bool measure(const Bench& bench, const Settings& settings, Result& result, std::string& wrong);

/// The best peer by the first column; null without a peer.
const Outcome* bestPeer(const Bench& bench, const Result& result);

}  // namespace bench
