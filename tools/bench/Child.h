// Child: a part of this program in a process of its own.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace bench {

/// Waits have deadlines, which only stop a hang. It never outlives this process.
class Child {
public:
    Child() = default;
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    /// Starts the program with these arguments, on one processor alone unless `processor` is -1. False, with
    /// the reason in `wrong`, if that cannot be done.
    bool start(const std::string& program, const std::vector<std::string>& arguments, int processor,
               std::string& wrong);
    pid_t pid() const { return m_pid; }

    /// The next line of its output; false if it ends before, or says nothing for that long.
    bool readLine(std::string& line, double seconds);
    /// Waits for its end, and tells it to end before if it is a server. False, with the reason in `wrong`, if
    /// it did not end well.
    bool end(bool is_server, double seconds, std::string& wrong);

private:
    bool wait(double seconds, int& status);

    std::string m_program;
    pid_t m_pid = -1;
    int m_output = -1;
    std::string m_read;  ///< And not yet returned.
};

}  // namespace bench
