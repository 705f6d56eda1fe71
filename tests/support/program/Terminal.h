// Terminal: a program in a real terminal, of tmux, whose screen a test reads and whose keys it presses.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/program/TempFolder.h"

namespace Orvex::Testing {

/// A tmux server of the test's own, which ends with it, and whatever runs in it.
class Terminal {
public:
    /// Runs `command`, a line for the shell, in a terminal of that size, with a locale of UTF-8. After its
    /// end the terminal stays, and shows "ended with" and its exit code.
    Terminal(const std::string& command, int width, int height);
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    /// What is on the screen, a line each, without the blanks at their ends.
    std::string screen();
    std::vector<std::string> lines();

    /// Whether the screen comes to show this, and not to show it any more; a failure prints the screen.
    bool shows(const std::string& text);
    bool ceasesToShow(const std::string& text);

    /// Names of keys as tmux has them: "q", "Space", "Up", "C-c"; `type` is of plain letters.
    void press(const std::string& key);
    void type(const std::string& letters);

    void resize(int width, int height);

    /// The process that the command line has started; 0 once it has ended.
    pid_t program();

private:
    bool has(const std::string& text);
    std::string tmux(const std::vector<std::string>& words);

    TempFolder m_folder;
};

}  // namespace Orvex::Testing
