// ObjectFigures: what a snapshot has of one object, by the names of its figures.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include <Reticor/Stats.h>

namespace Orvex::Testing {

// Empty if the snapshot does not have it, or has it as another kind.
inline std::map<std::string, uint64_t> figuresOf(const char* kind, int64_t id) {
    using namespace Reticor;
    CStats now;
    now.Take();
    std::map<std::string, uint64_t> found;
    ObjectStats object;
    for (size_t place = 0; now.GetObject(place, object) == 0; ++place) {
        if (object.id == id && std::string(kind) == object.kind) {
            for (size_t i = 0; i < OBJECT_FIGURES && object.names[i] != nullptr; ++i) {
                found[object.names[i]] = object.values[i];
            }
        }
    }
    return found;
}

}  // namespace Orvex::Testing
