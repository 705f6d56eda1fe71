// reticor-bench: what this library does on a machine, beside others.
#include <cstdio>
#include <string>

#include "bench/Options.h"
#include "bench/Report.h"

namespace {

/// The process of a server, a load or a producer: "--part NAME", and the options of that one.
int runPart(int argc, char** argv) {
    const bench::Main part = bench::findProgram(argv[2]);
    if (part == nullptr) {
        std::fprintf(stderr, "reticor-bench: there is no part %s\n", argv[2]);
        return 1;
    }
    return part(argc - 2, argv + 2);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 3 && std::string(argv[1]) == "--part") {
        return runPart(argc, argv);
    }
    bench::Settings settings;
    const int over = bench::readOptions(argc, argv, settings);
    if (over >= 0) {
        return over;
    }
    if (settings.bench == "list") {
        std::fputs(bench::listText().c_str(), stdout);
        return 0;
    }
    for (const bench::Bench& one : bench::allBenches()) {
        if (settings.bench != one.name) {
            continue;
        }
        bench::Result result;
        std::string wrong;
        if (!bench::measure(one, settings, result, wrong)) {
            std::fprintf(stderr, "reticor-bench: %s\n", wrong.c_str());
            return 1;
        }
        std::fputs(
            (settings.json ? reportJson(one, settings, result) : reportText(one, settings, result)).c_str(),
            stdout);
    }
    return 0;
}
