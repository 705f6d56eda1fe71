// The run-time class name of a handler, for trace lines.
#include "Core/handle/ClassName.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <new>
#include <typeinfo>

#include <Reticor/NetHandler.h>

namespace Orvex::Reticor {

std::string class_name(const CNetHandler& handler) noexcept {
    const char* raw = typeid(handler).name();
    int status = 0;
    const std::unique_ptr<char, void (*)(void*)> readable(abi::__cxa_demangle(raw, nullptr, nullptr, &status),
                                                          &std::free);
    try {
        return status == 0 ? readable.get() : raw;
    } catch (const std::bad_alloc&) {
        return std::string();
    }
}

}  // namespace Orvex::Reticor
