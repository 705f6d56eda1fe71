// The command `reticorversion`: which library this is and when it was built.
#include "R3/print/FuncBox.h"
#include "R3/print/HelpText.h"

// A build that must be reproducible gives both; the compiler's own words follow SOURCE_DATE_EPOCH as well.
#ifndef RETICOR_BUILD_DATE
#define RETICOR_BUILD_DATE __DATE__
#endif
#ifndef RETICOR_BUILD_TIME
#define RETICOR_BUILD_TIME __TIME__
#endif

namespace Orvex::Reticor {

namespace {

constexpr char VERSION_TEXT[] = "Orvex<Reticor> 1.0.0";

int print_version(int, int, int, int, int, int, int, int, int, int) {
    R3Printf("%s | %s %s\n", VERSION_TEXT, RETICOR_BUILD_DATE, RETICOR_BUILD_TIME);
    return 0;
}

const R3Command g_command(&print_version, "reticorversion", HELP_RETICORVERSION);

}  // namespace

}  // namespace Orvex::Reticor
