// The tick row on Reticor: many events on one CNTimer.
//
// Three times: a single event on a pool that has nothing else to do, many events there, and many events while
// messages keep every worker busy. Each tick is compared with the grid that begins when the timer is made.
#include <Reticor/NTimer.h>
#include <Reticor/NetHandler.h>
#include <Reticor/NetThread.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

#include "common/Alive.h"
#include "common/Usage.h"

namespace {

using namespace Orvex::Reticor;

Bench::Alive alive;

struct Options {
    long long periodUs = 20000;
    std::size_t events = 1000;
    double idleSeconds = 4;
    double loadedSeconds = 10;
    unsigned messages = 32;     // under way while the pool is loaded
    std::uint64_t workUs = 20;  // that each of them takes
};

// Written by the ticks of one timer, which never overlap; outlives its events.
struct Record {
    std::uint64_t calls = 0;
    std::vector<std::uint64_t> firstNs;  // when each tick came to its first event
    std::uint64_t firstCpuNs = 0;        // of the worker, there
    std::uint64_t cpuNs = 0;             // from the first event of the ticks to the last
};

class Event : public CNTimerEvent {
public:
    explicit Event(Record& record) : m_record(record) { alive.enter(); }
    int handle_timer_event() override {
        ++m_record.calls;
        return 0;
    }
    int handle_close(CNetHandler* self) override {
        delete self;
        alive.leave();
        return 0;
    }

protected:
    Record& m_record;
};

class FirstEvent : public Event {
public:
    using Event::Event;
    int handle_timer_event() override {
        m_record.firstNs.push_back(Bench::nowNs());
        m_record.firstCpuNs = Bench::threadCpuNs();
        return Event::handle_timer_event();
    }
};

class LastEvent : public Event {
public:
    using Event::Event;
    int handle_timer_event() override {
        m_record.cpuNs += Bench::threadCpuNs() - m_record.firstCpuNs;
        return Event::handle_timer_event();
    }
};

// A message that is sent again as soon as it was handled.
class Load : public CNetHandler {
public:
    Load(const Options& options, const std::atomic<bool>& over)
        : m_workNs(options.workUs * 1000), m_over(over) {
        alive.enter();
    }
    void start() { Notify(GetID(), 1, 0); }
    int handle_message(long, unsigned, long) override {
        for (const std::uint64_t begin = Bench::nowNs(); Bench::nowNs() - begin < m_workNs;) {
        }
        if (m_over) {
            Close();
        } else {
            Notify(GetID(), 1, 0);
        }
        return 0;
    }
    int handle_close(CNetHandler* self) override {
        delete self;
        alive.leave();
        return 0;
    }

private:
    const std::uint64_t m_workNs;
    const std::atomic<bool>& m_over;
};

void sleepFor(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

void add(CNTimer& timer, CNTimerEvent* event) {
    timer.PushTimerEvent(event);
    event->Start();
}

[[noreturn]] void fail(const char* why) {
    std::fprintf(stderr, "%s\n", why);
    std::exit(1);
}

void waitForTheEnd() {
    if (!alive.waitForNone()) {
        fail("handlers are left over");
    }
}

double at(const std::vector<double>& sorted, double share) {
    return sorted[std::min(sorted.size() - 1,
                           static_cast<std::size_t>(share * static_cast<double>(sorted.size())))];
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return at(values, 0.5);
}

nlohmann::json punctuality(const Options& options, const Record& record, std::uint64_t startNs) {
    const double periodUs = static_cast<double>(options.periodUs);
    std::vector<double> lateUs;
    for (const std::uint64_t ns : record.firstNs) {
        const double point = periodUs * static_cast<double>(lateUs.size() + 1);
        lateUs.push_back(static_cast<double>(ns - startNs) / 1000 - point);
    }
    // Ends of the run are compared: a timer that loses time, or gives its grid up, is off at the end.
    const auto tenth = static_cast<std::ptrdiff_t>(lateUs.size() / 10 + 1);
    const double driftUs =
        median({lateUs.end() - tenth, lateUs.end()}) - median({lateUs.begin(), lateUs.begin() + tenth});
    nlohmann::json result;
    result["ticks"] = lateUs.size();
    result["drift_us"] = driftUs;
    result["drift_steps"] = std::abs(std::lround(driftUs / 5000));  // of the grid of all timers
    std::sort(lateUs.begin(), lateUs.end());
    result["p50_us"] = at(lateUs, 0.5);
    result["p99_us"] = at(lateUs, 0.99);
    result["max_us"] = lateUs.back();
    return result;
}

// A timer whose start is known: Create was not interrupted.
CNTimer* createTimer(const Options& options, std::uint64_t& startNs) {
    for (int i = 0; i < 1000; ++i) {
        startNs = Bench::nowNs();
        CNTimer* timer = CNTimer::Create(options.periodUs);
        if (Bench::nowNs() - startNs < 200000) {
            return timer;
        }
        timer->Close();
    }
    fail("no timer could be made without an interruption");
}

void addEvents(CNTimer& timer, std::size_t events, Record& record) {
    add(timer, new FirstEvent(record));
    for (std::size_t i = 2; i < events; ++i) {
        add(timer, new Event(record));
    }
    if (events > 1) {
        add(timer, new LastEvent(record));
    }
}

nlohmann::json measure(const Options& options, std::size_t events, double seconds, unsigned messages) {
    Record record;
    record.firstNs.reserve(static_cast<std::size_t>(1e6 * seconds / 2000) + 1000);
    std::atomic<bool> over{false};
    const std::uint64_t before = Bench::ownCpuNs();
    std::uint64_t startNs = 0;
    CNTimer* timer = createTimer(options, startNs);
    addEvents(*timer, events, record);
    for (unsigned i = 0; i < messages; ++i) {
        (new Load(options, over))->start();
    }
    sleepFor(seconds);
    timer->Close();
    over = true;
    waitForTheEnd();
    const double used = static_cast<double>(Bench::ownCpuNs() - before);
    if (record.firstNs.size() < 2) {
        fail("too few ticks");
    }
    nlohmann::json result = punctuality(options, record, startNs);
    const double ticks = static_cast<double>(record.firstNs.size());
    if (messages == 0) {
        result["process_us_per_tick"] = used / ticks / 1000;
    }
    if (events > 1) {
        result["cpu_ns_per_event"] =
            static_cast<double>(record.cpuNs) / ticks / static_cast<double>(events - 1);
    }
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("events on one timer");
    app.add_option("--period-us", options.periodUs, "of the timer")->check(CLI::PositiveNumber);
    app.add_option("--events", options.events, "on the timer")->check(CLI::Range(2, 1000000));
    app.add_option("--idle-seconds", options.idleSeconds, "with nothing but the events");
    app.add_option("--loaded-seconds", options.loadedSeconds, "with every worker busy");
    CLI11_PARSE(app, argc, argv);
    if (CNetThread::CreateThreadPool(2, false) != 0) {
        return 1;
    }
    nlohmann::json result;
    result["one"] = measure(options, 1, options.idleSeconds, 0);
    result["many"] = measure(options, options.events, options.idleSeconds, 0);
    result["loaded"] = measure(options, options.events, options.loadedSeconds, options.messages);
    CNetThread::DestroyThreadPool();
    std::printf("%s\n", result.dump().c_str());
    return 0;
}
