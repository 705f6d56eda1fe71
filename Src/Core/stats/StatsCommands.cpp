// The commands `stat`, `statjson`, `handlers` and `timing` of the debug server.
#include <algorithm>
#include <new>
#include <string>

#include "Core/count/Timing.h"
#include "Core/stats/StatsServer.h"
#include "R3/print/FuncBox.h"

namespace Orvex::Reticor {

namespace {

/// A print of 4096 bytes and more is dropped, so a text goes in pieces, cut after a line where there is one.
void print_in_pieces(const std::string& text) {
    constexpr size_t PIECE = 3000;
    for (size_t at = 0; at < text.size();) {
        size_t size = std::min(PIECE, text.size() - at);
        const size_t newline = text.rfind('\n', at + size - 1);
        if (at + size < text.size() && newline != std::string::npos && newline >= at) {
            size = newline + 1 - at;
        }
        R3Printf("%.*s", static_cast<int>(size), text.data() + at);
        at += size;
    }
}

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

constexpr char TEXT[] = "text";
constexpr char JSON[] = "json";
constexpr char HANDLERS[] = "handlers";

const R3Command g_stat_command(&print_answer<TEXT>, "stat", "what pools, workers and handlers do");
const R3Command g_statjson_command(&print_answer<JSON>, "statjson", "the same as JSON");
const R3Command g_handlers_command(&print_answer<HANDLERS>, "handlers", "all handlers, the oldest first");
const R3Command g_timing_command(&switch_timing, "timing", "measure times (timing 0: off, timing 1: on)");

}  // namespace

}  // namespace Orvex::Reticor
