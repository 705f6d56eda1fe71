// The example timers_and_messages as a whole program.
#include <gtest/gtest.h>

#include "support/program/ChildProcess.h"

using Orvex::Testing::ChildProcess;

TEST(TimersAndMessages, PrintsWhatItPromises) {
    ChildProcess program({RETICOR_EXAMPLES_DIR "/timers_and_messages"});
    EXPECT_EQ(
        "timer: tick 1\n"
        "timer: tick 2\n"
        "timer: tick 3\n"
        "timer: tick 4\n"
        "timer: tick 5\n"
        "timer: done after 5 ticks\n"
        "Notify: 1000 of 1000 arrived\n"
        "NotifySerial: 1000 of 1000 arrived in order\n"
        "Notify to a handler that has gone: nothing happens\n",
        program.exchange(""));
    EXPECT_EQ(0, program.wait());
}
