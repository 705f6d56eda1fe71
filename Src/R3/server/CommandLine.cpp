// Splitting a line, and the call of a command.
#include "R3/server/CommandLine.h"

#include <cstdlib>

#include "R3/print/FuncBox.h"

namespace Orvex::Reticor {

namespace {

bool in_word(char letter) {
    return letter >= 0x21 && letter <= 0x7E;
}

/// A lone '-' counts as a number too, and is 0.
bool is_numeric(const char* word) {
    if (*word == '-') {
        ++word;
    }
    while (*word >= '0' && *word <= '9') {
        ++word;
    }
    return *word == '\0';
}

int argument(const char* word) {
    // strtol has a result for any row of digits, which atoi has not.
    return is_numeric(word) ? static_cast<int>(std::strtol(word, nullptr, 10)) : R3_NO_NUMBER;
}

/// The next word, ended where it ends, or null. `place` moves past it.
const char* next_word(char*& place) {
    while (*place != '\0' && !in_word(*place)) {
        ++place;
    }
    if (*place == '\0') {
        return nullptr;
    }
    const char* const word = place;
    while (in_word(*place)) {
        ++place;
    }
    if (*place != '\0') {
        *place++ = '\0';
    }
    return word;
}

}  // namespace

CommandLine split_command_line(char* line) {
    CommandLine split = {};
    split.word = next_word(line);
    for (int& value : split.arguments) {
        const char* const word = split.word != nullptr ? next_word(line) : nullptr;
        if (word == nullptr) {
            break;
        }
        value = argument(word);
    }
    return split;
}

void call_command(const TFuncEntry& entry, const CommandLine& line) {
    const int* const a = line.arguments;
    entry.func(a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7], a[8], a[9]);
}

}  // namespace Orvex::Reticor
