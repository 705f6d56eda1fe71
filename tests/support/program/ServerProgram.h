// ServerProgram: one of the examples that listen, started on a port that the system chooses.
#pragma once

#include <csignal>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/program/ChildProcess.h"

namespace Orvex::Testing {

class ServerProgram : public ChildProcess {
public:
    explicit ServerProgram(const std::string& name, const std::vector<std::string>& options = {},
                           unsigned long descriptors = 0)
        : ChildProcess(command(name, options), descriptors) {
        const std::string line = readLine();
        const size_t colon = line.rfind(':');
        if (line.rfind("listening on ", 0) != 0 || colon == std::string::npos) {
            ADD_FAILURE() << "no address in its first line: " << line;
            return;
        }
        m_host = line.substr(13, colon - 13);
        m_port = std::stoi(line.substr(colon + 1));
    }

    int port() const { return m_port; }
    const std::string& host() const { return m_host; }

    /// Ends it as a user does. The result is its exit code.
    int end(int number = SIGTERM) {
        signal(number);
        return wait();
    }

private:
    static std::vector<std::string> command(const std::string& name,
                                            const std::vector<std::string>& options) {
        std::vector<std::string> words{RETICOR_EXAMPLES_DIR "/" + name, "--port", "0"};
        words.insert(words.end(), options.begin(), options.end());
        return words;
    }

    std::string m_host;
    int m_port = 0;
};

}  // namespace Orvex::Testing
