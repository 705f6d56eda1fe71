// Drives any bytes as a dump of the flight recorder through the reader and the drawing of reticor-trace. Any
// byte read outside of the dump ends the run. Inputs: fuzz/corpus/TraceDump.
#include <cstdint>
#include <sstream>
#include <string>

#include "trace/ChromeTrace.h"
#include "trace/Dump.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string why;
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    if (const auto dump = trace::read_dump(bytes, why)) {
        std::ostringstream out;
        write_chrome_trace(*dump, out);
    }
    return 0;
}
