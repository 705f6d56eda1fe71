// The file rows: a gigabyte written in small pieces and read back, by one caller, and the same on a device
// that is slow at every call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Bench {

struct FileOptions {
    std::size_t bytes = std::size_t{1} << 30;
    std::size_t piece = 4096;
    int slowMs = 0;  // each call of the device takes so long; 0 is a file in `directory`
    std::string directory = ".";
    bool readAhead = false;  // the reader asks for it, where there is such a thing
};

// Ends the process with a message if the command line is wrong.
FileOptions parseFileOptions(int argc, char** argv, const char* description);

// How long single calls held the caller.
class CallTimes {
public:
    void reserve(std::size_t calls) { m_ns.reserve(calls); }

    // Runs `call` and notes what it took.
    template <typename Call>
    auto timed(Call call) {
        const std::uint64_t begin = now();
        const auto result = call();
        m_ns.push_back(static_cast<std::uint32_t>(now() - begin));
        return result;
    }

    double us(double quantile);

private:
    static std::uint64_t now();

    std::vector<std::uint32_t> m_ns;
};

// Bytes that tell their place, piece by piece.
class Pieces {
public:
    explicit Pieces(const FileOptions& options);
    const char* fill(std::size_t number);
    bool matches(const char* bytes, std::size_t number);

private:
    std::vector<char> m_bytes;
};

// How one library does it. Each writes, or reads and checks, all pieces, and notes the time of every call
// that the caller makes; opening and closing belong to it. Result: whether all went well.
struct FileUse {
    std::function<bool(const std::string& path, CallTimes& times)> write;
    std::function<bool(const std::string& path, CallTimes& times)> read;
};

// Measures and prints the figures as JSON. The file is read once from a cold and once from a warm cache.
// Result: the exit code.
int runFiles(const FileOptions& options, const FileUse& use);

// A slow device's call.
void sleepMs(int ms);

}  // namespace Bench
