// VerdictText: a verdict in a sentence.
#pragma once

#include <cstddef>

#include <Reticor/MediaVerdicts.h>

namespace Orvex::Reticor {

class VerdictText {
public:
    /// How many kinds there are.
    static constexpr size_t KINDS = static_cast<size_t>(SenderVerdictKind::SILENT) + 1;

    /// One word, with underscores.
    static const char* name(SenderVerdictKind kind);
    /// Whether one client suffers more than another: those that get nothing first, then those that do not
    /// keep up; among each other by their lag.
    static bool suffers_more(const SenderVerdict& a, const SenderVerdict& b);
    /// Writes the sentence of a verdict from its figures, whatever the locale.
    static void write(SenderVerdict& verdict);
};

}  // namespace Orvex::Reticor
