// Watch: looks again and again, and shows what is seen.
#pragma once

#include <cstdint>
#include <string>

#include "top/Feed.h"
#include "top/Model.h"
#include "top/Options.h"
#include "top/Screen.h"
#include "top/Target.h"
#include "top/View.h"

namespace top {

class Watch {
public:
    /// `target` outlives it.
    Watch(const Options& options, const Target& target);

    /// Looks twice and prints. Result: the program's exit code.
    int runOnce();
    /// Until the user or a signal ends it. Result: the program's exit code.
    int run();

private:
    bool ask_and_wait(const std::string& request);
    bool look_and_wait(std::string& answer);
    void wait_for_looks();
    void print(const std::string& answer) const;
    void ask_next();
    void advance();
    void take_answer();
    void take_keys();
    void take_key(int key);
    void take_letter_of_filter(int key);
    void scroll(int key);
    void switch_timing();
    void draw();
    bool wait(int end_fd);
    void end_timing();

    const Options m_options;
    const uint64_t m_every_us;
    Settings m_settings;
    Contact m_contact;
    Model m_model;
    Feed m_feed;
    Screen m_screen;
    std::string m_wanted;           // request that goes before the next look
    uint64_t m_next_us = 0;         // the next look
    uint64_t m_asked_us = 0;        // the request that runs
    uint64_t m_heard_us = 0;        // the last answer, or the beginning
    bool m_times_are_ours = false;  // they were switched on here
    bool m_ends = false;
    bool m_changed = true;  // since the screen was drawn
};

}  // namespace top
