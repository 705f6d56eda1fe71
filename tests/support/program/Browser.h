// Browser: a headless browser that a test drives, over the pipe of its debugging protocol.
#pragma once

#include <sys/types.h>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include "support/program/TempFolder.h"

namespace Orvex::Testing {

/// One page. Waits have a deadline of half a minute (times RETICOR_TEST_TIME_FACTOR), which only stops a
/// hang. The browser and its files never outlive the test.
class Browser {
public:
    /// Starts the browser and opens `url` in it.
    explicit Browser(const std::string& url);
    ~Browser();
    Browser(const Browser&) = delete;
    Browser& operator=(const Browser&) = delete;

    /// The value of a JavaScript expression in the page; a promise is awaited. Null if it throws.
    nlohmann::json evaluate(const std::string& expression);

    /// Whether the expression becomes true.
    bool becomesTrue(const std::string& expression);

private:
    nlohmann::json call(const std::string& method, const nlohmann::json& parameters);
    bool receive(nlohmann::json& message);
    void open(const std::string& url);

    TempFolder m_folder;
    pid_t m_pid = -1;
    int m_commands = -1;
    int m_answers = -1;
    int m_number = 0;       // of the last command
    std::string m_session;  // the page's
    std::string m_read;
};

}  // namespace Orvex::Testing
