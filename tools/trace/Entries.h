// Entries: the lines of Chrome trace JSON.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace trace {

/// Bytes of anybody as a JSON string, quotes included.
std::string quoted(const std::string& text);

/// Names and JSON values.
using Arguments = std::vector<std::pair<const char*, std::string>>;

/// Writes entries one by one; nothing is kept.
class Entries {
public:
    Entries(std::ostream& out, uint32_t pid);
    ~Entries();
    Entries(const Entries&) = delete;
    Entries& operator=(const Entries&) = delete;

    void name_process(const std::string& name);
    void name_thread(uint32_t thread, const std::string& name);
    void slice(uint32_t thread, const std::string& name, const char* category, double from_us, double to_us,
               const Arguments& arguments = {});
    void instant(uint32_t thread, const std::string& name, const char* category, double at_us,
                 const Arguments& arguments = {});
    /// On a track of its own, which is that of all spans of this name.
    void span(uint32_t thread, const std::string& name, const char* category, uint64_t id, double from_us,
              double to_us);
    /// Both ends are inside of slices.
    void arrow(const char* name, uint64_t id, uint32_t from_thread, double from_us, uint32_t to_thread,
               double to_us);

private:
    void begin(char phase, uint32_t thread, const std::string& name, const char* category, double at_us);
    void end(const Arguments& arguments);

    std::ostream& m_out;
    const uint32_t m_pid;
    bool m_first = true;
};

}  // namespace trace
