// PlaceNames: what stands at an address of code.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

namespace Orvex::Reticor {

/// Asks the dynamic linker, and keeps what it said: the texts are good as long as this is there.
class PlaceNames {
public:
    struct Place {
        std::string function;  ///< Readable; empty unless its module exports the name.
        std::string module;    ///< The path; empty of an address that is in no module.
        uint64_t offset = 0;   ///< Of the call, as the file has it.
        bool in_library = false;
    };

    /// `address`: where a call returns to. std::bad_alloc without memory.
    const Place& Of(uintptr_t address);

private:
    static Place look(uintptr_t address);

    std::unordered_map<uintptr_t, Place> m_known;
};

}  // namespace Orvex::Reticor
