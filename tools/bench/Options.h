// Options: what the command line asks for.
#pragma once

#include "bench/Benches.h"

namespace bench {

/// -1: go on, with the benchmark's number of clients filled in; otherwise the exit status, and all was said.
int readOptions(int argc, const char* const* argv, Settings& settings);

}  // namespace bench
