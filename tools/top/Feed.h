// Feed: asks a process, one request at a time, without ever blocking.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "top/Target.h"

namespace top {

class Feed {
public:
    enum class State { IDLE, ASKING, ANSWERED, FAILED };

    static constexpr size_t MOST_BYTES = 32u << 20;   ///< Of an answer.
    static constexpr uint64_t PATIENCE_us = 5000000;  ///< From one byte to the next.

    /// `target` outlives it.
    explicit Feed(const Target& target) : m_target(target) {}
    ~Feed();
    Feed(const Feed&) = delete;
    Feed& operator=(const Feed&) = delete;

    /// Begins a request, and gives up the one that runs. `now_us` is of a clock that only goes forward.
    void ask(const std::string& request, uint64_t now_us);

    /// Goes on as far as it can without waiting. ANSWERED and FAILED are told once; then it is idle.
    State advance(uint64_t now_us);

    /// What to wait for, and until when at the latest; -1 while idle.
    int fd() const { return m_fd; }
    short events() const;
    uint64_t deadline_us() const { return m_heard_us + PATIENCE_us; }
    bool isAsking() const { return m_fd >= 0 || m_failed; }

    /// What was asked, and the answer, after ANSWERED.
    const std::string& request() const { return m_request; }
    std::string takeAnswer() { return std::move(m_answer); }
    /// Why there is none, after FAILED.
    const std::string& error() const { return m_error; }
    /// The process at the other end of a path; 0 if that is not known.
    pid_t peer() const { return m_peer; }

private:
    enum class Step { CONNECTING, SENDING, RECEIVING };

    void connect_next();
    void finish_connecting();
    void send_some();
    bool receive_some();
    bool take_http();
    bool is_whole() const;
    void fail(const std::string& why);
    void close_fd();

    const Target& m_target;
    std::string m_request;
    std::string m_output;  // not yet sent
    std::string m_answer;
    std::string m_error;
    size_t m_next = 0;  // of the addresses
    int m_fd = -1;
    Step m_step = Step::CONNECTING;
    bool m_failed = false;  // and not yet told
    pid_t m_peer = 0;
    uint64_t m_heard_us = 0;
};

}  // namespace top
