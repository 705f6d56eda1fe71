// shop_program: a process that serves its statistics, at the path in its command line.
// Prints "serving", and takes lines: "hang" has all workers of its pool wait until "go on"; "end" ends it.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <Infra/Semaphore.h>
#include <Reticor/NetHandler.h>
#include <Reticor/NetThread.h>

using namespace Orvex::Reticor;

namespace Shop {

Orvex::Infra::CSemaphore g_go_on{0};
Orvex::Infra::CSemaphore g_gone{0};

/// Sells something every 5 ms, and tells the report.
class Till : public CNetHandler {
public:
    explicit Till(long report) : m_report(report) {}
    void open() { SetTimer(5000); }

    int64_t handle_timeout(long) override {
        for (int i = 0; i < 20; ++i) {
            Notify(m_report, 1, i);
        }
        return 0;
    }
    int handle_close(CNetHandler* self) override {
        delete self;
        g_gone.post();
        return 0;
    }

private:
    const long m_report;
};

/// Adds up; message 2 waits until it may go on.
class Report : public CNetHandler {
public:
    void send(unsigned int message) { Notify(GetID(), message, 0); }

    int handle_message(long, unsigned int message, long value) override {
        if (message == 2) {
            g_go_on.pend();
        }
        m_sum += value;
        return 0;
    }
    int handle_close(CNetHandler* self) override {
        delete self;
        g_gone.post();
        return 0;
    }

private:
    std::atomic<long> m_sum{0};
};

}  // namespace Shop

int main(int argc, char** argv) {
    constexpr int WORKERS = 2;
    constexpr int CALLS = 16;  // more than there are workers
    if (argc != 2 || CNetThread::CreateThreadPool(WORKERS, false) != 0 ||
        CNetThread::ServeStats(argv[1]) != 0) {
        return EXIT_FAILURE;
    }
    auto* const report = new Shop::Report;
    auto* const till = new Shop::Till(report->GetID());
    till->open();
    std::printf("serving\n");
    std::fflush(stdout);
    char line[64];
    while (std::fgets(line, sizeof line, stdin) != nullptr && std::strcmp(line, "end\n") != 0) {
        for (int i = 0; i < CALLS && std::strcmp(line, "hang\n") == 0; ++i) {
            report->send(2);
        }
        for (int i = 0; i < CALLS && std::strcmp(line, "go on\n") == 0; ++i) {
            Shop::g_go_on.post();
        }
    }
    till->Close();
    report->Close();
    Shop::g_gone.pend();
    Shop::g_gone.pend();
    CNetThread::StopServingStats();
    CNetThread::DestroyThreadPool();
    return EXIT_SUCCESS;
}
