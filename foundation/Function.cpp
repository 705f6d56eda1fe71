// What function objects of all types share: the kind last called, and the complaint about a wrong one.
#include <Infra/Function.h>

#include <cstdio>

namespace Orvex::Infra::Detail {

namespace {

thread_local uint32_t t_function_reuse = 0;

}  // namespace

void setCurrentFunctionReuse(uint32_t kind) noexcept {
    t_function_reuse = kind;
}

uint32_t currentFunctionReuse() noexcept {
    return t_function_reuse;
}

void complainOfFunctionKind(uint32_t kind, const char* type_name) noexcept {
    std::printf("FUNCTION_FUNCTION::operator() invalid function type : %u, typeid : %s\n", kind,
                type_name != nullptr ? type_name : "(null)");
    std::fflush(stdout);
}

}  // namespace Orvex::Infra::Detail
