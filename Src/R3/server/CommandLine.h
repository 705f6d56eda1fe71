// CommandLine: a typed line as a command word and ten numbers.
#pragma once

namespace Orvex::Reticor {

struct TFuncEntry;

constexpr int R3_ARGUMENTS = 10;

/// Stands for a word that is not a number.
constexpr int R3_NO_NUMBER = static_cast<int>(0xBCBCBCBC);

struct CommandLine {
    const char* word;             ///< In the line that was split; null if the line holds blanks only.
    int arguments[R3_ARGUMENTS];  ///< 0 for what was not typed.
};

/// Splits a line in place. Words are runs of the bytes 21 to 7E, whatever stands between them. Those after
/// the first are arguments: an optional '-' and digits is a number, anything else R3_NO_NUMBER. What follows
/// the tenth is not looked at.
CommandLine split_command_line(char* line);

/// Calls the command with all ten numbers.
void call_command(const TFuncEntry& entry, const CommandLine& line);

}  // namespace Orvex::Reticor
