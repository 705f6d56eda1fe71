// reticor-top: a terminal's view of a process that serves its statistics.
#include <clocale>
#include <cstdio>

#include "top/Options.h"
#include "top/Target.h"
#include "top/Watch.h"

int main(int argc, char** argv) {
    std::setlocale(LC_CTYPE, "");  // for letters; figures are written as everywhere
    top::Options options;
    const int over = top::readOptions(argc, argv, options);
    if (over >= 0) {
        return over;
    }
    top::Target target;
    std::string wrong;
    if (!target.resolve(options.target, wrong)) {
        std::fprintf(stderr, "reticor-top: %s: %s\n", options.target.c_str(), wrong.c_str());
        return 1;
    }
    top::Watch watch(options, target);
    return options.once || options.json ? watch.runOnce() : watch.run();
}
