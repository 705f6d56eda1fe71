// A long text to the debug server's client.
#pragma once

#include <algorithm>
#include <string>

#include <Reticor/R3.h>

namespace Orvex::Reticor {

/// A print of 4096 bytes and more is dropped, so a text goes in pieces, cut after a line where there is one.
inline void print_in_pieces(const std::string& text) {
    constexpr size_t PIECE = 3000;
    for (size_t at = 0; at < text.size();) {
        size_t size = std::min(PIECE, text.size() - at);
        const size_t newline = text.rfind('\n', at + size - 1);
        if (at + size < text.size() && newline != std::string::npos && newline >= at) {
            size = newline + 1 - at;
        }
        R3Printf("%.*s", static_cast<int>(size), text.data() + at);
        at += size;
    }
}

}  // namespace Orvex::Reticor
