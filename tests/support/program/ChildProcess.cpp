// ChildProcess: fork, pipes and deadlines.

#include "support/program/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "support/Eventually.h"

namespace Orvex::Testing {

namespace {

constexpr int CHILD_LIMIT_MS = 30000;

/// Signals as a terminal hands them to a program: what the test was started from may have them ignored, a
/// shell in the background for example, and a script cannot trap what was ignored when it began.
void take_default_signals() {
    for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGTERM}) {
        ::signal(number, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

[[noreturn]] void become(const std::vector<std::string>& command, unsigned long descriptors, int input,
                         int output) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    take_default_signals();
    dup2(input, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    close_range(STDERR_FILENO + 1, ~0U, 0);  // what the test itself was handed is none of the program's
    if (descriptors != 0) {
        const rlimit limit{descriptors, descriptors};
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    std::vector<char*> arguments;
    for (const std::string& word : command) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    _exit(127);
}

size_t entries(const std::string& directory) {
    std::error_code error;
    size_t count = 0;
    for (auto entry = std::filesystem::directory_iterator(directory, error);
         entry != std::filesystem::end(entry); entry.increment(error)) {
        ++count;
    }
    return count;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& command, unsigned long descriptors) {
    int input[2];
    int output[2];
    if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe: " << std::strerror(errno);
        return;
    }
    ::signal(SIGPIPE, SIG_IGN);  // a program that ends early fails the test by what it returns
    m_pid = fork();
    if (m_pid == 0) {
        become(command, descriptors, input[0], output[1]);
    }
    close(input[0]);
    close(output[1]);
    m_input = input[1];
    m_output = output[0];
    fcntl(m_input, F_SETFL, O_NONBLOCK);
    EXPECT_GT(m_pid, 0) << "fork: " << std::strerror(errno);
}

ChildProcess::~ChildProcess() {
    if (m_pid > 0 && !m_ended) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    if (m_input >= 0) {
        close(m_input);
    }
    if (m_output >= 0) {
        close(m_output);
    }
}

/// Takes some output; false if it has ended, or nothing came in time.
bool ChildProcess::fill(int limit_ms) {
    pollfd ready{m_output, POLLIN, 0};
    if (poll(&ready, 1, limit_ms) <= 0) {
        m_closed = true;
        ADD_FAILURE() << "the program printed nothing for " << limit_ms
                      << " ms, after: " << m_read.substr(0, 1000);
        return false;
    }
    char room[65536];
    const ssize_t got = read(m_output, room, sizeof room);
    if (got > 0) {
        m_read.append(room, static_cast<size_t>(got));
    }
    m_closed = got == 0;
    return got > 0;
}

std::string ChildProcess::readLine() {
    size_t end;
    while ((end = m_read.find('\n')) == std::string::npos && fill(scaledMs(CHILD_LIMIT_MS))) {
    }
    const std::string line = m_read.substr(0, end);
    m_read.erase(0, end == std::string::npos ? end : end + 1);
    return line;
}

void ChildProcess::feed(const std::string& input, size_t& given) {
    const ssize_t written = ::write(m_input, input.data() + given, input.size() - given);
    if (written > 0) {
        given += static_cast<size_t>(written);
    }
    if (given == input.size() || (written < 0 && errno != EAGAIN && errno != EINTR)) {
        close(m_input);
        m_input = -1;
    }
}

std::string ChildProcess::exchange(const std::string& input, bool slowly) {
    size_t given = 0;
    bool reading = !slowly;
    size_t piece = slowly ? 3000 : 65536;
    std::vector<char> room(piece);
    for (;;) {
        pollfd ready[2] = {{m_input, POLLOUT, 0}, {reading ? m_output : -1, POLLIN, 0}};
        const int count = poll(ready, 2, reading ? scaledMs(CHILD_LIMIT_MS) : 200);
        if (count == 0 && reading) {
            ADD_FAILURE() << "nothing moves after " << given << " bytes in, " << m_read.size() << " out";
            break;
        }
        if (m_input >= 0 && ready[0].revents != 0) {
            feed(input, given);
        }
        reading = reading || count == 0 || m_input < 0;
        if (ready[1].revents == 0) {
            continue;
        }
        const ssize_t got = read(m_output, room.data(), room.size());
        if (got <= 0) {
            break;
        }
        m_read.append(room.data(), static_cast<size_t>(got));
    }
    return std::exchange(m_read, std::string());
}

void ChildProcess::write(const std::string& input) {
    for (size_t given = 0; given < input.size();) {
        pollfd ready{m_input, POLLOUT, 0};
        if (poll(&ready, 1, scaledMs(CHILD_LIMIT_MS)) <= 0) {
            ADD_FAILURE() << "the program takes no input";
            return;
        }
        const ssize_t written = ::write(m_input, input.data() + given, input.size() - given);
        if (written < 0 && errno != EAGAIN && errno != EINTR) {
            ADD_FAILURE() << "write: " << std::strerror(errno);
            return;
        }
        if (written > 0) {
            given += static_cast<size_t>(written);
        }
    }
}

void ChildProcess::signal(int number) const {
    kill(m_pid, number);
}

int ChildProcess::wait(int limit_ms) {
    int status = 0;
    if (!m_ended) {
        m_ended = eventually([&] { return waitpid(m_pid, &status, WNOHANG) == m_pid; }, limit_ms);
        EXPECT_TRUE(m_ended) << "the program does not end";
        m_result = WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
    }
    return m_result;
}

long ChildProcess::processorTime_us() const {
    long sum_us = 0;
    std::error_code error;
    for (const auto& task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(m_pid) + "/task", error)) {
        long time_ns = 0;
        std::ifstream(task.path() / "schedstat") >> time_ns;
        sum_us += time_ns / 1000;
    }
    return sum_us;
}

size_t ChildProcess::descriptors() const {
    return entries("/proc/" + std::to_string(m_pid) + "/fd");
}

size_t ChildProcess::threads() const {
    return entries("/proc/" + std::to_string(m_pid) + "/task");
}

}  // namespace Orvex::Testing
