// MadeDump: the bytes of a dump that a test makes up, one tick a nanosecond.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "Core/count/DumpFormat.h"

namespace Orvex::Testing {

class MadeDump {
public:
    static constexpr uint32_t PLACES = 8;

    MadeDump() {
        std::memcpy(header.magic, Reticor::DUMP_MAGIC, sizeof header.magic);
        header.version = Reticor::DUMP_VERSION;
        header.header_size = sizeof header;
        header.pid = 4711;
        header.places = PLACES;
        header.begin_ticks = 1000;
        header.begin_ns = 5000;
        header.dump_ticks = 101000;
        header.dump_ns = 105000;
    }

    static Reticor::TraceEvent event(uint64_t ns, int what, uint64_t object = 0) {
        return {(1000 + ns) << Reticor::TRACE_TICKS_SHIFT | static_cast<uint64_t>(what), object};
    }

    void addClass(uint32_t row, const std::string& name) {
        std::string part = bytesOf(Reticor::DumpClass{row}) + name;
        add(Reticor::DumpPartKind::CLASS, part);
    }

    // A thread that has written so many events, of which these are the last.
    void addThread(uint32_t id, const std::vector<Reticor::TraceEvent>& events, uint64_t written = 0,
                   uint64_t first = 0, uint64_t written_meanwhile = 0) {
        Reticor::DumpThread head{};
        head.written = written != 0 ? written : events.size();
        head.first = first;
        head.thread_id = id;
        head.pool = 3;
        std::strcpy(head.name, "worker");
        head.count = static_cast<uint32_t>(events.size());
        head.live = 1;
        std::vector<Reticor::TraceEvent> ring(events.size());
        for (size_t i = 0; i < events.size(); ++i) {
            ring[(head.written - events.size() + i) % (events.size() == PLACES ? PLACES : ~uint64_t{0})] =
                events[i];
        }
        std::string part = bytesOf(head);
        for (const Reticor::TraceEvent& one : ring) {
            part += bytesOf(one);
        }
        part += bytesOf(Reticor::DumpThreadEnd{head.written + written_meanwhile, id, 0});
        add(Reticor::DumpPartKind::THREAD, part);
    }

    void add(Reticor::DumpPartKind kind, const std::string& part) {
        m_parts += bytesOf(Reticor::DumpPart{kind, static_cast<uint32_t>(part.size())}) + part;
    }

    std::string bytes(bool whole = true) const {
        const std::string end = whole ? bytesOf(Reticor::DumpPart{Reticor::DumpPartKind::END, 0}) : "";
        return bytesOf(header) + m_parts + end;
    }

    Reticor::DumpHeader header{};

private:
    template <class Value>
    static std::string bytesOf(const Value& value) {
        return {reinterpret_cast<const char*>(&value), sizeof value};
    }

    std::string m_parts;
};

}  // namespace Orvex::Testing
