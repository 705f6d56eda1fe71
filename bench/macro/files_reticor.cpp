// The file rows on Reticor: one handler writes and reads through a CNFile, as far as a call goes and then
// with the next message, on one worker of the pool.
#include <Reticor/NFile.h>
#include <Reticor/NetThread.h>
#include <Reticor/PosixStorDev.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <Infra/Mutex.h>
#include <Infra/Semaphore.h>

#include "common/Alive.h"
#include "common/FileRows.h"

namespace {

using namespace Orvex::Reticor;

Bench::Alive alive;

// Takes its time, and keeps nothing.
class SlowDevice : public CNStorDev_IF {
public:
    explicit SlowDevice(int ms) : m_ms(ms) {}
    int Open(const char*, const char*) override { return 0; }
    void Close() override { delete this; }
    int Write(const char*, unsigned len) override {
        Bench::sleepMs(m_ms);
        return static_cast<int>(len);
    }
    int Read(char*, unsigned) override {
        Bench::sleepMs(m_ms);
        return -1;
    }
    int Seek(long long, int) override {
        Bench::sleepMs(m_ms);
        return 0;
    }
    int Stat(NFile_Info*) override { return 0; }

private:
    const int m_ms;
};

// Tells when the file is on the disk.
class Reporting : public CPosixStorDev {
public:
    explicit Reporting(Orvex::Infra::CSemaphore& closed) : m_closed(closed) {}
    void Close() override {
        Orvex::Infra::CSemaphore& closed = m_closed;
        CPosixStorDev::Close();
        closed.post();
    }

private:
    Orvex::Infra::CSemaphore& m_closed;
};

// Makes calls until one cannot go on, and then with each message.
class Caller : public CNetHandler {
public:
    // `step` makes one call on the file: false when there is nothing more to do now.
    using Step = std::function<bool(CNFile& file)>;

    Caller(Step step, Orvex::Infra::CSemaphore& done) : m_step(std::move(step)), m_done(done) {
        alive.enter();
    }

    void run(CNFile* file, std::size_t bytes) {
        m_file = file;
        m_left = bytes;
        Notify(GetID(), START, 0);
    }

    int handle_message(long, unsigned int msg, long) override {
        // The next message can come while this call is still on its way out.
        const Orvex::Infra::CGuard guard(m_mutex);
        m_failed = m_failed || msg == FILE_MSG_ERROR;
        if (m_over) {
            return 0;
        }
        while (!m_failed && m_left > 0 && m_step(*m_file)) {
        }
        if (m_left == 0 || m_failed) {
            m_over = true;
            m_file->Close();
            m_done.post();
        }
        return 0;
    }
    int handle_close(CNetHandler* self) override {
        delete self;
        alive.leave();
        return 0;
    }

    std::size_t m_left = 0;
    bool m_failed = false;

private:
    static constexpr unsigned START = 100;

    const Step m_step;
    Orvex::Infra::CMutex m_mutex;
    Orvex::Infra::CSemaphore& m_done;
    CNFile* m_file = nullptr;
    bool m_over = false;
};

class FilesOnReticor {
public:
    explicit FilesOnReticor(const Bench::FileOptions& options) : m_options(options) {}

    bool write(const std::string& path, Bench::CallTimes& times) {
        Bench::Pieces pieces(m_options);
        std::size_t offset = 0;
        return work(path, "w", [&](CNFile& file) {
            const std::size_t piece = m_options.piece;
            const char* const bytes = pieces.fill(offset / piece) + offset % piece;
            const auto most = static_cast<unsigned>(piece - offset % piece);
            const int n = times.timed([&] { return file.Write(bytes, most); });
            offset += static_cast<std::size_t>(n);
            m_caller->m_left -= static_cast<std::size_t>(n);
            return static_cast<unsigned>(n) == most;
        });
    }

    bool read(const std::string& path, Bench::CallTimes& times) {
        Bench::Pieces pieces(m_options);
        std::vector<char> buffer(m_options.piece);
        std::size_t offset = 0;
        bool right = true;
        const bool good = work(path, "r", [&](CNFile& file) {
            const std::size_t piece = m_options.piece;
            const auto most = static_cast<unsigned>(piece - offset % piece);
            bool eof = false;
            const int n = times.timed([&] { return file.Read(&buffer[offset % piece], most, eof); });
            if (static_cast<unsigned>(n) == most) {
                right = right && pieces.matches(buffer.data(), offset / piece);
            }
            offset += static_cast<std::size_t>(n);
            m_caller->m_left -= static_cast<std::size_t>(n);
            m_caller->m_failed = m_caller->m_failed || (eof && m_caller->m_left > 0);
            return static_cast<unsigned>(n) == most;
        });
        return good && right;
    }

private:
    bool work(const std::string& path, const char* mode, Caller::Step step) {
        Orvex::Infra::CSemaphore done(0);
        Orvex::Infra::CSemaphore closed(0);
        m_caller = new Caller(std::move(step), done);
        CNStorDev_IF* const device = m_options.slowMs > 0
                                         ? static_cast<CNStorDev_IF*>(new SlowDevice(m_options.slowMs))
                                         : new Reporting(closed);
        CNFile* const file = CNFile::Open(m_caller->GetID(), path.c_str(), mode, device);
        bool good = file != nullptr;
        if (good && m_options.readAhead) {
            file->SetBufferSize(AHEAD_BUFFERS * 131072, AHEAD_BUFFERS);
            file->SetReadAhead(true);
        }
        if (good) {
            m_caller->run(file, m_options.bytes);
            done.pend();
            good = !m_caller->m_failed;
        }
        if (m_options.slowMs == 0) {
            closed.pend();
        }
        m_caller->Close();
        return alive.waitForNone() && good;
    }

    static constexpr unsigned AHEAD_BUFFERS = 16;

    const Bench::FileOptions m_options;
    Caller* m_caller = nullptr;
};

}  // namespace

int main(int argc, char** argv) {
    const Bench::FileOptions options = Bench::parseFileOptions(argc, argv, "files on Reticor");
    if (CNetThread::CreateThreadPool(1, true) != 0) {
        return 1;
    }
    FilesOnReticor files(options);
    Bench::FileUse use;
    use.write = [&](const std::string& path, Bench::CallTimes& times) { return files.write(path, times); };
    if (options.slowMs == 0) {
        use.read = [&](const std::string& path, Bench::CallTimes& times) { return files.read(path, times); };
    }
    const int result = Bench::runFiles(options, use);
    CNetThread::DestroyThreadPool();
    return result;
}
