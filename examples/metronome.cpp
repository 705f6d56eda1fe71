// metronome: clicks, and says how well it keeps time.
//
// What it teaches:
//  - a CNTimer is a tick that many small objects share: there are two here, since there are two rates;
//  - events of one timer are called one after the other in the order in which they were pushed, so what only
//    they touch needs no lock; what both timers touch does. They start and stop as often as you like;
//  - lateness does not add up: the last click is as close to its place as the first;
//  - the end: an event that is left on a timer closes with it, and so tells when the timer has gone.
#include <signal.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>

#include <Infra/Semaphore.h>
#include <Infra/Time.h>
#include <Reticor/NTimer.h>
#include <Reticor/NetThread.h>
#include <CLI/CLI.hpp>

using namespace Orvex::Reticor;
using Orvex::Infra::CTime;

namespace {

constexpr int BEATS_PER_BAR = 4;
Orvex::Infra::CSemaphore g_gone{0};  // counts the events that have gone

class Event : public CNTimerEvent {
public:
    int handle_close(CNetHandler* self) override {
        delete self;
        g_gone.post();
        return 0;
    }
};

/// At one rate: says how it goes. What it says is written at the other rate, so it is atomic.
class Report : public Event {
public:
    /// A beat is due every `period_us` from now on.
    explicit Report(int64_t period_us) : m_period_us(period_us) {}
    ~Report() override {
        std::printf("%ld beats, the worst %.1f ms off\n", m_beats.load(), m_worst_ms.load());
    }

    long take() {  // a beat, whose number is returned
        const long beat = ++m_beats;
        const auto passed_us = static_cast<int64_t>(CTime::getCurrentMicroSecond() - m_start_us);
        m_off_ms = static_cast<double>(passed_us - beat * m_period_us) / 1000;
        m_worst_ms = std::max(m_worst_ms.load(), std::abs(m_off_ms.load()));
        return beat;
    }

    int handle_timer_event() override {
        std::printf("      after %ld beats: the last one %+.1f ms off, the worst %.1f ms\n", m_beats.load(),
                    m_off_ms.load(), m_worst_ms.load());
        std::fflush(stdout);
        return 0;
    }

private:
    const int64_t m_period_us;
    const uint64_t m_start_us = CTime::getCurrentMicroSecond();
    std::atomic<long> m_beats{0};
    std::atomic<double> m_off_ms{0};    // of the last beat
    std::atomic<double> m_worst_ms{0};  // of all of them
};

/// The second voice, at the other rate: silent in the first bar.
class Offbeat : public Event {
public:
    int handle_timer_event() override {
        std::printf("      tick\n");
        return 0;
    }
};

/// The first voice. Pushed first, so each beat begins with it.
class Beat : public Event {
public:
    Beat(Report& report, Offbeat& other, long last) : m_report(report), m_other(other), m_last(last) {}

    int handle_timer_event() override {
        const long beat = m_report.take();
        std::printf(beat % BEATS_PER_BAR == 1 ? "%4ld  TOCK\n" : "%4ld\n", beat);
        if (beat == BEATS_PER_BAR + 1) {
            m_other.Start();  // stands after this event, and so is called in this very tick
        }
        if (beat == m_last) {
            Stop();  // itself: the timer ticks on without it
            if (beat > BEATS_PER_BAR) {
                m_other.Stop();  // before its turn has come
            }
            kill(getpid(), SIGTERM);  // main waits for that
        }
        return 0;
    }

private:
    Report& m_report;
    Offbeat& m_other;
    const long m_last;
};

}  // namespace

int main(int argc, char** argv) {
    double bpm = 120;
    double report_s = 1;
    long beats = 1000000;
    CLI::App app{"Clicks until Ctrl-C, and says how well it keeps time."};
    app.option_defaults()->always_capture_default();
    app.add_option("--bpm", bpm, "beats in a minute")->check(CLI::Range(1, 6000));
    app.add_option("--report", report_s, "seconds between reports")->check(CLI::Range(0.05, 3600.0));
    app.add_option("--beats", beats, "ends after that number of beats")->check(CLI::PositiveNumber);
    CLI11_PARSE(app, argc, argv);

    sigset_t ends;  // for main alone: threads that are started from here on inherit the mask
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    if (CreateThreadPool(2, 0) != 0) {
        return 1;
    }
    const auto period_us = static_cast<int64_t>(60e6 / bpm);
    auto* report = new Report(period_us);
    auto* offbeat = new Offbeat;
    auto* beat = new Beat(*report, *offbeat, beats);
    CNTimer* beat_timer = CNTimer::Create(period_us);
    CNTimer* report_timer = CNTimer::Create(static_cast<int64_t>(report_s * 1e6));
    if (beat_timer == nullptr || report_timer == nullptr) {
        return 1;
    }
    beat_timer->PushTimerEvent(beat);
    beat_timer->PushTimerEvent(offbeat);
    report_timer->PushTimerEvent(report);
    beat->Start();
    report->Start();

    sigwaitinfo(&ends, nullptr);
    beat_timer->Close();  // closes its events, and then is gone
    g_gone.pend();
    g_gone.pend();
    report_timer->Close();  // after the last beat
    g_gone.pend();
    return DestroyThreadPool();
}
