// ChildProcess: a program that a test starts, feeds, reads and ends. Only what was started here is ever
// ended.
#pragma once

#include <sys/types.h>
#include <string>
#include <vector>

namespace Orvex::Testing {

/// Waits have a deadline of half a minute (times RETICOR_TEST_TIME_FACTOR), which only stops a hang: a test
/// that meets it fails. The program's standard error is the test's own. It never outlives the test.
class ChildProcess {
public:
    /// Starts the program `command[0]` of the path. It may open `descriptors` descriptors; 0 is what the test
    /// may.
    explicit ChildProcess(const std::vector<std::string>& command, unsigned long descriptors = 0);

    /// Kills the program if it still runs.
    ~ChildProcess();

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return m_pid; }

    /// The next line of its output, without the line end; what is left if the output ends.
    std::string readLine();

    /// Whether a read has come to the end of its output, or given up.
    bool hasEnded() const { return m_closed; }

    /// Writes `input`, closes the program's input, and returns all that it still prints. Takes no output, if
    /// `slowly`, before the program has stopped to take input, and then little at a time.
    std::string exchange(const std::string& input, bool slowly = false);

    /// Writes to its input, which stays open.
    void write(const std::string& input);

    void signal(int number) const;

    /// Its exit code, or minus the signal that ended it. Encoders and players compute for as long as the
    /// machine makes them, and get more time.
    static constexpr int WORK_LIMIT_MS = 240000;
    int wait(int limit_ms = 30000);

    /// Processor time of all its threads until now, in microseconds.
    long processorTime_us() const;

    /// Descriptors that it has open, threads that it has.
    size_t descriptors() const;
    size_t threads() const;

private:
    bool fill(int limit_ms);
    void feed(const std::string& input, size_t& given);

    pid_t m_pid = -1;
    int m_input = -1;
    int m_output = -1;
    std::string m_read;  // and not yet returned
    bool m_closed = false;
    bool m_ended = false;
    int m_result = 0;
};

}  // namespace Orvex::Testing
