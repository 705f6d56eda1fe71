// Report: what is known of a copy, and the device that knows its end.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include <Infra/Semaphore.h>
#include <Reticor/PosixStorDev.h>

namespace file_copy {

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
    std::atomic<int> closed{0};        // files
    Orvex::Infra::CSemaphore news{0};  // one of these two has changed
    Orvex::Infra::CSemaphore gone{0};  // the handler has gone
};

/// A file of the system that tells when everything is written and it was closed.
class ReportingDevice : public Orvex::Reticor::CPosixStorDev {
public:
    explicit ReportingDevice(Report& report) : m_report(report) {}
    /// Message 8 comes as well, but may find no handler any more.
    int Finish(bool sync) override {
        const int result = Orvex::Reticor::CPosixStorDev::Finish(sync);
        m_report.failed = m_report.failed || result != 0;
        return result;
    }
    void Close() override {
        Report& report = m_report;  // the base class deletes this object
        Orvex::Reticor::CPosixStorDev::Close();
        ++report.closed;
        report.news.post();
    }

private:
    Report& m_report;
};

}  // namespace file_copy
