// The commands `stat`, `statjson`, `handlers`, `timing` and `recorder` of the debug server.
#include <new>
#include <string>

#include "Core/count/Timing.h"
#include "Core/handle/HolderNotes.h"
#include "Core/stats/StatsServer.h"
#include "R3/print/FuncBox.h"
#include "R3/print/PrintInPieces.h"

namespace Orvex::Reticor {

namespace {

template <const char* Request>
int print_answer(int, int, int, int, int, int, int, int, int, int) {
    try {
        print_in_pieces(stats_answer(Request));
    } catch (const std::bad_alloc&) {
        R3Printf("no memory\n");
    }
    return 0;
}

int switch_timing(int on, int, int, int, int, int, int, int, int, int) {
    Timing::Switch(on != 0);
    return 0;
}

int switch_holders(int on, int, int, int, int, int, int, int, int, int) {
    HolderNotes::Switch(on != 0);
    return 0;
}

int switch_recorder(int what, int, int, int, int, int, int, int, int, int) {
    constexpr int DUMP = 2;
    try {
        R3Printf("%s", stats_answer(what == DUMP ? "recorder dump"
                                    : what != 0  ? "recorder on"
                                                 : "recorder off")
                           .c_str());
    } catch (const std::bad_alloc&) {
        R3Printf("no memory\n");
    }
    return 0;
}

constexpr char TEXT[] = "text";
constexpr char JSON[] = "json";
constexpr char HANDLERS[] = "handlers";

const R3Command g_stat_command(&print_answer<TEXT>, "stat", "what pools, workers and handlers do");
const R3Command g_statjson_command(&print_answer<JSON>, "statjson", "the same as JSON");
const R3Command g_handlers_command(&print_answer<HANDLERS>, "handlers", "all handlers, the oldest first");
const R3Command g_holders_command(
    &switch_holders, "holders",
    "note where references on handlers are taken (holders 0: off, holders 1: on)");
const R3Command g_recorder_command(&switch_recorder, "recorder",
                                   "the flight recorder (recorder 0: off, 1: on, 2: dump it into a file)");
const R3Command g_timing_command(&switch_timing, "timing", "measure times (timing 0: off, timing 1: on)");

}  // namespace

}  // namespace Orvex::Reticor
