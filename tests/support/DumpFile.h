// DumpFile: a dump of the flight recorder as a test reads it, by the rules of DumpFormat.h.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "Core/count/DumpFormat.h"

namespace Orvex::Testing {

struct DumpedEvent {
    uint64_t ticks;  // the lower 56 bits
    int what;
    uint64_t object;
};

struct DumpedThread {
    Reticor::DumpThread head;
    Reticor::DumpThreadEnd tail;
    std::string name;
    std::vector<DumpedEvent> events;  // those that are good, in their order

    size_t count(int what) const {
        size_t found = 0;
        for (const DumpedEvent& event : events) {
            found += event.what == what ? 1 : 0;
        }
        return found;
    }
};

struct DumpFile {
    Reticor::DumpHeader header{};
    std::map<uint32_t, std::string> classes;
    std::vector<DumpedThread> threads;
    bool whole = false;

    explicit DumpFile(const std::string& path) {
        std::ifstream file(path, std::ios::binary);
        std::ostringstream content;
        content << file.rdbuf();
        const std::string bytes = content.str();
        size_t at = take(bytes, 0, header);
        EXPECT_EQ(0, std::memcmp(header.magic, Reticor::DUMP_MAGIC, sizeof header.magic)) << path;
        for (Reticor::DumpPart part{}; at + sizeof part <= bytes.size(); at += part.size) {
            at = take(bytes, at, part);
            if (at + part.size > bytes.size()) {
                return;
            }
            readPart(part, bytes.substr(at, part.size));
        }
    }

    const DumpedThread* thread(uint32_t id) const {
        for (const DumpedThread& one : threads) {
            if (one.head.thread_id == id) {
                return &one;
            }
        }
        return nullptr;
    }
    size_t count(int what) const {
        size_t found = 0;
        for (const DumpedThread& one : threads) {
            found += one.count(what);
        }
        return found;
    }
    // The objects of all such events.
    std::vector<uint64_t> objects(int what) const {
        std::vector<uint64_t> found;
        for (const DumpedThread& one : threads) {
            for (const DumpedEvent& event : one.events) {
                if (event.what == what) {
                    found.push_back(event.object);
                }
            }
        }
        return found;
    }

private:
    template <class Value>
    static size_t take(const std::string& bytes, size_t at, Value& value) {
        EXPECT_LE(at + sizeof value, bytes.size());
        if (at + sizeof value <= bytes.size()) {
            std::memcpy(&value, bytes.data() + at, sizeof value);
        }
        return at + sizeof value;
    }

    void readPart(const Reticor::DumpPart& part, const std::string& bytes) {
        using Kind = Reticor::DumpPartKind;
        whole = part.kind == Kind::END;
        if (part.kind == Kind::CLASS) {
            Reticor::DumpClass row{};
            const size_t at = take(bytes, 0, row);
            classes[row.row] = bytes.substr(at);
        } else if (part.kind == Kind::THREAD) {
            readThread(bytes);
        }
    }

    void readThread(const std::string& bytes) {
        DumpedThread one{};
        const size_t at = take(bytes, 0, one.head);
        const size_t end = at + one.head.count * sizeof(Reticor::TraceEvent);
        EXPECT_EQ(bytes.size(), take(bytes, end, one.tail));
        one.name.assign(one.head.name, strnlen(one.head.name, sizeof one.head.name));
        // The one that was being written when the reading ended is lost, too.
        const uint64_t places = header.places;
        const uint64_t oldest = one.tail.written >= places ? one.tail.written - places + 1 : 0;
        for (uint64_t n = std::max(oldest, one.head.first); n < one.head.written; ++n) {
            Reticor::TraceEvent event{};
            take(bytes, at + (n % places) * sizeof event, event);
            one.events.push_back({event.ticks_what >> Reticor::TRACE_TICKS_SHIFT,
                                  static_cast<int>(event.ticks_what & 0xFF), event.object});
        }
        threads.push_back(std::move(one));
    }
};

}  // namespace Orvex::Testing
