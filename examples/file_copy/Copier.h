// Copier: the handler between two files.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include <Infra/Mutex.h>
#include <Infra/Time.h>
#include <Reticor/NFile.h>
#include <Reticor/NetHandler.h>

#include "file_copy/Report.h"

namespace file_copy {

constexpr size_t PIECE = 65536;  // bytes of one call
constexpr int BAR_WIDTH = 50;    // characters

/// Copies from the one file to the other, step by step, on the workers of the pool.
class Copier : public Orvex::Reticor::CNetHandler {
public:
    Copier(Report& report, bool progress) : m_report(report), m_progress(progress), m_piece(PIECE) {}

    /// False if a file cannot be opened; the library has said why. The files opened so far are closed.
    bool open(const std::string& source, const std::string& target) {
        m_source = Orvex::Reticor::CNFile::Open(GetID(), source.c_str(), "r", new ReportingDevice(m_report));
        m_target = m_source == nullptr ? nullptr
                                       : Orvex::Reticor::CNFile::Open(GetID(), target.c_str(), "w",
                                                                      new ReportingDevice(m_report));
        if (m_target == nullptr) {
            end();
            return false;
        }
        Orvex::Reticor::NFile_Info info;
        m_report.size = m_source->Stat(&info) == 0 ? info.size : 0;
        Notify(GetID(), kStart, 0);
        return true;
    }

    int handle_message(long, unsigned int msg, long) override {
        Orvex::Infra::CGuard guard(m_mutex);
        if (msg == Orvex::Reticor::FILE_MSG_ERROR) {
            m_report.failed = true;  // it can come when everything was handed over already
            m_report.news.post();
            end();
        } else if (!m_ended) {
            copy();
        }
        return 0;
    }

    int handle_close(Orvex::Reticor::CNetHandler* self) override {
        Orvex::Infra::CSemaphore& gone = m_report.gone;
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
        const uint64_t begin = Orvex::Infra::CTime::getCurrentMicroSecond();
        m_held = static_cast<size_t>(m_source->Read(m_piece.data(), PIECE, eof));
        took(begin);
        m_given = 0;
        m_source_over = eof;
        m_report.checksum.add(m_piece.data(), m_held);
        return m_held > 0 || eof;
    }

    /// Writes what is held. False if message 6 will come.
    bool write() {
        if (m_given < m_held) {
            const uint64_t begin = Orvex::Infra::CTime::getCurrentMicroSecond();
            const int taken = m_target->Write(&m_piece[m_given], static_cast<unsigned>(m_held - m_given));
            took(begin);
            m_given += static_cast<size_t>(taken);
            m_report.copied += taken;
            show();
        }
        return m_given == m_held;
    }

    void took(uint64_t begin) {
        const uint64_t us = Orvex::Infra::CTime::getCurrentMicroSecond() - begin;
        m_report.longest_us = us > m_report.longest_us ? us : m_report.longest_us;
    }

    void show() {
        const int percent = m_report.size > 0 ? static_cast<int>(m_report.copied * 100 / m_report.size) : 100;
        if (!m_progress || percent == m_shown) {
            return;
        }
        m_shown = percent;
        const int full = percent * BAR_WIDTH / 100;
        std::fprintf(stderr, "\r[%s%s] %d %%%s", std::string(static_cast<size_t>(full), '#').c_str(),
                     std::string(static_cast<size_t>(BAR_WIDTH - full), '.').c_str(), percent,
                     percent == 100 ? "\n" : "");
    }

    /// Everything that was taken goes to the disk on its own; the devices tell when. This handler stays until
    /// then, to hear of errors.
    void end() {
        m_ended = true;
        for (Orvex::Reticor::CNFile** file : {&m_source, &m_target}) {
            if (*file != nullptr) {
                (*file)->Close();
                *file = nullptr;
            }
        }
    }

    Report& m_report;
    const bool m_progress;
    Orvex::Infra::CMutex m_mutex;  // messages of both files come, on any worker
    Orvex::Reticor::CNFile* m_source = nullptr;
    Orvex::Reticor::CNFile* m_target = nullptr;
    std::vector<char> m_piece;
    size_t m_held = 0;   // bytes read
    size_t m_given = 0;  // of which that number are written
    bool m_source_over = false;
    bool m_ended = false;
    int m_shown = -1;
};

}  // namespace file_copy
