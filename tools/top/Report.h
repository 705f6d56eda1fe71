// Report: what a look and its rates are for scripts.
#pragma once

#include <string>

#include "top/Model.h"
#include "top/View.h"

namespace top {

/// One line of JSON: the target, the process, the rates of pools and classes, the alarms, and under "stats"
/// what the process said: `answer`, which `Look` has read.
std::string reportJson(const Model& model, const Contact& contact, const std::string& answer);

}  // namespace top
