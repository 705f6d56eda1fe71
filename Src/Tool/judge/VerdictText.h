// VerdictText: a verdict in a sentence.
#pragma once

#include <Reticor/MediaVerdicts.h>

namespace Orvex::Reticor {

class VerdictText {
public:
    /// One word, with underscores.
    static const char* name(SenderVerdictKind kind);
    /// Whether one client suffers more than another: those that get nothing first, then those that do not
    /// keep up; among each other by their lag.
    static bool suffers_more(const SenderVerdict& a, const SenderVerdict& b);
    /// Writes the sentence of a verdict from its figures, whatever the locale.
    static void write(SenderVerdict& verdict);
};

}  // namespace Orvex::Reticor
