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
#include <atomic>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <Infra/Mutex.h>
#include <Infra/Semaphore.h>
#include <Infra/Time.h>
#include <Reticor/Reticor.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

using namespace Orvex::Reticor;
using Orvex::Infra::CGuard;
using Orvex::Infra::CMutex;
using Orvex::Infra::CSemaphore;
using Orvex::Infra::CTime;

namespace {

constexpr size_t kPiece = 65536;  // bytes of one call
constexpr int kBarWidth = 50;     // characters

/// FNV-1a, 64 bits.
class Checksum {
public:
    void add(const char* bytes, size_t count) {
        for (size_t i = 0; i < count; ++i) {
            m_value = (m_value ^ static_cast<unsigned char>(bytes[i])) * 1099511628211U;
        }
    }
    uint64_t value() const { return m_value; }

private:
    uint64_t m_value = 14695981039346656037U;
};

struct Report {
    int64_t size = 0;  // of the source, when it was opened
    int64_t copied = 0;
    Checksum checksum;
    uint64_t longest_us = 0;  // of a single call of Read or Write
    std::atomic<bool> failed{false};
    std::atomic<int> closed{0};  // files
    CSemaphore news{0};          // one of these two has changed
    CSemaphore gone{0};          // the handler has gone
};

/// A file of the system that tells when everything is written and it was closed.
class ReportingDevice : public CPosixStorDev {
public:
    explicit ReportingDevice(Report& report) : m_report(report) {}
    /// Message 8 comes as well, but may find no handler any more.
    int Finish(bool sync) override {
        const int result = CPosixStorDev::Finish(sync);
        m_report.failed = m_report.failed || result != 0;
        return result;
    }
    void Close() override {
        Report& report = m_report;  // the base class deletes this object
        CPosixStorDev::Close();
        ++report.closed;
        report.news.post();
    }

private:
    Report& m_report;
};

/// Copies from the one file to the other, step by step, on the workers of the pool.
class Copier : public CNetHandler {
public:
    Copier(Report& report, bool progress) : m_report(report), m_progress(progress), m_piece(kPiece) {}

    /// False if a file cannot be opened; the library has said why. The files opened so far are closed.
    bool open(const std::string& source, const std::string& target) {
        m_source = CNFile::Open(GetID(), source.c_str(), "r", new ReportingDevice(m_report));
        m_target = m_source == nullptr
                       ? nullptr
                       : CNFile::Open(GetID(), target.c_str(), "w", new ReportingDevice(m_report));
        if (m_target == nullptr) {
            end();
            return false;
        }
        NFile_Info info;
        m_report.size = m_source->Stat(&info) == 0 ? info.size : 0;
        Notify(GetID(), kStart, 0);
        return true;
    }

    int handle_message(long, unsigned int msg, long) override {
        CGuard guard(m_mutex);
        if (msg == FILE_MSG_ERROR) {
            m_report.failed = true;  // it can come when everything was handed over already
            m_report.news.post();
            end();
        } else if (!m_ended) {
            copy();
        }
        return 0;
    }

    int handle_close(CNetHandler* self) override {
        CSemaphore& gone = m_report.gone;
        delete self;
        gone.post();
        return 0;
    }

private:
    static constexpr unsigned kStart = 100;

    /// Goes on until a file has nothing to give or no room; its message calls us again.
    void copy() {
        while (write()) {
            if (m_source_over) {
                end();
                return;
            }
            if (!read()) {
                return;
            }
        }
    }

    /// False if message 7 will come.
    bool read() {
        bool eof = false;  // not set by a call that has to wait
        const uint64_t begin = CTime::getCurrentMicroSecond();
        m_held = static_cast<size_t>(m_source->Read(m_piece.data(), kPiece, eof));
        took(begin);
        m_given = 0;
        m_source_over = eof;
        m_report.checksum.add(m_piece.data(), m_held);
        return m_held > 0 || eof;
    }

    /// Writes what is held. False if message 6 will come.
    bool write() {
        if (m_given < m_held) {
            const uint64_t begin = CTime::getCurrentMicroSecond();
            const int taken = m_target->Write(&m_piece[m_given], static_cast<unsigned>(m_held - m_given));
            took(begin);
            m_given += static_cast<size_t>(taken);
            m_report.copied += taken;
            show();
        }
        return m_given == m_held;
    }

    void took(uint64_t begin) {
        const uint64_t us = CTime::getCurrentMicroSecond() - begin;
        m_report.longest_us = us > m_report.longest_us ? us : m_report.longest_us;
    }

    void show() {
        const int percent = m_report.size > 0 ? static_cast<int>(m_report.copied * 100 / m_report.size) : 100;
        if (!m_progress || percent == m_shown) {
            return;
        }
        m_shown = percent;
        const int full = percent * kBarWidth / 100;
        std::fprintf(stderr, "\r[%s%s] %d %%%s", std::string(static_cast<size_t>(full), '#').c_str(),
                     std::string(static_cast<size_t>(kBarWidth - full), '.').c_str(), percent,
                     percent == 100 ? "\n" : "");
    }

    /// Everything that was taken goes to the disk on its own; the devices tell when. This handler stays until
    /// then, to hear of errors.
    void end() {
        m_ended = true;
        for (CNFile** file : {&m_source, &m_target}) {
            if (*file != nullptr) {
                (*file)->Close();
                *file = nullptr;
            }
        }
    }

    Report& m_report;
    const bool m_progress;
    CMutex m_mutex;  // messages of both files come, on any worker
    CNFile* m_source = nullptr;
    CNFile* m_target = nullptr;
    std::vector<char> m_piece;
    size_t m_held = 0;   // bytes read
    size_t m_given = 0;  // of which that number are written
    bool m_source_over = false;
    bool m_ended = false;
    int m_shown = -1;
};

uint64_t checksumOf(const std::string& path) {
    Checksum checksum;
    std::ifstream in(path, std::ios::binary);
    std::vector<char> piece(kPiece);
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
