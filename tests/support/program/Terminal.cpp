// Terminal: tmux, by its command line.
#include "support/program/Terminal.h"

#include <time.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Eventually.h"
#include "support/program/ChildProcess.h"

namespace Orvex::Testing {

Terminal::Terminal(const std::string& command, int width, int height) {
    tmux({"new-session", "-d", "-s", "it", "-x", std::to_string(width), "-y", std::to_string(height),
          command + "; printf 'ended with %s\\n' $?; exec cat"});
    tmux({"set-option", "-g", "status", "off"});
    resize(width, height);
}

Terminal::~Terminal() {
    tmux({"kill-server"});
}

std::string Terminal::tmux(const std::vector<std::string>& words) {
    std::vector<std::string> command{
        "env", "-u", "TMUX", "LC_ALL=C.UTF-8", "tmux", "-S", m_folder.file("tmux"), "-f", "/dev/null"};
    command.insert(command.end(), words.begin(), words.end());
    ChildProcess process(command);
    const std::string said = process.exchange("");
    EXPECT_EQ(0, process.wait()) << words.front();
    return said;
}

std::string Terminal::screen() {
    return tmux({"capture-pane", "-p", "-t", "it"});
}

std::vector<std::string> Terminal::lines() {
    std::vector<std::string> found;
    std::istringstream text(screen());
    for (std::string line; std::getline(text, line);) {
        found.push_back(line);
    }
    return found;
}

/// Each look is a process of its own, so there is a pause after it.
bool Terminal::has(const std::string& text) {
    const bool found = screen().find(text) != std::string::npos;
    const timespec pause{0, 20000000};
    ::nanosleep(&pause, nullptr);
    return found;
}

pid_t Terminal::program() {
    const std::string shell = tmux({"display-message", "-p", "-t", "it", "#{pane_pid}"});
    const std::string number = shell.substr(0, shell.find('\n'));
    pid_t child = 0;
    std::ifstream("/proc/" + number + "/task/" + number + "/children") >> child;
    return child;
}

bool Terminal::shows(const std::string& text) {
    const bool found = eventually([&] { return has(text); }, 20000);
    EXPECT_TRUE(found) << "not on the screen: " << text << "\n" << screen();
    return found;
}

bool Terminal::ceasesToShow(const std::string& text) {
    const bool gone = eventually([&] { return !has(text); }, 20000);
    EXPECT_TRUE(gone) << "still on the screen: " << text << "\n" << screen();
    return gone;
}

void Terminal::press(const std::string& key) {
    tmux({"send-keys", "-t", "it", key});
}

void Terminal::type(const std::string& letters) {
    tmux({"send-keys", "-t", "it", "-l", letters});
}

void Terminal::resize(int width, int height) {
    tmux({"resize-window", "-t", "it", "-x", std::to_string(width), "-y", std::to_string(height)});
}

}  // namespace Orvex::Testing
