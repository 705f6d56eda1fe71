// Child: this program once more, told which part of it to be.
#include "bench/Child.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "kit/Clocks.h"

namespace bench {

namespace {

int msUntil(uint64_t until_ns) {
    const uint64_t now = LoadKit::now();
    return until_ns > now ? static_cast<int>((until_ns - now) / 1000000) + 1 : 0;
}

uint64_t inSeconds(double seconds) {
    return LoadKit::now() + static_cast<uint64_t>(seconds * 1e9);
}

/// Nothing but system calls between fork and exec.
[[noreturn]] void become(char* const* command, int output, int processor, pid_t parent) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) {
        ::_exit(126);
    }
    if (processor >= 0) {
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(static_cast<unsigned>(processor), &one);
        ::sched_setaffinity(0, sizeof one, &one);
    }
    ::dup2(output, STDOUT_FILENO);
    ::execv("/proc/self/exe", command);
    ::_exit(127);
}

}  // namespace

Child::~Child() {
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
    if (m_output >= 0) {
        ::close(m_output);
    }
}

bool Child::start(const std::string& program, const std::vector<std::string>& arguments, int processor,
                  std::string& wrong) {
    m_program = program;
    std::vector<std::string> words{"reticor-bench", "--part", program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> command;
    for (std::string& word : words) {
        command.push_back(word.data());
    }
    command.push_back(nullptr);
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        wrong = std::string("no pipe: ") + std::strerror(errno);
        return false;
    }
    const pid_t parent = ::getpid();
    m_pid = ::fork();
    if (m_pid == 0) {
        become(command.data(), ends[1], processor, parent);
    }
    ::close(ends[1]);
    m_output = ends[0];
    if (m_pid < 0) {
        wrong = std::string("no process: ") + std::strerror(errno);
        return false;
    }
    return true;
}

bool Child::readLine(std::string& line, double seconds) {
    const uint64_t until = inSeconds(seconds);
    for (;;) {
        const size_t end = m_read.find('\n');
        if (end != std::string::npos) {
            line = m_read.substr(0, end);
            m_read.erase(0, end + 1);
            return true;
        }
        pollfd watched{m_output, POLLIN, 0};
        const int ready = ::poll(&watched, 1, msUntil(until));
        if (ready == 0 || (ready < 0 && errno != EINTR)) {
            return false;
        }
        char room[4096];
        const ssize_t got = ready > 0 ? ::read(m_output, room, sizeof room) : 0;
        if (ready > 0 && got <= 0) {
            return false;
        }
        m_read.append(room, static_cast<size_t>(got));
    }
}

bool Child::wait(double seconds, int& status) {
    const uint64_t until = inSeconds(seconds);
    for (;;) {
        const pid_t found = ::waitpid(m_pid, &status, WNOHANG);
        if (found != 0) {
            m_pid = found == m_pid ? -1 : m_pid;
            return found > 0;
        }
        if (msUntil(until) == 0) {
            return false;
        }
        ::poll(nullptr, 0, 5);
    }
}

bool Child::end(bool is_server, double seconds, std::string& wrong) {
    if (is_server) {
        ::kill(m_pid, SIGTERM);
    }
    int status = 0;
    if (!wait(seconds, status)) {
        wrong = m_program + " hangs";
        return false;
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        wrong = m_program + " ended with " +
                (WIFEXITED(status) ? std::to_string(WEXITSTATUS(status))
                                   : "signal " + std::to_string(WTERMSIG(status)));
        return false;
    }
    return true;
}

}  // namespace bench
