// The message rows; see the header.
#include "MessageBoard.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <thread>

#include "Usage.h"

namespace Bench {

namespace {

using Post = std::function<void(std::size_t, long)>;

void postAll(MessageBoard& board, std::uint64_t count, const Post& post) {
    std::size_t receiver = 0;
    for (std::uint64_t value = 1; value <= count; ++value) {
        post(receiver, static_cast<long>(value));
        receiver = receiver + 1 == board.receivers() ? 0 : receiver + 1;
    }
}

double perMessage(std::uint64_t total, std::uint64_t messages) {
    return static_cast<double>(total) / static_cast<double>(messages);
}

// Allocations by message once warm. "Warm" is an exact state here: as many messages have been pending
// together as will ever be again, for a queue that is longer than it ever was needs memory in any design.
double allocationsPerMessage(const MessageOptions& options, MessageBoard& board, const Post& post,
                             std::uint64_t (*countAllocations)(bool)) {
    const std::uint64_t window = std::min<std::uint64_t>(options.messages, 10000);
    board.expect(window);
    board.hold();
    postAll(board, window, post);
    board.release();
    board.waitForAll();

    const std::uint64_t windows = options.messages / window;
    countAllocations(true);
    for (std::uint64_t i = 0; i < windows; ++i) {
        board.expect(window);
        postAll(board, window, post);
        board.waitForAll();
    }
    return perMessage(countAllocations(false), windows * window);
}

// A pass to warm up, one on the clock, and the same number of messages once more to count allocations.
nlohmann::json runStream(const MessageOptions& options, MessageBoard& board, const Post& post,
                         std::uint64_t (*countAllocations)(bool)) {
    auto pass = [&] {
        board.expect(options.messages);
        postAll(board, options.messages, post);
        board.waitForAll();
    };
    pass();
    const std::uint64_t cpu = ownCpuNs();
    const std::uint64_t begin = nowNs();
    pass();
    const std::uint64_t wallNs = nowNs() - begin;
    const std::uint64_t cpuNs = ownCpuNs() - cpu;
    return {{"ns_per_message", perMessage(wallNs, options.messages)},
            {"cpu_ns_per_message", perMessage(cpuNs, options.messages)},
            {"allocations_per_message", allocationsPerMessage(options, board, post, countAllocations)}};
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

nlohmann::json runBursts(const MessageOptions& options, MessageBoard& board, const Post& post) {
    std::vector<double> firstUs;
    std::vector<double> wholeNs;
    for (unsigned i = 0; i < options.bursts; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));  // long enough for every worker to sleep
        board.expect(options.burst);
        const std::uint64_t begin = nowNs();
        postAll(board, options.burst, post);
        board.waitForAll();
        firstUs.push_back(static_cast<double>(board.firstNs() - begin) / 1000);
        wholeNs.push_back(perMessage(nowNs() - begin, options.burst));
    }
    return {{"first_us", median(firstUs)},
            {"first_us_worst", *std::max_element(firstUs.begin(), firstUs.end())},
            {"ns_per_message", median(wholeNs)}};
}

}  // namespace

MessageOptions parseMessageOptions(int argc, char** argv, const char* description) {
    MessageOptions options;
    CLI::App app(description);
    app.add_option("--threads", options.threads, "workers of the pool")->check(CLI::PositiveNumber);
    app.add_option("--receivers", options.receivers, "receivers, served in turn")->check(CLI::PositiveNumber);
    app.add_option("--messages", options.messages, "messages of a pass")->check(CLI::PositiveNumber);
    app.add_option("--burst", options.burst, "messages of a burst")->check(CLI::PositiveNumber);
    app.add_option("--bursts", options.bursts, "bursts")->check(CLI::PositiveNumber);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::exit(app.exit(error));
    }
    return options;
}

void MessageBoard::expect(std::uint64_t count) {
    const std::uint64_t each = count / m_receivers.size();
    const std::uint64_t more = count % m_receivers.size();
    for (std::size_t i = 0; i < m_receivers.size(); ++i) {
        m_receivers[i].missing = static_cast<std::int64_t>(each + (i < more ? 1 : 0));
        m_receivers[i].sum = 0;
    }
    m_incomplete = each > 0 ? m_receivers.size() : more;
    m_expected = count;
    m_lastValue = 0;
    m_firstNs = 0;
}

void MessageBoard::noteFirst() {
    if (m_held) {
        std::unique_lock<std::mutex> guard(m_mutex);
        m_released.wait(guard, [this] { return !m_held; });
    }
    std::uint64_t none = 0;
    m_firstNs.compare_exchange_strong(none, nowNs());
}

void MessageBoard::release() {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_held = false;
    m_released.notify_all();
}

void MessageBoard::noteComplete() {
    if (m_incomplete.fetch_sub(1) == 1) {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_complete.notify_all();
    }
}

void MessageBoard::waitForAll() {
    {
        std::unique_lock<std::mutex> guard(m_mutex);
        if (!m_complete.wait_for(guard, std::chrono::minutes(1), [this] { return m_incomplete == 0; })) {
            std::fprintf(stderr, "messages are missing after a minute\n");
            std::_Exit(1);
        }
    }
    std::int64_t sum = 0;
    bool doubled = false;
    for (const Receiver& receiver : m_receivers) {
        sum += receiver.sum;
        doubled = doubled || receiver.missing != 0;
    }
    if (doubled || m_disorder || sum != static_cast<std::int64_t>(m_expected * (m_expected + 1) / 2)) {
        std::fprintf(stderr, "messages were doubled, mixed up or out of order\n");
        std::_Exit(1);
    }
}

void runMessages(const MessageOptions& options, MessageBoard& board, const MessagePost& posts,
                 std::uint64_t (*countAllocations)(bool)) {
    nlohmann::json result;
    result["stream"] = runStream(options, board, posts.post, countAllocations);
    if (posts.postSerial) {
        result["serial"] = runStream(options, board, posts.postSerial, countAllocations);
    }
    result["burst"] = runBursts(options, board, posts.post);
    std::printf("%s\n", result.dump().c_str());
    std::fflush(stdout);
}

}  // namespace Bench
