// The run-time class name of a handler, for trace lines.
#include "Core/handle/ClassName.h"

#include <cxxabi.h>

#include <cstdlib>
#include <typeinfo>

#include <Reticor/NetHandler.h>

namespace Orvex::Reticor {

std::string className(const CNetHandler& handler) {
    const char* raw = typeid(handler).name();
    int status = 0;
    char* readable = abi::__cxa_demangle(raw, nullptr, nullptr, &status);
    std::string name = status == 0 ? readable : raw;
    std::free(readable);
    return name;
}

}  // namespace Orvex::Reticor
