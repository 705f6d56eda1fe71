// metronome: clicks, and says how well it keeps time.
//
// What it teaches:
//  - a CNTimer is a tick that many small objects share: there are two here, since there are two rates;
//  - events of one timer are called one after the other in the order in which they were pushed, so what only
//    they touch needs no lock; what both timers touch does;
//  - Start and Stop as often as you like, also from inside an event's own call;
//  - lateness does not add up: the last click is as close to its place as the first;
//  - the end: an event that is left on a timer closes with it, and so tells when the timer has gone.
#include <signal.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <Infra/Semaphore.h>
#include <Infra/Time.h>
#include <Reticor/NTimer.h>
#include <CLI/CLI.hpp>

#include "support/Listener.h"

using namespace example;

namespace {

constexpr int kBeatsPerBar = 4;

Orvex::Infra::CSemaphore g_gone{0};  // counts the events that have gone

/// All events end alike.
class Event : public CNTimerEvent {
public:
    int handle_close(CNetHandler* self) override {
        delete self;
        g_gone.post();
        return 0;
    }
};

/// How far the beats were from their places. Written at one rate and read at the other.
struct Timing {
    explicit Timing(long long period) : period_us(period) {}

    const long long period_us;
    std::atomic<uint64_t> start_us{0};
    std::atomic<long> beats{0};
    std::atomic<long long> off_us{0};    // of the last beat
    std::atomic<long long> worst_us{0};  // of all of them
};

/// The second voice: silent in the first bar.
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
    Beat(Timing& timing, Offbeat& other, long last) : m_timing(timing), m_other(other), m_last(last) {}

    int handle_timer_event() override {
        const long beat = ++m_timing.beats;
        measure(beat);
        const bool bar = beat % kBeatsPerBar == 1;
        std::printf(bar ? "%4ld  TOCK\n" : "%4ld\n", beat);
        if (beat == kBeatsPerBar + 1) {
            m_other.Start();  // stands after this event, and so is called in this very tick
        }
        if (beat == m_last) {
            Stop();  // itself: the timer ticks on without it
            if (beat > kBeatsPerBar) {
                m_other.Stop();  // before its turn has come
            }
            kill(getpid(), SIGTERM);  // main waits for that
        }
        return 0;
    }

private:
    void measure(long beat) {
        const auto passed =
            static_cast<long long>(Orvex::Infra::CTime::getCurrentMicroSecond() - m_timing.start_us);
        const long long off = passed - beat * m_timing.period_us;
        m_timing.off_us = off;
        m_timing.worst_us = std::max<long long>(m_timing.worst_us, std::llabs(off));
    }

    Timing& m_timing;
    Offbeat& m_other;
    const long m_last;
};

/// At the other rate: says how it goes.
class Report : public Event {
public:
    explicit Report(const Timing& timing) : m_timing(timing) {}

    int handle_timer_event() override {
        std::printf("      after %ld beats: the last one %+.1f ms off, the worst %.1f ms\n",
                    m_timing.beats.load(), static_cast<double>(m_timing.off_us) / 1000,
                    static_cast<double>(m_timing.worst_us) / 1000);
        std::fflush(stdout);
        return 0;
    }

private:
    const Timing& m_timing;
};

/// Returns when a signal has come, or the beats are over.
int play(EndSignals& signals, long long period_us, long long report_us, long beats) {
    Timing timing(period_us);
    timing.start_us = Orvex::Infra::CTime::getCurrentMicroSecond();
    CNTimer* beat_timer = CNTimer::Create(period_us);
    CNTimer* report_timer = CNTimer::Create(report_us);
    if (beat_timer == nullptr || report_timer == nullptr) {
        return 1;
    }
    auto* offbeat = new Offbeat;
    auto* beat = new Beat(timing, *offbeat, beats);
    auto* report = new Report(timing);
    beat_timer->PushTimerEvent(beat);
    beat_timer->PushTimerEvent(offbeat);
    report_timer->PushTimerEvent(report);
    beat->Start();
    report->Start();

    signals.wait();
    beat_timer->Close();  // closes its events, and then is gone; so does the other
    report_timer->Close();
    for (int i = 0; i < 3; ++i) {
        g_gone.pend();
    }
    std::printf("%ld beats, the worst %.1f ms off\n", timing.beats.load(),
                static_cast<double>(timing.worst_us) / 1000);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    double bpm = 120;
    double report_s = 1;
    long beats = 1000000;
    CLI::App app{"Clicks until Ctrl-C, and says how well it keeps time."};
    app.add_option("--bpm", bpm, "beats in a minute")->check(CLI::Range(1, 6000))->capture_default_str();
    app.add_option("--report", report_s, "seconds between reports")
        ->check(CLI::Range(0.05, 3600.0))
        ->capture_default_str();
    app.add_option("--beats", beats, "ends after that number of beats")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    EndSignals signals;
    if (CreateThreadPool(2, 0) != 0) {
        return 1;
    }
    const int result =
        play(signals, static_cast<long long>(60e6 / bpm), static_cast<long long>(report_s * 1e6), beats);
    DestroyThreadPool();
    return result;
}
