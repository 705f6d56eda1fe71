// Drives CStrParser with a byte-coded sequence of operations, beside its model. Any difference, and any byte
// read or written outside the parser's copy, ends the run. Inputs: fuzz/corpus/StrParser.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/text/StrParserDriver.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string difference = Orvex::Reticor::driveStrParser(data, size);
    if (!difference.empty()) {
        fprintf(stderr, "parser and model differ: %s\n", difference.c_str());
        abort();
    }
    return 0;
}
