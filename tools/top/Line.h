// Line: a row of the screen, in pieces of one style each.
#pragma once

#include <string>
#include <vector>

namespace top {

enum class Style { NORMAL, HEAD, TITLE, DIM, GOOD, WARN, BAD };

struct Span {
    Style style;
    std::string text;  ///< Clean.
};

using Line = std::vector<Span>;

/// Its letters alone.
inline std::string plain(const Line& line) {
    std::string text;
    for (const Span& span : line) {
        text += span.text;
    }
    return text;
}

}  // namespace top
