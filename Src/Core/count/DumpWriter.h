// DumpWriter: writes down what all rings hold.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Core/count/EventRing.h"

namespace Orvex::Reticor {

/// Takes neither locks nor memory, and calls nothing that a signal handler may not call.
class DumpWriter {
public:
    /// When the recorder was switched on first, by both clocks.
    struct Begin {
        uint64_t ticks;
        uint64_t ns;
    };

    explicit DumpWriter(int fd) : m_fd(fd) {}

    /// False, with errno, if the file did not take it all.
    bool Write(const Begin& begin);

private:
    bool write_all(const void* data, size_t size);
    bool write_classes();
    bool write_ring(const EventRing& ring);

    const int m_fd;
};

}  // namespace Orvex::Reticor
