// Watch: one thread that waits for keys, signals and answers at a time.
#include "top/Watch.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <utility>

#include "kit/EndSignals.h"
#include "top/Report.h"
#include "top/Text.h"

namespace top {

namespace {

constexpr uint64_t SECOND_us = 1000000;
constexpr uint64_t SLOW_us = 2 * SECOND_us;  // from when on an answer is missed
constexpr uint64_t PARTING_us = SECOND_us / 2;

uint64_t now_us() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * SECOND_us + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

int ms_until(uint64_t then_us) {
    const uint64_t now = now_us();
    return then_us > now ? static_cast<int>(std::min<uint64_t>((then_us - now) / 1000 + 1, 60000)) : 0;
}

/// `told`: its number as it says itself, where the system does not say it, or has another one here.
std::string describe(pid_t process, int64_t told) {
    if (process <= 0) {
        return told > 0 ? "pid " + std::to_string(told) : "";
    }
    std::string name;
    std::getline(std::ifstream("/proc/" + std::to_string(process) + "/comm"), name);
    return "pid " + std::to_string(process) + (name.empty() ? "" : " " + name);
}

size_t width_of_output() {
    winsize size{};
    return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

}  // namespace

Watch::Watch(const Options& options, const Target& target)
    : m_options(options),
      m_every_us(static_cast<uint64_t>(options.every_s * 1e6)),
      m_settings(options.view),
      m_feed(target) {
    m_contact.target = target.text();
    m_heard_us = now_us();
    if (options.timing && target.isHttp()) {
        m_settings.notice = "a relay's page has no switch for times";
    } else if (options.timing) {
        m_wanted = "timing on";
        m_times_are_ours = true;
    }
}

/// The answer is taken from the feed. False if there is none: m_feed.error() says why.
bool Watch::ask_and_wait(const std::string& request) {
    m_feed.ask(request, now_us());
    for (;;) {
        const Feed::State state = m_feed.advance(now_us());
        if (state != Feed::State::ASKING) {
            return state == Feed::State::ANSWERED;
        }
        pollfd ready{m_feed.fd(), m_feed.events(), 0};
        ::poll(&ready, 1, ms_until(m_feed.deadline_us()));
    }
}

bool Watch::look_and_wait(std::string& answer) {
    std::string wrong;
    Look look;
    if (!ask_and_wait("json")) {
        wrong = m_feed.error();
    } else {
        answer = m_feed.takeAnswer();
        look.read(answer, now_us(), wrong);
    }
    if (!wrong.empty()) {
        std::fprintf(stderr, "reticor-top: %s: %s\n", m_contact.target.c_str(), wrong.c_str());
        return false;
    }
    m_model.add(std::move(look), m_feed.peer());
    m_contact.process = describe(m_feed.peer(), m_model.now().pid);
    return true;
}

int Watch::runOnce() {
    std::string answer;
    if ((!m_wanted.empty() && !ask_and_wait(m_wanted)) || !look_and_wait(answer)) {
        return 1;
    }
    const uint64_t second_us = now_us() + m_every_us;
    for (int left_ms; (left_ms = ms_until(second_us)) > 0;) {
        ::poll(nullptr, 0, left_ms);
    }
    const bool seen = look_and_wait(answer);
    if (seen && !m_model.namelessCalls().empty() && ask_and_wait("handlers")) {
        m_model.nameHandlers(readClassesOfHandlers(m_feed.takeAnswer()));
    }
    if (m_times_are_ours) {
        ask_and_wait("timing off");
    }
    if (!seen) {
        return 1;
    }
    print(answer);
    return std::fflush(stdout) == 0 ? 0 : 1;
}

void Watch::print(const std::string& answer) const {
    if (m_options.json) {
        std::fputs(reportJson(m_model, m_contact, answer).c_str(), stdout);
        return;
    }
    for (const Line& line : View(m_model, m_settings, m_contact).text(width_of_output())) {
        std::fputs((plain(line) + "\n").c_str(), stdout);
    }
}

void Watch::ask_next() {
    const uint64_t now = now_us();
    if (m_feed.isAsking() || (m_settings.held && m_wanted.empty())) {
        return;
    }
    if (!m_wanted.empty() && m_contact.trouble.empty()) {
        m_feed.ask(std::exchange(m_wanted, std::string()), now);
    } else if (now >= m_next_us) {
        m_next_us = now + m_every_us;
        m_feed.ask("json", now);
    } else {
        return;
    }
    m_asked_us = now;
}

void Watch::advance() {
    const Feed::State state = m_feed.advance(now_us());
    if (state == Feed::State::ANSWERED) {
        m_changed = true;
        take_answer();
    } else if (state == Feed::State::FAILED) {
        m_changed = true;
        m_contact.trouble = m_feed.error();
    } else if (state == Feed::State::ASKING && now_us() - m_asked_us >= SLOW_us &&
               m_contact.trouble.empty()) {
        m_changed = true;
        m_contact.trouble = "no answer yet";
    }
}

void Watch::take_answer() {
    const uint64_t now = now_us();
    const std::string answer = m_feed.takeAnswer();
    if (m_feed.request() == "handlers") {
        m_model.nameHandlers(readClassesOfHandlers(answer));
        return;
    }
    if (m_feed.request() != "json") {
        m_next_us = 0;
        return;
    }
    Look look;
    std::string wrong;
    if (!look.read(answer, now, wrong)) {
        m_contact.trouble = wrong;
        return;
    }
    m_contact.trouble.clear();
    m_heard_us = now;
    if (m_model.add(std::move(look), m_feed.peer())) {
        m_settings.notice = "another process answers now: rates begin anew";
        m_wanted = m_times_are_ours ? "timing on" : "";
    }
    m_contact.process = describe(m_feed.peer(), m_model.now().pid);
    if (!m_model.now().is_relay && m_wanted.empty() && !m_model.namelessCalls().empty()) {
        m_wanted = "handlers";
    }
}

void Watch::switch_timing() {
    if (m_model.isEmpty() || m_model.now().is_relay) {
        m_settings.notice = m_model.isEmpty() ? "nobody answers" : "a relay's page has no switch for times";
        return;
    }
    m_times_are_ours = !m_model.now().timing;
    m_wanted = m_times_are_ours ? "timing on" : "timing off";
    m_settings.notice = m_times_are_ours ? "times of handlers are measured now: p99, busy, each"
                                         : "times of handlers are not measured any more";
}

void Watch::take_letter_of_filter(int key) {
    std::string& filter = m_settings.filter;
    if (key == KEY_ENTER_ || key == KEY_ESCAPE) {
        m_settings.typing = false;
        filter = key == KEY_ESCAPE ? "" : filter;
    } else if (key == KEY_RUB) {
        while (!filter.empty() && (static_cast<unsigned char>(filter.back()) & 0xc0) == 0x80) {
            filter.pop_back();
        }
        if (!filter.empty()) {
            filter.pop_back();
        }
    } else if (key >= ' ' && key < KEY_RUB) {
        filter += utf8(key);
    }
}

void Watch::scroll(int key) {
    const size_t rows = View(m_model, m_settings, m_contact).rows();
    const size_t page = std::max<size_t>(1, m_screen.height() / 2);
    const size_t last = rows > 0 ? rows - 1 : 0;
    size_t& first = m_settings.first;
    if (key == DOWN || key == PAGE_DOWN) {
        first = std::min(last, first + (key == DOWN ? 1 : page));
    } else {
        const size_t up = key == TOP ? first : key == UP ? 1 : page;
        first -= std::min(up, first);
    }
}

void Watch::take_key(int key) {
    m_changed = true;
    m_settings.notice.clear();
    if (m_settings.typing) {
        take_letter_of_filter(key);
        return;
    }
    if (m_settings.help) {
        m_settings.help = false;
        m_ends = key == 'q';
        return;
    }
    if (key >= '0' && key <= '0' + static_cast<int>(View::PARTS)) {
        m_settings.part = static_cast<size_t>(key - '0');
        m_settings.first = 0;
        return;
    }
    switch (key) {
        case 'q':
        case 'Q':
            m_ends = true;
            break;
        case 's':
            m_settings.order = static_cast<Order>((static_cast<int>(m_settings.order) + 1) % 4);
            break;
        case 'r':
            m_settings.reverse = !m_settings.reverse;
            break;
        case '/':
            m_settings.typing = true;
            break;
        case KEY_ESCAPE:
            m_settings.filter.clear();
            break;
        case ' ':
        case 'p':
            m_settings.held = !m_settings.held;
            break;
        case 't':
            switch_timing();
            break;
        case '?':
        case 'h':
            m_settings.help = true;
            break;
        default:
            scroll(key);
    }
}

void Watch::take_keys() {
    for (int key; !m_ends && (key = m_screen.key()) != NO_KEY;) {
        if (key != 0) {
            take_key(key);
        }
    }
}

void Watch::draw() {
    m_contact.silent_s = static_cast<double>(now_us() - m_heard_us) / 1e6;
    m_screen.draw(View(m_model, m_settings, m_contact).screen(m_screen.width(), m_screen.height()));
    m_changed = false;
}

/// Until something is there to do. False if it is time to end.
bool Watch::wait(int end_fd) {
    uint64_t until_us = m_feed.isAsking() ? std::min(m_feed.deadline_us(), m_asked_us + SLOW_us) : m_next_us;
    until_us = std::max(until_us, now_us() + 1000);
    if (m_settings.held || !m_contact.trouble.empty() || m_feed.isAsking()) {
        until_us = std::min(until_us, now_us() + SECOND_us);  // the screen tells for how long it has been so
    }
    pollfd ready[] = {{STDIN_FILENO, POLLIN, 0},
                      {end_fd, POLLIN, 0},
                      {m_screen.sizeFd(), POLLIN, 0},
                      {m_feed.fd(), m_feed.events(), 0}};
    if (::poll(ready, 4, ms_until(m_settings.held && !m_feed.isAsking() ? now_us() + SECOND_us : until_us)) ==
        0) {
        m_changed = m_changed || !m_contact.trouble.empty();
    }
    if (ready[2].revents != 0) {
        m_screen.takeSize();
        m_changed = true;
    }
    // A terminal that has gone.
    return ready[1].revents == 0 && (ready[0].revents & (POLLHUP | POLLERR | POLLNVAL)) == 0;
}

/// Leaves the process as it was, if it takes that at once.
void Watch::end_timing() {
    if (!m_times_are_ours) {
        return;
    }
    const uint64_t limit_us = now_us() + PARTING_us;
    m_feed.ask("timing off", now_us());
    while (m_feed.advance(now_us()) == Feed::State::ASKING && now_us() < limit_us) {
        pollfd ready{m_feed.fd(), m_feed.events(), 0};
        ::poll(&ready, 1, ms_until(limit_us));
    }
}

int Watch::run() {
    LoadKit::EndSignals ends;
    std::string wrong;
    if (!m_screen.start(wrong)) {
        std::fprintf(stderr, "reticor-top: %s\n", wrong.c_str());
        return 1;
    }
    draw();
    do {
        take_keys();
        advance();
        ask_next();
        advance();
        if (m_changed && !m_ends) {
            draw();
        }
    } while (!m_ends && wait(ends.fd()));
    end_timing();
    return 0;
}

}  // namespace top
