// The file rows; see the header.
#include "FileRows.h"

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <thread>

#include "Usage.h"

namespace Bench {

namespace {

// Out of the page cache, as far as the system lets go of it.
void forget(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd != -1) {
        fdatasync(fd);
        posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
        close(fd);
    }
}

// Adds what one phase shows to the figures. False if it failed.
bool phase(nlohmann::json& figures, const std::string& name, const FileOptions& options,
           const std::string& path, const std::function<bool(const std::string&, CallTimes&)>& work) {
    CallTimes times;
    times.reserve(options.bytes / options.piece + 100000);
    const std::uint64_t begin = nowNs();
    const bool good = work(path, times);
    const double seconds = static_cast<double>(nowNs() - begin) / 1e9;
    figures[name] = {{"mib_per_s", static_cast<double>(options.bytes) / (1 << 20) / seconds},
                     {"p50_us", times.us(0.5)},
                     {"p99_us", times.us(0.99)},
                     {"max_us", times.us(1)}};
    return good;
}

}  // namespace

FileOptions parseFileOptions(int argc, char** argv, const char* description) {
    FileOptions options;
    CLI::App app(description);
    app.add_option("--bytes", options.bytes, "bytes written and read")->check(CLI::PositiveNumber);
    app.add_option("--piece", options.piece, "bytes of one call")->check(CLI::Range(8, 1 << 20));
    app.add_option("--slow-ms", options.slowMs,
                   "a device each of whose calls takes so long, instead of a file")
        ->check(CLI::NonNegativeNumber);
    app.add_flag("--read-ahead", options.readAhead, "blocks are loaded before they are asked for");
    app.add_option("--directory", options.directory, "where the file is made")->check(CLI::ExistingDirectory);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::exit(app.exit(error));
    }
    options.bytes -= options.bytes % options.piece;
    return options;
}

double CallTimes::us(double quantile) {
    if (m_ns.empty()) {
        return 0;
    }
    const auto place = static_cast<std::ptrdiff_t>(quantile * static_cast<double>(m_ns.size() - 1));
    std::nth_element(m_ns.begin(), m_ns.begin() + place, m_ns.end());
    return m_ns[static_cast<std::size_t>(place)] / 1e3;
}

std::uint64_t CallTimes::now() {
    return nowNs();
}

Pieces::Pieces(const FileOptions& options) : m_bytes(options.piece, 'x') {}

const char* Pieces::fill(std::size_t number) {
    std::memcpy(m_bytes.data(), &number, sizeof number);
    return m_bytes.data();
}

bool Pieces::matches(const char* bytes, std::size_t number) {
    return std::memcmp(bytes, &number, sizeof number) == 0 && bytes[m_bytes.size() - 1] == 'x';
}

int runFiles(const FileOptions& options, const FileUse& use) {
    const std::string path = options.directory + "/reticor-bench-file-" + std::to_string(getpid());
    nlohmann::json figures;
    bool good = phase(figures, "write", options, path, use.write);
    if (use.read) {
        forget(path);
        good = phase(figures, "cold", options, path, use.read) && good;
        good = phase(figures, "warm", options, path, use.read) && good;
    }
    unlink(path.c_str());
    if (!good) {
        std::fprintf(stderr, "the bytes did not come back as they were written\n");
        return 1;
    }
    std::printf("%s\n", figures.dump().c_str());
    return 0;
}

void sleepMs(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

}  // namespace Bench
