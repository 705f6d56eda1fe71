// Browser: messages of JSON, each ended by a NUL byte, on descriptors 3 and 4 of the browser.

#include "support/program/Browser.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/Eventually.h"

namespace Orvex::Testing {

using nlohmann::json;

namespace {

constexpr int kLimit_ms = 30000;

[[noreturn]] void become(const std::string& folder, int commands, int answers) {
    setpgid(0, 0);  // the browser starts processes of its own, which are to end with it
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int from = fcntl(commands, F_DUPFD, 10);  // out of the way of 3 and 4
    const int to = fcntl(answers, F_DUPFD, 10);
    dup2(from, 3);
    dup2(to, 4);
    close_range(5, ~0U, 0);
    const int silence = open("/dev/null", O_RDWR);
    dup2(silence, STDOUT_FILENO);
    dup2(silence, STDERR_FILENO);
    // The pages are our own, so the sandbox may be left out: it works neither for root nor in most
    // containers.
    const std::string profile = "--user-data-dir=" + folder;
    execlp("chromium-headless-shell", "chromium-headless-shell", "--remote-debugging-pipe", "--no-sandbox",
           "--disable-gpu", "--disable-dev-shm-usage", "--window-size=1000,900", profile.c_str(),
           "about:blank", nullptr);
    _exit(127);
}

}  // namespace

Browser::Browser(const std::string& url) {
    int commands[2];
    int answers[2];
    if (pipe2(commands, O_CLOEXEC) != 0 || pipe2(answers, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "no pipes";
        return;
    }
    signal(SIGPIPE, SIG_IGN);
    m_pid = fork();
    if (m_pid == 0) {
        become(m_folder.path(), commands[0], answers[1]);
    }
    close(commands[0]);
    close(answers[1]);
    m_commands = commands[1];
    m_answers = answers[0];
    open(url);
}

Browser::~Browser() {
    if (m_pid > 0) {
        kill(-m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    close(m_commands);
    close(m_answers);
}

void Browser::open(const std::string& url) {
    const json target = call("Target.createTarget", {{"url", url}});
    const json attached =
        call("Target.attachToTarget", {{"targetId", target.value("targetId", "")}, {"flatten", true}});
    m_session = attached.value("sessionId", "");
    EXPECT_NE("", m_session) << "the browser opens no page";
}

/// The next message; false if none comes, or the browser has ended.
bool Browser::receive(json& message) {
    size_t end;
    while ((end = m_read.find('\0')) == std::string::npos) {
        pollfd ready{m_answers, POLLIN, 0};
        std::vector<char> room(65536);
        const ssize_t got =
            poll(&ready, 1, scaledMs(kLimit_ms)) > 0 ? read(m_answers, room.data(), room.size()) : -1;
        if (got <= 0) {
            ADD_FAILURE() << "the browser " << (got == 0 ? "has ended" : "does not answer");
            return false;
        }
        m_read.append(room.data(), static_cast<size_t>(got));
    }
    message = json::parse(m_read.substr(0, end), nullptr, false);
    m_read.erase(0, end + 1);
    return true;
}

json Browser::call(const std::string& method, const json& parameters) {
    json command{{"id", ++m_number}, {"method", method}, {"params", parameters}};
    if (!m_session.empty()) {
        command["sessionId"] = m_session;
    }
    const std::string text = command.dump();
    if (write(m_commands, text.c_str(), text.size() + 1) != static_cast<ssize_t>(text.size() + 1)) {
        return json::object();
    }
    json message;
    while (receive(message)) {
        if (message.value("id", 0) == m_number) {  // and no event
            return message.value("result", json::object());
        }
    }
    return json::object();
}

json Browser::evaluate(const std::string& expression) {
    const json answer = call("Runtime.evaluate",
                             {{"expression", expression}, {"returnByValue", true}, {"awaitPromise", true}});
    if (answer.contains("exceptionDetails") || !answer.contains("result")) {
        return nullptr;
    }
    return answer["result"].value("value", json());
}

bool Browser::becomesTrue(const std::string& expression) {
    return eventually([&] { return ::testing::Test::HasFailure() || evaluate(expression) == true; },
                      kLimit_ms) &&
           !::testing::Test::HasFailure();
}

}  // namespace Orvex::Testing
