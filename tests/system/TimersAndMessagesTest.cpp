// The example timers_and_messages as a whole program.
#include <gtest/gtest.h>

#include "support/program/ChildProcess.h"

using Orvex::Testing::ChildProcess;

TEST(TimersAndMessagesTest, PrintsWhatItPromises) {
    ChildProcess program({RETICOR_EXAMPLES_DIR "/timers_and_messages"});
    EXPECT_EQ(program.exchange(""),
              "timer: tick 1\n"
              "timer: tick 2\n"
              "timer: tick 3\n"
              "timer: tick 4\n"
              "timer: tick 5\n"
              "timer: done after 5 ticks\n"
              "Notify: 1000 of 1000 arrived\n"
              "NotifySerial: 1000 of 1000 arrived in order\n"
              "Notify to a handler that has gone: nothing happens\n");
    EXPECT_EQ(program.wait(), 0);
}
