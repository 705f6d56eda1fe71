// PlaceNames: what stands at an address of code.
#include "Core/stats/PlaceNames.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <link.h>

#include <cstdlib>
#include <memory>

namespace Orvex::Reticor {

namespace {

std::string readable(const char* name) {
    int status = 0;
    const std::unique_ptr<char, void (*)(void*)> text(abi::__cxa_demangle(name, nullptr, nullptr, &status),
                                                      &std::free);
    return status == 0 ? text.get() : name;
}

/// The module that this code is in: the library, or the program that it was linked to.
const link_map* own_module() {
    static const char MARK = 0;
    Dl_info found;
    void* module = nullptr;
    return ::dladdr1(&MARK, &found, &module, RTLD_DL_LINKMAP) != 0 ? static_cast<const link_map*>(module)
                                                                   : nullptr;
}

/// The program itself has no name in its own list.
bool is_library(const link_map& module) {
    return module.l_name != nullptr && *module.l_name != '\0';
}

}  // namespace

PlaceNames::Place PlaceNames::look(uintptr_t address) {
    Place place;
    // The call is in front of that: what follows it may be another function.
    const uintptr_t call = address - 1;
    Dl_info found;
    void* where = nullptr;
    if (::dladdr1(reinterpret_cast<const void*>(call), &found, &where, RTLD_DL_LINKMAP) == 0) {
        return place;
    }
    const auto* const module = static_cast<const link_map*>(where);
    place.module = found.dli_fname;
    place.offset = call - module->l_addr;
    place.in_library = module == own_module() && is_library(*module);
    if (found.dli_sname != nullptr) {
        place.function = readable(found.dli_sname);
    }
    return place;
}

const PlaceNames::Place& PlaceNames::Of(uintptr_t address) {
    const auto known = m_known.find(address);
    return known != m_known.end() ? known->second : m_known.emplace(address, look(address)).first->second;
}

}  // namespace Orvex::Reticor
