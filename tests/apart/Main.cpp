// The main function of every test program. With --apart=SECONDS as its first argument it forks for each case
// that the filter names, before anything of the library has run, so that a case has a process of its own and
// finds nothing that another one left. That costs less than to start the program again where a sanitizer has
// its tables to fill. What a case printed is shown if it failed or was skipped; one that takes longer than so
// many seconds is ended.

#include <gmock/gmock.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr char APART[] = "--apart=";

/// Ends the program if the tests cannot be run at all.
int required(int result, const char* what) {
    if (result < 0) {
        std::perror(what);
        std::exit(2);
    }
    return result;
}

/// Does not return: the only case of a child.
[[noreturn]] void run_case(const std::string& name, int output) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    required(::dup2(output, STDOUT_FILENO), "dup2");
    required(::dup2(output, STDERR_FILENO), "dup2");
    ::close(output);
    GTEST_FLAG_SET(filter, name);
    std::exit(RUN_ALL_TESTS());
}

/// What wait says of the child, which is ended if it takes longer.
int wait_for(pid_t child, int seconds) {
    const int ended = required(static_cast<int>(::syscall(SYS_pidfd_open, child, 0U)), "pidfd_open");
    pollfd watched{ended, POLLIN, 0};
    if (::poll(&watched, 1, 1000 * seconds) == 0) {
        std::printf("Ended after %d s\n", seconds);
        ::kill(child, SIGKILL);
    }
    ::close(ended);
    int status = 0;
    required(::waitpid(child, &status, 0), "waitpid");
    return status;
}

std::string text_of(int file) {
    std::string text(static_cast<size_t>(required(static_cast<int>(::lseek(file, 0, SEEK_END)), "lseek")),
                     '\0');
    const ssize_t got = ::pread(file, text.data(), text.size(), 0);
    text.resize(got < 0 ? 0 : static_cast<size_t>(got));
    return text;
}

bool passes(const std::string& name, int seconds) {
    const int output = required(::memfd_create("output", MFD_CLOEXEC), "memfd_create");
    std::fflush(nullptr);
    const pid_t child = required(::fork(), "fork");
    if (child == 0) {
        run_case(name, output);
    }
    const int status = wait_for(child, seconds);
    const std::string text = text_of(output);
    ::close(output);
    const bool passed = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (!passed || text.find("[  SKIPPED ]") != std::string::npos) {
        std::printf("%s\n", text.c_str());
    }
    if (WIFSIGNALED(status)) {
        std::printf("%s: signal %d\n", name.c_str(), WTERMSIG(status));
    }
    std::printf("[ %s ] %s\n", passed ? "passed" : "FAILED", name.c_str());
    return passed;
}

/// A filter of the form "Suite.*" or "*"; others are for a program that runs its cases itself.
bool wanted(const std::string& suite) {
    const std::string filter = GTEST_FLAG_GET(filter);
    return filter == "*" || filter == suite + ".*";
}

int run_apart(int seconds) {
    int ran = 0;
    int failed = 0;
    const testing::UnitTest& tests = *testing::UnitTest::GetInstance();
    for (int s = 0; s < tests.total_test_suite_count(); ++s) {
        const testing::TestSuite& suite = *tests.GetTestSuite(s);
        for (int c = 0; wanted(suite.name()) && c < suite.total_test_count(); ++c) {
            const std::string name = suite.GetTestInfo(c)->name();
            ++ran;
            failed += passes(std::string(suite.name()) + "." + name, seconds) ? 0 : 1;
        }
    }
    std::printf("%d cases, %d failed\n", ran, failed);
    return ran > 0 && failed == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    int seconds = 0;
    if (argc > 1 && std::strncmp(argv[1], APART, sizeof(APART) - 1) == 0) {
        seconds = std::atoi(argv[1] + sizeof(APART) - 1);
        // Gone before the arguments are kept for death tests, which start the program again.
        argv[1] = argv[0];
        ++argv;
        --argc;
    }
    testing::InitGoogleMock(&argc, argv);
    return seconds > 0 ? run_apart(seconds) : RUN_ALL_TESTS();
}
