// The timer rows; see the header.
#include "TimerRows.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <numeric>
#include <random>
#include <vector>

#include "Usage.h"

namespace Bench {

namespace {

constexpr std::uint64_t kHourUs = 3600000000U;

using Random = std::mt19937_64;

// Made before the clock runs, so that the random numbers are not measured.
std::vector<std::uint64_t> randomDelays(std::size_t count, Random& random) {
    std::uniform_int_distribution<std::uint64_t> delay(kHourUs, 20 * kHourUs);
    std::vector<std::uint64_t> delays(count);
    std::generate(delays.begin(), delays.end(), [&] { return delay(random); });
    return delays;
}

std::vector<std::size_t> randomOrder(std::size_t count, Random& random) {
    std::vector<std::size_t> order(count);
    std::iota(order.begin(), order.end(), 0U);
    std::shuffle(order.begin(), order.end(), random);
    return order;
}

double perCall(std::uint64_t beginNs, std::size_t calls) {
    return static_cast<double>(threadCpuNs() - beginNs) / static_cast<double>(calls);
}

double armAll(const TimerUse& use, const std::vector<std::uint64_t>& delays) {
    const std::uint64_t begin = threadCpuNs();
    for (std::size_t place = 0; place < delays.size(); ++place) {
        use.arm(place, delays[place]);
    }
    return perCall(begin, delays.size());
}

double cancelAll(const TimerUse& use, const std::vector<std::size_t>& order) {
    const std::uint64_t begin = threadCpuNs();
    for (std::size_t place : order) {
        use.cancel(place);
    }
    return perCall(begin, order.size());
}

double churn(const TimerOptions& options, const TimerUse& use, Random& random) {
    const std::vector<std::uint64_t> delays = randomDelays(options.churn, random);
    std::uniform_int_distribution<std::size_t> anyPlace(0, options.pending - 1);
    std::vector<std::size_t> places(options.churn);
    std::generate(places.begin(), places.end(), [&] { return anyPlace(random); });
    const std::uint64_t begin = threadCpuNs();
    for (std::size_t i = 0; i < options.churn; ++i) {
        use.cancel(places[i]);
        use.arm(places[i], delays[i]);
    }
    return perCall(begin, options.churn);
}

}  // namespace

TimerOptions parseTimerOptions(int argc, char** argv, const char* description) {
    TimerOptions options;
    CLI::App app(description);
    app.add_option("--many", options.many, "timers armed together")->check(CLI::PositiveNumber);
    app.add_option("--pending", options.pending, "timers pending during the churn")
        ->check(CLI::PositiveNumber);
    app.add_option("--churn", options.churn, "pairs of cancelling and arming")->check(CLI::PositiveNumber);
    app.add_option("--idle-seconds", options.idleSeconds, "how long the sleeping thread is watched");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::exit(app.exit(error));
    }
    options.many = std::max(options.many, options.pending);
    return options;
}

// Everything is done once before it counts: the first pass pays for the pages of a million records. The churn
// comes first, since it is about the timers of a program that never had more than a few.
void runTimers(const TimerOptions& options, const TimerUse& use) {
    Random random(20240501);
    nlohmann::json result;
    armAll(use, randomDelays(options.pending, random));
    churn(options, use, random);
    result["churn_pair_ns"] = churn(options, use, random);
    cancelAll(use, randomOrder(options.pending, random));

    const std::vector<std::uint64_t> delays = randomDelays(options.many, random);
    const std::vector<std::size_t> order = randomOrder(options.many, random);
    armAll(use, delays);
    cancelAll(use, order);
    result["arm_ns"] = armAll(use, delays);
    result["cancel_ns"] = cancelAll(use, order);

    armAll(use, randomDelays(options.pending, random));
    result["idle_seconds"] = options.idleSeconds;
    result["idle_wakeups"] = use.wakeUps(options.idleSeconds);
    cancelAll(use, randomOrder(options.pending, random));
    std::printf("%s\n", result.dump().c_str());
    std::fflush(stdout);
}

}  // namespace Bench
