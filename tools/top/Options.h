// Options: the command line of reticor-top.
#pragma once

#include <string>

#include "top/Settings.h"

namespace top {

struct Options {
    std::string target;
    double every_s = 1;
    bool once = false;
    bool json = false;
    bool timing = false;
    Settings view;
};

/// Reads the command line. -1: go on; else the program ends with that code, and what is wrong was said.
int readOptions(int argc, const char* const* argv, Options& options);

}  // namespace top
