// The text of a parser, all of it.
#pragma once

#include <string>

#include <Reticor/StrParser.h>

namespace Orvex::Testing {

inline std::string text_of(const Reticor::CStrParser& p) {
    return std::string(p.GetString(), static_cast<size_t>(p.GetStringLen()));
}

}  // namespace Orvex::Testing
