// The command `multicast` of the debug server.
#include <algorithm>
#include <new>
#include <string>

#include <Reticor/MulticastDoctor.h>

#include "R3/print/FuncBox.h"
#include "R3/print/PrintInPieces.h"

namespace Orvex::Reticor {

namespace {

// A command holds a worker, so it does not listen for long.
constexpr int LONGEST_MS = 5000;

int print_multicast(int listen_ms, int, int, int, int, int, int, int, int, int) {
    CMulticastDoctor doctor;
    if (doctor.Take(static_cast<unsigned>(std::clamp(listen_ms, 0, LONGEST_MS))) == -1) {
        R3Printf("no memory, or no look at interfaces and descriptors\n");
        return 0;
    }
    try {
        std::string text(doctor.toText(nullptr, 0), '\0');
        doctor.toText(&text[0], text.size());
        print_in_pieces(text);
    } catch (const std::bad_alloc&) {
        R3Printf("no memory\n");
    }
    return 0;
}

const R3Command g_multicast_command(
    &print_multicast, "multicast",
    "interfaces, groups, losses, what is wrong (multicast 1000: count datagrams "
    "for 1000 ms, 5000 at most)");

}  // namespace

}  // namespace Orvex::Reticor
