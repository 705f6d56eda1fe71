// The byte classes of protocol texts. ASCII only, so that no locale and no byte above 127 changes what a text
// means.
#pragma once

namespace Orvex::Reticor {

inline bool is_blank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

inline bool is_blank_in_line(char c) {
    return c == ' ' || c == '\t' || c == '\v' || c == '\f';
}

inline bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

inline bool is_word(char c) {
    return c >= 33 && c <= 126;
}

/// The digit's value, -1 for other bytes.
inline int hex_value(char c) {
    if (is_digit(c)) {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

inline int to_lower(char c) {
    int byte = static_cast<unsigned char>(c);
    return byte >= 'A' && byte <= 'Z' ? byte + ('a' - 'A') : byte;
}

}  // namespace Orvex::Reticor
