// Model: the last minute of a process, and what is wrong in it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "top/Look.h"

namespace top {

/// What a pool did in a time, by second.
struct PoolRate {
    double seconds = 0;
    double utilisation = 0;  ///< Processor time of its workers, by worker: 0 to 1.
    double calls = 0, events = 0, messages = 0, timers = 0, passes = 0, reports = 0;
};

/// What handlers of a class did in a time, by second.
struct ClassRate {
    double seconds = 0;
    double calls = 0;
    double busy = 0;     ///< Of each second, for how much they ran; more than 1 on several workers.
    double each_us = 0;  ///< Of a call that was measured.
};

struct Alarm {
    bool is_bad;  ///< Somebody suffers; else it is worth a look.
    std::string text;
};

class Model {
public:
    static constexpr double WINDOWS_s[] = {1, 10, 60};

    /// Takes the newest look. `process` is its number, 0 if that is not known. What came before is forgotten
    /// if it was another process; whether it was.
    bool add(Look look, pid_t process);

    bool isEmpty() const { return m_marks.empty(); }
    const Look& now() const { return m_now; }
    pid_t process() const { return m_process; }

    /// Over the last `window_s` seconds. False if it was not seen for that long; of one second it is enough
    /// that it was seen twice.
    bool rateOfPool(int64_t pool, double window_s, PoolRate& rate) const;
    bool rateOfClass(const std::string& name, double window_s, ClassRate& rate) const;
    /// The same of the time that is there, if it is less.
    ClassRate recentRateOfClass(const std::string& name, double window_s) const;
    /// Bytes a second that were put into a buffer.
    bool rateOfBuffer(const std::string& buffer, double window_s, double& bytes) const;
    /// Frames and bytes a second of a relay's input.
    bool rateOfInput(double window_s, double& frames, double& bytes) const;
    /// By how much timers were late in the last ten seconds, on average; false if none was due.
    bool lateness(double& us) const;

    /// What is wrong, the worst first.
    std::vector<Alarm> alarms() const;

    /// Ids of handlers whose calls last, and whose classes nobody has told.
    std::vector<std::string> namelessCalls() const;
    void nameHandlers(const std::vector<std::pair<std::string, std::string>>& classes);

private:
    /// What rates are made of.
    struct Mark {
        uint64_t taken_us;
        std::vector<PoolRow> pools;
        std::map<std::string, ClassRow> classes;
        std::map<std::string, uint64_t> put;  // bytes, by buffer
        SpreadFigures lateness;
        RelayRow relay;
    };
    /// A call that a thread is in.
    struct Running {
        WorkerRow worker;
        uint64_t since_us;
    };

    static Mark mark_of(const Look& look);
    bool continues(const Mark& newest) const;
    void follow_calls();
    const Mark* at(double window_s) const;
    const Mark* first() const;
    bool rate_since(const Mark* from, const std::string& name, ClassRate& rate) const;
    static const PoolRow* find_pool(const Mark& mark, int64_t pool);
    void alarms_of_process(std::vector<Alarm>& alarms) const;
    size_t long_calls(int64_t pool) const;
    void alarms_of_calls(std::vector<Alarm>& alarms) const;
    void alarms_of_pool(const PoolRow& pool, std::vector<Alarm>& alarms) const;
    void alarms_of_reports(const PoolRow& pool, std::vector<Alarm>& alarms) const;
    void alarms_of_relay(std::vector<Alarm>& alarms) const;
    uint64_t still_us(const PoolRow& pool) const;

    Look m_now;
    pid_t m_process = 0;
    std::deque<Mark> m_marks;                    // the oldest first
    std::map<int64_t, Running> m_running;        // by thread
    std::map<std::string, std::string> m_names;  // of handlers, by id
};

}  // namespace top
