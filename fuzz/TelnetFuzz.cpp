// Drives what a telnet client of the debug server sends, any bytes in any pieces, through the session's
// stages beside their model. Any difference, any byte read or written outside of a buffer, and any state that
// no longer hears "bye", ends the run. Inputs: fuzz/corpus/Telnet.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/debug/TelnetModel.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string difference = Orvex::Testing::driveTelnet(data, size);
    if (!difference.empty()) {
        fprintf(stderr, "session and model differ: %s\n", difference.c_str());
        abort();
    }
    return 0;
}
