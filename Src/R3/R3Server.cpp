// R3ServerStart, R3ServerExit: the debug server's door.
#include <Infra/Log.h>
#include <Reticor/R3.h>

#include "R3/FuncBox.h"

namespace Orvex::Reticor {

int R3ServerStart(unsigned short, const char*, bool) {
    INFRA_LOG_PLAIN(4, "R3 has been disable.\n");
    return -1;
}

int R3ServerExit() {
    dropFuncBox();
    return 0;
}

}  // namespace Orvex::Reticor
