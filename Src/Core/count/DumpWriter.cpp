// DumpWriter: header, names, rings.
#include "Core/count/DumpWriter.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Core/count/ClassRows.h"
#include "Core/count/TraceClock.h"

namespace Orvex::Reticor {

bool DumpWriter::write_all(const void* data, size_t size) {
    const char* at = static_cast<const char*>(data);
    while (size != 0) {
        const ssize_t written = ::write(m_fd, at, size);
        if (written < 0 && errno != EINTR) {
            return false;
        }
        if (written > 0) {
            at += written;
            size -= static_cast<size_t>(written);
        }
    }
    return true;
}

bool DumpWriter::write_classes() {
    for (uint32_t row = 0; row < ClassRows::COUNT; ++row) {
        const char* const name = ClassRows::RawName(row);
        if (name == nullptr) {
            continue;
        }
        const size_t length = std::strlen(name);
        const DumpClass head{row};
        const DumpPart part{DumpPartKind::CLASS, static_cast<uint32_t>(sizeof(head) + length)};
        if (!write_all(&part, sizeof(part)) || !write_all(&head, sizeof(head)) || !write_all(name, length)) {
            return false;
        }
    }
    return true;
}

bool DumpWriter::write_ring(const EventRing& ring) {
    constexpr uint64_t AT_ONCE = 64;
    const DumpThread head = ring.Head();
    const DumpPart part{
        DumpPartKind::THREAD,
        static_cast<uint32_t>(sizeof(DumpThread) + sizeof(DumpThreadEnd) + head.count * sizeof(TraceEvent))};
    if (!write_all(&part, sizeof(part)) || !write_all(&head, sizeof(head))) {
        return false;
    }
    TraceEvent events[AT_ONCE];
    for (uint64_t place = 0; place < head.count; place += AT_ONCE) {
        const uint64_t count = std::min(AT_ONCE, head.count - place);
        ring.Copy(place, count, events);
        if (!write_all(events, count * sizeof(TraceEvent))) {
            return false;
        }
    }
    const DumpThreadEnd tail = ring.Tail();
    return write_all(&tail, sizeof(tail));
}

bool DumpWriter::Write(const Begin& begin) {
    DumpHeader header{};
    std::memcpy(header.magic, DUMP_MAGIC, sizeof(header.magic));
    header.version = DUMP_VERSION;
    header.header_size = sizeof(header);
    header.pid = static_cast<uint32_t>(::getpid());
    header.places = EventRing::PLACES;
    header.begin_ticks = begin.ticks;
    header.begin_ns = begin.ns;
    header.dump_ticks = TraceClock::Ticks();
    header.dump_ns = Timing::NowNs();
    timespec wall{};
    ::clock_gettime(CLOCK_REALTIME, &wall);
    header.wall_ns = static_cast<uint64_t>(wall.tv_sec) * 1000000000 + static_cast<uint64_t>(wall.tv_nsec);
    if (!write_all(&header, sizeof(header)) || !write_classes()) {
        return false;
    }
    for (const EventRing* ring = EventRing::First(); ring != nullptr; ring = ring->Next()) {
        if (!write_ring(*ring)) {
            return false;
        }
    }
    const DumpPart end{DumpPartKind::END, 0};
    return write_all(&end, sizeof(end));
}

}  // namespace Orvex::Reticor
