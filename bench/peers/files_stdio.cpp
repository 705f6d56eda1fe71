// The file rows on stdio: fwrite and fread, with the stream's own buffer.
#include <cstdio>
#include <vector>

#include "common/FileRows.h"

namespace {

ssize_t slowWrite(void* cookie, const char*, std::size_t bytes) {
    Bench::sleepMs(*static_cast<const int*>(cookie));
    return static_cast<ssize_t>(bytes);
}

FILE* openForWriting(const Bench::FileOptions& options, const std::string& path, int* slowMs) {
    if (options.slowMs == 0) {
        return std::fopen(path.c_str(), "we");
    }
    cookie_io_functions_t calls = {nullptr, slowWrite, nullptr, nullptr};
    return fopencookie(slowMs, "w", calls);
}

}  // namespace

int main(int argc, char** argv) {
    const Bench::FileOptions options = Bench::parseFileOptions(argc, argv, "files on stdio");
    int slowMs = options.slowMs;
    Bench::Pieces pieces(options);
    Bench::FileUse use;
    use.write = [&](const std::string& path, Bench::CallTimes& times) {
        FILE* const file = openForWriting(options, path, &slowMs);
        bool good = file != nullptr;
        for (std::size_t i = 0; good && i < options.bytes / options.piece; ++i) {
            const char* const bytes = pieces.fill(i);
            good = times.timed([&] { return std::fwrite(bytes, 1, options.piece, file); }) == options.piece;
        }
        return file != nullptr && std::fclose(file) == 0 && good;
    };
    if (options.slowMs == 0) {
        use.read = [&](const std::string& path, Bench::CallTimes& times) {
            FILE* const file = std::fopen(path.c_str(), "re");
            std::vector<char> buffer(options.piece);
            bool good = file != nullptr;
            for (std::size_t i = 0; good && i < options.bytes / options.piece; ++i) {
                good = times.timed([&] { return std::fread(buffer.data(), 1, options.piece, file); }) ==
                           options.piece &&
                       pieces.matches(buffer.data(), i);
            }
            return file != nullptr && std::fclose(file) == 0 && good;
        };
    }
    return Bench::runFiles(options, use);
}
