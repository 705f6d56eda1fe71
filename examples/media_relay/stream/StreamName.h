// StreamName: how streams are named.
#pragma once

#include <algorithm>
#include <string>

namespace relay {

/// A name stands in paths and URLs as it is, without any escape. The result is empty, or what is wrong with
/// `name`, as the end of a sentence that begins with it.
inline std::string checkStreamName(const std::string& name) {
    constexpr size_t MOST = 64;
    const auto fits = [](char letter) {
        return (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') ||
               (letter >= '0' && letter <= '9') || letter == '-' || letter == '_' || letter == '.';
    };
    const bool isFolder = name == "." || name == "..";  // paths with those mean another one
    const bool good = !name.empty() && name.size() <= MOST && !isFolder;
    return good && std::all_of(name.begin(), name.end(), fits)
               ? ""
               : "is no name of a stream, which has 1 to 64 letters, digits, - _ and .";
}

}  // namespace relay
