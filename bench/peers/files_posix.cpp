// The file rows on plain system calls: pwrite and pread, one for each piece.
#include <fcntl.h>
#include <unistd.h>

#include <vector>

#include "common/FileRows.h"

int main(int argc, char** argv) {
    const Bench::FileOptions options = Bench::parseFileOptions(argc, argv, "files on pwrite and pread");
    Bench::Pieces pieces(options);
    const auto all = static_cast<ssize_t>(options.piece);
    Bench::FileUse use;
    use.write = [&](const std::string& path, Bench::CallTimes& times) {
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        bool good = fd != -1;
        for (std::size_t i = 0; good && i < options.bytes / options.piece; ++i) {
            const char* const bytes = pieces.fill(i);
            const auto offset = static_cast<off_t>(i * options.piece);
            good = times.timed([&] { return pwrite(fd, bytes, options.piece, offset); }) == all;
        }
        return close(fd) == 0 && good;
    };
    use.read = [&](const std::string& path, Bench::CallTimes& times) {
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        std::vector<char> buffer(options.piece);
        bool good = fd != -1;
        for (std::size_t i = 0; good && i < options.bytes / options.piece; ++i) {
            const auto offset = static_cast<off_t>(i * options.piece);
            good = times.timed([&] { return pread(fd, buffer.data(), options.piece, offset); }) == all &&
                   pieces.matches(buffer.data(), i);
        }
        return close(fd) == 0 && good;
    };
    return Bench::runFiles(options, use);
}
