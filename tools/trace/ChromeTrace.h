// ChromeTrace: a dump as a picture that trace viewers open.
#pragma once

#include <cstddef>
#include <iosfwd>

#include "trace/Dump.h"

namespace trace {

/// How much there was to draw.
struct Drawn {
    size_t events = 0;
    size_t calls = 0;
    size_t waits = 0;   ///< In queues.
    size_t arrows = 0;  ///< From pushes to calls, and from frames to clients.
};

/// Writes Chrome trace JSON: a row for each thread with its calls as slices one in the other, what records
/// waited in queues, arrows from the push of a record to its call and from the put of a frame to each
/// client's last byte, and an instant for everything else. Times are microseconds since the beginning of the
/// recording.
Drawn write_chrome_trace(const Dump& dump, std::ostream& out);

}  // namespace trace
