// The run-time class name of a handler, for trace lines.
#pragma once

#include <string>

namespace Orvex::Reticor {

class CNetHandler;

/// The readable name of the most derived class of a live handler. Allocates: for lines that are printed only.
/// Empty if there is no memory.
std::string class_name(const CNetHandler& handler) noexcept;

}  // namespace Orvex::Reticor
