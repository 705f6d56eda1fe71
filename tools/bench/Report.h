// Report: what came of the rounds, for people and for programs.
#pragma once

#include <string>

#include "bench/Rounds.h"

namespace bench {

std::string reportText(const Bench& bench, const Settings& settings, const Result& result);

/// One object on one line.
std::string reportJson(const Bench& bench, const Settings& settings, const Result& result);

/// What there is to measure, and with whom.
std::string listText();

}  // namespace bench
