// file_copy: copies a file through two CNFile objects and verifies the copy. Try it with
// `file_copy big.iso /tmp/copy.iso`.
//
// What it teaches:
//  - a handler that reads and writes files never waits for the disk: a call takes or gives what it can, and a
//    message says when it is worth calling again;
//  - messages of one file can overlap those of another: a lock makes one step of them at a time;
//  - message 8 tells of a device that failed; here the copy is given up then;
//  - a file is complete when its device got Finish and Close: a device of one's own, derived from the
//    library's, is how to hear of it, and of a failure in the last moment;
//  - the end of a file can come early: lengths are compared, too.
#include <unistd.h>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include <Infra/Time.h>
#include <Reticor/NetThread.h>

#include "file_copy/Copier.h"
#include "file_copy/Report.h"

using namespace Orvex::Reticor;
using namespace file_copy;
using Orvex::Infra::CTime;

namespace {

uint64_t checksumOf(const std::string& path) {
    Checksum checksum;
    std::ifstream in(path, std::ios::binary);
    std::vector<char> piece(PIECE);
    while (in.read(piece.data(), static_cast<std::streamsize>(piece.size())), in.gcount() > 0) {
        checksum.add(piece.data(), static_cast<size_t>(in.gcount()));
    }
    return checksum.value();
}

int finish(const Report& report, const std::string& target, uint64_t took_us) {
    if (report.failed) {
        std::fprintf(stderr, "the copy failed after %" PRId64 " bytes\n", report.copied);
        return 1;
    }
    if (report.copied < report.size) {
        std::fprintf(stderr, "the source ended after %" PRId64 " of %" PRId64 " bytes\n", report.copied,
                     report.size);
        return 1;
    }
    const bool same = checksumOf(target) == report.checksum.value();
    const double mib = static_cast<double>(report.copied) / (1 << 20);
    std::printf("copied %" PRId64 " bytes, checksum %016" PRIx64 ", %s\n", report.copied,
                report.checksum.value(), same ? "verified" : "BUT THE COPY DIFFERS");
    std::printf("%.1f MiB/s; the longest call held its caller for %" PRIu64 " us\n",
                mib * 1e6 / static_cast<double>(took_us > 0 ? took_us : 1), report.longest_us);
    return same ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    std::string source;
    std::string target;
    bool quiet = false;
    CLI::App app{"Copies a file without ever waiting for the disk in a call."};
    app.add_option("source", source, "the file to read")->required()->check(CLI::ExistingFile);
    app.add_option("target", target, "the file to make")->required();
    app.add_flag("--quiet", quiet, "no progress bar; there is none either if standard error is no terminal");
    CLI11_PARSE(app, argc, argv);

    if (CreateThreadPool(2, 1) != 0) {  // with file workers
        return 1;
    }
    const uint64_t begin = CTime::getCurrentMicroSecond();
    Report report;
    auto* copier = new Copier(report, !quiet && ::isatty(STDERR_FILENO) != 0);
    const bool opened = copier->open(source, target);
    while (opened && !report.failed && report.closed < 2) {
        report.news.pend();
    }
    const uint64_t took_us = CTime::getCurrentMicroSecond() - begin;
    copier->Close();
    report.gone.pend();
    DestroyThreadPool();  // gives up what a device refuses for good
    return opened ? finish(report, target, took_us) : 1;
}
